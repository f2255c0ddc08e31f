// A driver with one named device whose dispatch routine the test gives.
#pragma once

#include "tests/host/executive/fixture.h"

namespace host::tests {

class TestDriver {
  public:
    explicit TestDriver(PDRIVER_DISPATCH dispatch) {
        dispatch_ = dispatch;
        EXPECT_EQ(LoadDriver(L"Test", Entry, &driver_), STATUS_SUCCESS);
        device_ = driver_->DeviceObject;
    }
    ~TestDriver() { UnloadDriver(driver_); }
    TestDriver(const TestDriver &) = delete;
    TestDriver &operator=(const TestDriver &) = delete;

    PDRIVER_OBJECT Object() const { return driver_; }
    PDEVICE_OBJECT Device() const { return device_; }

    // A second device above the first, for which the same routine is called.
    PDEVICE_OBJECT AddUpper() {
        PDEVICE_OBJECT upper = nullptr;
        EXPECT_EQ(IoCreateDevice(driver_, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &upper), STATUS_SUCCESS);
        IoAttachDeviceToDeviceStack(upper, device_);
        upper->Flags &= ~DO_DEVICE_INITIALIZING;
        return upper;
    }

  private:
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        for (PDRIVER_DISPATCH &dispatch : driver->MajorFunction)
            dispatch = dispatch_;
        driver->DriverUnload = [](PDRIVER_OBJECT object) {
            while (object->DeviceObject != nullptr)
                IoDeleteDevice(object->DeviceObject);
        };
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\Device\\Test");
        PDEVICE_OBJECT device = nullptr;
        const NTSTATUS status = IoCreateDevice(driver, 64, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
        if (NT_SUCCESS(status))
            device->Flags &= ~DO_DEVICE_INITIALIZING;
        return status;
    }

    static inline PDRIVER_DISPATCH dispatch_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT device_ = nullptr;
};

inline NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

inline NTSTATUS NTAPI Succeed(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

inline NTSTATUS NTAPI TakeBack(PDEVICE_OBJECT, PIRP, PVOID) {
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// An IRP of the test's own for `device`, which comes back through `completion`.
inline PIRP MakeIrp(PDEVICE_OBJECT device, PIO_COMPLETION_ROUTINE completion = TakeBack, PVOID context = nullptr) {
    const PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    if (completion != nullptr)
        IoSetCompletionRoutine(irp, completion, context, TRUE, TRUE, TRUE);
    return irp;
}

} // namespace host::tests
