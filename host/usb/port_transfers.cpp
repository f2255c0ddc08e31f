// What the requests of a port do to the device and to the configuration.
#include "host/executive/runtime.h"
#include "host/usb/port.h"
#include "host/usb/urb.h"
#include "platform/lock.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <utility>

namespace host::usb {
namespace {

USBD_STATUS StatusOf(const TransferResult &result, std::size_t room, const char *routine) {
    if (result.length > room)
        Violation("a device transfers more than was asked for", routine,
                  std::to_string(result.length) + " of " + std::to_string(room) + " bytes");
    switch (result.status) {
    case TransferStatus::Ok:
        return USBD_STATUS_SUCCESS;
    case TransferStatus::Stall:
        return USBD_STATUS_STALL_PID;
    case TransferStatus::Babble:
        return USBD_STATUS_BABBLE_DETECTED;
    case TransferStatus::NotYet:
        return USBD_STATUS_PENDING;
    }
    return USBD_STATUS_INTERNAL_HC_ERROR;
}

} // namespace

USBD_STATUS Port::CarryOut(Request &request, Ticks now, std::size_t &length) {
    if (request.fault == TransferFault::Stall)
        return USBD_STATUS_STALL_PID;
    if (request.fault == TransferFault::Babble)
        return USBD_STATUS_BABBLE_DETECTED;
    switch (request.urb->UrbHeader.Function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
        return SelectConfiguration(request.urb->UrbSelectConfiguration, now);
    case URB_FUNCTION_SELECT_INTERFACE:
        return SelectInterface(request.urb->UrbSelectInterface, now);
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
        return ResetPipe(request.urb->UrbPipeRequest);
    default:
        return ControlTransfer(request, now, length);
    }
}

// A short answer is no error on the default pipe: the status stage follows whatever came.
USBD_STATUS Port::ControlTransfer(Request &request, Ticks now, std::size_t &length) {
    std::optional<Setup> setup = SetupOf(*request.urb);
    if (!setup)
        return USBD_STATUS_INVALID_PARAMETER;
    std::span<std::uint8_t> buffer = BufferOf(*request.urb);
    if (buffer.size() != 0 && buffer.data() == nullptr)
        return USBD_STATUS_INSUFFICIENT_RESOURCES;
    TransferResult result = device_->Control(*setup, buffer, now);
    USBD_STATUS status = StatusOf(result, buffer.size(), "UsbDevice::Control");
    if (status == USBD_STATUS_PENDING)
        Violation("a device answers a control request with NotYet", "UsbDevice::Control",
                  "request " + std::to_string(setup->request));
    if (status != USBD_STATUS_STALL_PID)
        length = request.fault == TransferFault::Short ? result.length / 2 : result.length;
    return status;
}

// USBD_STATUS_PENDING: the device has nothing yet, and the pipe knows when to ask again.
USBD_STATUS Port::BulkTransfer(Request &request, Pipe &pipe, Ticks now, std::size_t &length) {
    if (request.fault == TransferFault::Stall)
        return USBD_STATUS_STALL_PID;
    if (request.fault == TransferFault::Babble)
        return USBD_STATUS_BABBLE_DETECTED;
    if ((pipe.endpoint & USB_ENDPOINT_DIRECTION_MASK) == 0)
        return USBD_STATUS_NOT_SUPPORTED; // devices of this bus take data on the default pipe only
    std::span<std::uint8_t> buffer = BufferOf(*request.urb);
    if (buffer.size() != 0 && buffer.data() == nullptr)
        return USBD_STATUS_INSUFFICIENT_RESOURCES;
    TransferResult result = device_->BulkIn(pipe.endpoint, buffer, now);
    USBD_STATUS status = StatusOf(result, buffer.size(), "UsbDevice::BulkIn");
    if (status == USBD_STATUS_PENDING) {
        if (result.notBefore <= now)
            Violation("a device without data wants to be asked again at once", "UsbDevice::BulkIn",
                      "endpoint " + std::to_string(pipe.endpoint));
        pipe.askAgain = result.notBefore;
        return status;
    }
    length = status == USBD_STATUS_STALL_PID ? 0 : result.length;
    if (request.fault == TransferFault::Short)
        length /= 2;
    bool mayBeShort = request.urb->UrbBulkOrInterruptTransfer.TransferFlags & USBD_SHORT_TRANSFER_OK;
    if (status == USBD_STATUS_SUCCESS && length < buffer.size() && !mayBeShort)
        return USBD_STATUS_ERROR_SHORT_TRANSFER;
    return status;
}

USBD_STATUS Port::SelectConfiguration(_URB_SELECT_CONFIGURATION &request, Ticks now) {
    if (request.ConfigurationDescriptor == nullptr) {
        ReplaceConfiguration({});
        return SetConfiguration(0, now) ? USBD_STATUS_SUCCESS : USBD_STATUS_SET_CONFIG_FAILED;
    }
    if (options_.withoutBandwidth)
        return USBD_STATUS_NO_BANDWIDTH;
    const USB_CONFIGURATION_DESCRIPTOR &descriptor = *request.ConfigurationDescriptor;
    if (descriptor.bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE ||
        descriptor.wTotalLength < sizeof(USB_CONFIGURATION_DESCRIPTOR))
        return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;

    Configuration selected;
    selected.handle = handles_.Next();
    auto *bytes = reinterpret_cast<const std::uint8_t *>(&descriptor);
    selected.descriptor.assign(bytes, bytes + descriptor.wTotalLength);
    auto *position = reinterpret_cast<std::uint8_t *>(&request.Interface);
    std::size_t room = request.Hdr.Length - offsetof(_URB_SELECT_CONFIGURATION, Interface);
    while (room != 0) {
        auto &information = *reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(position);
        USBD_STATUS status = OpenInterface(selected.descriptor, information, room, options_.maximumTransferSize,
                                           handles_, selected.pipes);
        if (status != USBD_STATUS_SUCCESS)
            return status;
        selected.alternates[information.InterfaceNumber] = information.AlternateSetting;
        position += information.Length;
        room -= information.Length;
    }
    if (!SetConfiguration(descriptor.bConfigurationValue, now))
        return USBD_STATUS_SET_CONFIG_FAILED;
    for (auto [interfaceNumber, alternate] : selected.alternates) {
        if (alternate != 0 && !SetInterface(interfaceNumber, alternate, now))
            return USBD_STATUS_SET_CONFIG_FAILED;
    }
    request.ConfigurationHandle = selected.handle;
    ReplaceConfiguration(std::move(selected));
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS Port::SelectInterface(_URB_SELECT_INTERFACE &request, Ticks now) {
    if (configuration_.handle == nullptr || request.ConfigurationHandle != configuration_.handle)
        return USBD_STATUS_INVALID_PARAMETER;
    if (options_.withoutBandwidth)
        return USBD_STATUS_NO_BANDWIDTH;
    PipeList opened;
    USBD_INTERFACE_INFORMATION &information = request.Interface;
    std::size_t room = request.Hdr.Length - offsetof(_URB_SELECT_INTERFACE, Interface);
    USBD_STATUS status =
        OpenInterface(configuration_.descriptor, information, room, options_.maximumTransferSize, handles_, opened);
    if (status != USBD_STATUS_SUCCESS)
        return status;
    if (!SetInterface(information.InterfaceNumber, information.AlternateSetting, now))
        return USBD_STATUS_STALL_PID;

    {
        SpinLockGuard guard(lock_);
        configuration_.alternates[information.InterfaceNumber] = information.AlternateSetting;
        PipeList &pipes = configuration_.pipes;
        auto isOther = [&](const auto &pipe) { return pipe->interfaceNumber != information.InterfaceNumber; };
        auto old = std::stable_partition(pipes.begin(), pipes.end(), isOther);
        std::for_each(old, pipes.end(), [this](auto &pipe) { Abandon(*pipe); });
        pipes.erase(old, pipes.end());
        std::ranges::move(opened, std::back_inserter(pipes));
    }
    FinishAll(leaving_, USBD_STATUS_CANCELED);
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS Port::ResetPipe(const _URB_PIPE_REQUEST &request) {
    Pipe *pipe = configuration_.FindPipe(request.PipeHandle);
    if (pipe == nullptr)
        return USBD_STATUS_INVALID_PIPE_HANDLE;
    {
        SpinLockGuard guard(lock_);
        if (!pipe->queue.empty())
            return USBD_STATUS_ERROR_BUSY;
    }
    device_->ResetEndpoint(pipe->endpoint);
    pipe->halted = false;
    pipe->askAgain = 0;
    return USBD_STATUS_SUCCESS;
}

// The bus puts the configuration back as it was: the client's handles stay good. Transfers do not survive.
USBD_STATUS Port::ResetPort(Ticks now) {
    FinishAll(control_, USBD_STATUS_CANCELED);
    for (auto &pipe : configuration_.pipes) {
        FinishAll(pipe->queue, USBD_STATUS_CANCELED);
        pipe->halted = false;
        pipe->askAgain = 0;
    }
    device_->ResetPort();
    if (configuration_.handle == nullptr)
        return USBD_STATUS_SUCCESS;
    auto *descriptor = reinterpret_cast<const USB_CONFIGURATION_DESCRIPTOR *>(configuration_.descriptor.data());
    if (!SetConfiguration(descriptor->bConfigurationValue, now))
        return USBD_STATUS_SET_CONFIG_FAILED;
    for (auto [interfaceNumber, alternate] : configuration_.alternates) {
        if (alternate != 0 && !SetInterface(interfaceNumber, alternate, now))
            return USBD_STATUS_SET_CONFIG_FAILED;
    }
    return USBD_STATUS_SUCCESS;
}

bool Port::SetConfiguration(UCHAR value, Ticks now) {
    Setup setup{.requestType = 0x00, .request = USB_REQUEST_SET_CONFIGURATION, .value = value, .index = 0, .length = 0};
    return device_->Control(setup, {}, now).status == TransferStatus::Ok;
}

// A device may stall this for an interface that has no alternate settings (USB 2.0, 9.4.10).
bool Port::SetInterface(UCHAR interfaceNumber, UCHAR alternate, Ticks now) {
    Setup setup{.requestType = 0x01,
                .request = USB_REQUEST_SET_INTERFACE,
                .value = alternate,
                .index = interfaceNumber,
                .length = 0};
    return device_->Control(setup, {}, now).status == TransferStatus::Ok || alternate == 0;
}

void Port::ReplaceConfiguration(Configuration configuration) {
    {
        SpinLockGuard guard(lock_);
        std::swap(configuration_, configuration);
        for (auto &pipe : configuration.pipes)
            Abandon(*pipe);
    }
    FinishAll(leaving_, USBD_STATUS_CANCELED);
}

// The pipe closes. A cancel routine may be on its way to a request, so they stay where it finds them.
void Port::Abandon(Pipe &pipe) {
    std::ranges::move(pipe.queue, std::back_inserter(leaving_));
    pipe.queue.clear();
}

} // namespace host::usb
