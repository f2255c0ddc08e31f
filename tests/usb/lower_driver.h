// The bus driver's place below the transport, played by a test: every request is written down and answered by a
// function.
#pragma once

#include "host/executive/pnp.h"
#include "host/executive/runtime.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace uvc::usb_test {

inline void SleepMs(LONGLONG milliseconds) {
    LARGE_INTEGER delay{.QuadPart = -milliseconds * host::kTicksPerMillisecond};
    KeDelayExecutionThread(KernelMode, FALSE, &delay);
}

class LowerDriver {
  public:
    struct Request {
        PIRP irp;
        URB *urb; // null: an internal control code
        ULONG code;

        USHORT Function() const { return urb != nullptr ? urb->UrbHeader.Function : 0; }
    };
    // Runs in the dispatch routine and ends with Finish or Hold.
    std::function<NTSTATUS(const Request &)> answer;
    bool cancellable = true; // held requests have a cancel routine, which completes them

    LowerDriver() {
        EXPECT_EQ(host::LoadDriver(L"lower", Entry, &driver_), STATUS_SUCCESS);
        EXPECT_EQ(IoCreateDevice(driver_, sizeof(this), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device_),
                  STATUS_SUCCESS);
        *static_cast<LowerDriver **>(device_->DeviceExtension) = this;
        device_->Flags &= ~DO_DEVICE_INITIALIZING;
    }
    ~LowerDriver() {
        IoDeleteDevice(device_);
        host::UnloadDriver(driver_);
    }
    LowerDriver(const LowerDriver &) = delete;
    LowerDriver &operator=(const LowerDriver &) = delete;

    PDEVICE_OBJECT Device() const { return device_; }

    NTSTATUS Finish(const Request &request, NTSTATUS status, USBD_STATUS usbd = USBD_STATUS_SUCCESS) {
        if (request.urb != nullptr)
            request.urb->UrbHeader.Status = usbd;
        request.irp->IoStatus.Status = status;
        KIRQL level;
        KeRaiseIrql(DISPATCH_LEVEL, &level);
        IoCompleteRequest(request.irp, IO_NO_INCREMENT);
        KeLowerIrql(level);
        return status;
    }
    NTSTATUS Hold(const Request &request) {
        IoMarkIrpPending(request.irp);
        {
            std::lock_guard guard(mutex_);
            held_.push_back(request);
        }
        if (cancellable)
            IoSetCancelRoutine(request.irp, Cancelled);
        return STATUS_PENDING;
    }
    std::size_t HeldCount() {
        std::lock_guard guard(mutex_);
        return held_.size();
    }
    // The oldest held request leaves the driver, to be finished by the test.
    Request TakeHeld() {
        std::lock_guard guard(mutex_);
        Request request = held_.front();
        held_.erase(held_.begin());
        IoSetCancelRoutine(request.irp, nullptr);
        return request;
    }

    void Log(std::string line) {
        std::lock_guard guard(mutex_);
        log_.push_back(std::move(line));
    }
    // What was logged since the last call, joined by spaces.
    std::string TakeLog() {
        std::lock_guard guard(mutex_);
        std::string text;
        for (const std::string &line : log_)
            text += (text.empty() ? "" : " ") + line;
        log_.clear();
        return text;
    }

  private:
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Dispatch;
        return STATUS_SUCCESS;
    }
    static LowerDriver &Of(PDEVICE_OBJECT device) { return **static_cast<LowerDriver **>(device->DeviceExtension); }

    static NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT device, PIRP irp) {
        IO_STACK_LOCATION *stack = IoGetCurrentIrpStackLocation(irp);
        const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
        auto *urb =
            code == IOCTL_INTERNAL_USB_SUBMIT_URB ? static_cast<URB *>(stack->Parameters.Others.Argument1) : nullptr;
        return Of(device).answer({irp, urb, code});
    }
    static void NTAPI Cancelled(PDEVICE_OBJECT device, PIRP irp) {
        IoReleaseCancelSpinLock(irp->CancelIrql);
        LowerDriver &self = Of(device);
        Request request{};
        {
            std::lock_guard guard(self.mutex_);
            auto found = std::ranges::find(self.held_, irp, &Request::irp);
            if (found == self.held_.end())
                return;
            request = *found;
            self.held_.erase(found);
        }
        self.Log("cancel");
        self.Finish(request, STATUS_CANCELLED, USBD_STATUS_CANCELED);
    }

    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT device_ = nullptr;
    std::mutex mutex_;
    std::vector<Request> held_;
    std::vector<std::string> log_;
};

} // namespace uvc::usb_test
