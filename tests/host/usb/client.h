// A client of the bus as a function driver is one: it builds URBs and sends them to the device object in IRPs of its
// own.
#pragma once

#include "host/executive/runtime.h"
#include "platform/platform.h"
#include "tests/host/usb/fake_device.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

namespace host::usb::test {

inline Ticks Now() {
    return Runtime::Current().Now();
}

// A URB in its IRP, with a buffer and an MDL over it when it has one.
class Sent {
  public:
    explicit Sent(PDEVICE_OBJECT pdo, std::size_t urbSize = sizeof(URB), std::size_t bufferSize = 0)
        : pdo_(pdo), urb_((urbSize + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t)), size_(bufferSize) {
        KeInitializeEvent(&done_, NotificationEvent, FALSE);
        irp_ = IoAllocateIrp(pdo->StackSize, FALSE);
        if (bufferSize != 0)
            buffer_ = ExAllocatePoolWithTag(NonPagedPool, bufferSize, kTag);
    }
    ~Sent() {
        IoFreeIrp(irp_);
        if (mdl_ != nullptr)
            IoFreeMdl(mdl_);
        if (buffer_ != nullptr)
            ExFreePoolWithTag(buffer_, kTag);
    }
    Sent(const Sent &) = delete;
    Sent &operator=(const Sent &) = delete;

    PURB Urb() { return reinterpret_cast<PURB>(urb_.data()); }
    Bytes Data() const {
        auto *bytes = static_cast<const std::uint8_t *>(buffer_);
        return {bytes, bytes + Length()};
    }
    ULONG Length() const {
        return reinterpret_cast<const URB *>(urb_.data())->UrbBulkOrInterruptTransfer.TransferBufferLength;
    }
    PVOID Buffer() const { return buffer_; }
    PMDL Mdl() {
        mdl_ = IoAllocateMdl(buffer_, static_cast<ULONG>(size_), FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl_);
        return mdl_;
    }

    // The argument is the URB unless given.
    NTSTATUS Send(ULONG controlCode = IOCTL_INTERNAL_USB_SUBMIT_URB, PVOID argument = nullptr) {
        IoReuseIrp(irp_, STATUS_SUCCESS);
        KeClearEvent(&done_);
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp_);
        stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        stack->Parameters.DeviceIoControl.IoControlCode = controlCode;
        stack->Parameters.Others.Argument1 = argument != nullptr ? argument : urb_.data();
        IoSetCompletionRoutine(irp_, Completed, this, TRUE, TRUE, TRUE);
        return IoCallDriver(pdo_, irp_);
    }
    void Cancel() { IoCancelIrp(irp_); }

    // Whether it completes within the time; 0 asks only.
    bool Completes(Ticks within = 60'000 * kTicksPerMillisecond) {
        LARGE_INTEGER timeout{.QuadPart = -within};
        return KeWaitForSingleObject(&done_, Executive, KernelMode, FALSE, &timeout) == STATUS_SUCCESS;
    }
    NTSTATUS Status() const { return irp_->IoStatus.Status; }
    USBD_STATUS UsbdStatus() { return Urb()->UrbHeader.Status; }
    KIRQL CompletionLevel() const { return level_; }
    int CompletionOrder() const { return order_; }

  private:
    static constexpr ULONG kTag = 0x74736574;
    static inline std::atomic<int> completions{0};

    static NTSTATUS NTAPI Completed(PDEVICE_OBJECT, PIRP, PVOID context) {
        auto &sent = *static_cast<Sent *>(context);
        sent.level_ = KeGetCurrentIrql();
        sent.order_ = ++completions;
        KeSetEvent(&sent.done_, IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PDEVICE_OBJECT pdo_;
    std::vector<std::max_align_t> urb_;
    std::size_t size_;
    PIRP irp_ = nullptr;
    PVOID buffer_ = nullptr;
    PMDL mdl_ = nullptr;
    KEVENT done_;
    KIRQL level_ = 0;
    int order_ = 0;
};

inline std::unique_ptr<Sent> BulkRead(PDEVICE_OBJECT pdo, USBD_PIPE_HANDLE pipe, ULONG length,
                                      ULONG flags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK) {
    auto sent = std::make_unique<Sent>(pdo, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), length);
    _URB_BULK_OR_INTERRUPT_TRANSFER &urb = sent->Urb()->UrbBulkOrInterruptTransfer;
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb.PipeHandle = pipe;
    urb.TransferFlags = flags;
    urb.TransferBufferLength = length;
    urb.TransferBufferMDL = length != 0 ? sent->Mdl() : nullptr;
    return sent;
}

inline std::unique_ptr<Sent> PipeRequest(PDEVICE_OBJECT pdo, USBD_PIPE_HANDLE pipe, USHORT function) {
    auto sent = std::make_unique<Sent>(pdo);
    _URB_PIPE_REQUEST &urb = sent->Urb()->UrbPipeRequest;
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = function;
    urb.PipeHandle = pipe;
    return sent;
}

inline std::unique_ptr<Sent> GetDescriptor(PDEVICE_OBJECT pdo, UCHAR type, UCHAR index, ULONG length) {
    auto sent = std::make_unique<Sent>(pdo, sizeof(URB), length);
    _URB_CONTROL_DESCRIPTOR_REQUEST &urb = sent->Urb()->UrbControlDescriptorRequest;
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    urb.DescriptorType = type;
    urb.Index = index;
    urb.TransferBufferLength = length;
    urb.TransferBuffer = sent->Buffer();
    return sent;
}

inline std::unique_ptr<Sent> VendorOrClass(PDEVICE_OBJECT pdo, USHORT function, bool in, ULONG length) {
    auto sent = std::make_unique<Sent>(pdo, sizeof(URB), length);
    _URB_CONTROL_VENDOR_OR_CLASS_REQUEST &urb = sent->Urb()->UrbControlVendorClassRequest;
    urb.Hdr.Length = sizeof(urb);
    urb.Hdr.Function = function;
    urb.TransferFlags = in ? USBD_TRANSFER_DIRECTION_IN : 0;
    urb.Request = 0x81;
    urb.Value = 0x0100;
    urb.Index = 0x0001;
    urb.TransferBufferLength = length;
    urb.TransferBuffer = sent->Buffer();
    return sent;
}

inline std::unique_ptr<Sent> SelectInterface(PDEVICE_OBJECT pdo, USBD_CONFIGURATION_HANDLE configuration, UCHAR number,
                                             UCHAR alternate, ULONG pipes) {
    std::size_t size = offsetof(_URB_SELECT_INTERFACE, Interface) + offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
                       pipes * sizeof(USBD_PIPE_INFORMATION);
    auto sent = std::make_unique<Sent>(pdo, size);
    _URB_SELECT_INTERFACE &urb = sent->Urb()->UrbSelectInterface;
    urb.Hdr.Length = static_cast<USHORT>(size);
    urb.Hdr.Function = URB_FUNCTION_SELECT_INTERFACE;
    urb.ConfigurationHandle = configuration;
    urb.Interface.Length = static_cast<USHORT>(size - offsetof(_URB_SELECT_INTERFACE, Interface));
    urb.Interface.InterfaceNumber = number;
    urb.Interface.AlternateSetting = alternate;
    return sent;
}

// Selects the configuration with the given setting of each interface, as usbd.sys helps to.
inline std::unique_ptr<Sent> SelectConfiguration(PDEVICE_OBJECT pdo, Bytes &configuration,
                                                 const std::vector<std::pair<UCHAR, UCHAR>> &settings) {
    auto *descriptor = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(configuration.data());
    std::vector<USBD_INTERFACE_LIST_ENTRY> list;
    for (auto [number, alternate] : settings)
        list.push_back({.InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(descriptor, descriptor, number,
                                                                                   alternate, -1, -1, -1)});
    list.push_back({});
    PURB built = USBD_CreateConfigurationRequestEx(descriptor, list.data());
    auto sent = std::make_unique<Sent>(pdo, built->UrbHeader.Length);
    std::memcpy(static_cast<void *>(sent->Urb()), built, built->UrbHeader.Length);
    ExFreePool(built);
    return sent;
}

// The information of the n-th interface in a select-configuration URB.
inline USBD_INTERFACE_INFORMATION &InterfaceOf(Sent &sent, int which) {
    auto *information = &sent.Urb()->UrbSelectConfiguration.Interface;
    for (; which > 0; --which)
        information =
            reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<PUCHAR>(information) + information->Length);
    return *information;
}

} // namespace host::usb::test
