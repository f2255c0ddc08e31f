#include "host/client/pin.h"

#include "host/executive/file.h"
#include "host/streaming/guids.h"

#include <cstring>

namespace host::client {

namespace {

constexpr char16_t kPinName[] = u"{146F1A80-4791-11D0-A5D6-28DB04C10000}\\";
constexpr char16_t kClockName[] = u"{53172480-4791-11D0-A5D6-28DB04C10000}\\";

// Open parameters follow the name as bytes.
void Append(std::u16string &name, ConstBytes bytes) {
    std::size_t at = name.size();
    name.resize(at + (bytes.size() + 1) / sizeof(char16_t));
    std::memcpy(name.data() + at, bytes.data(), bytes.size());
}

} // namespace

NTSTATUS Clock::Open(const KsFile &pin) {
    std::u16string name = kClockName;
    const KSCLOCK_CREATE create{};
    Append(name, BytesOf(create));
    return OpenFile(pin.Handle(), name, FILE_SYNCHRONOUS_IO_NONALERT);
}

NTSTATUS Clock::Time(LONGLONG &time) {
    return Property(streaming::kPropSetClock, KSPROPERTY_CLOCK_TIME, KSPROPERTY_TYPE_GET, {}, BytesOf(time));
}

NTSTATUS Pin::Open(const Filter &filter, ULONG pinId, ConstBytes format) {
    KSPIN_CONNECT connect{.PinId = pinId,
                          .PinToHandle = nullptr,
                          .Priority = {.PriorityClass = KSPRIORITY_NORMAL, .PrioritySubClass = 1}};
    connect.Interface.Set = streaming::kInterfaceSetStandard;
    connect.Interface.Id = KSINTERFACE_STANDARD_STREAMING;
    connect.Medium.Set = streaming::kMediumSetStandard;
    connect.Medium.Id = KSMEDIUM_STANDARD_DEVIO;
    std::u16string name = kPinName;
    Append(name, BytesOf(connect));
    Append(name, format);
    // Asynchronous: frames are pending while the state changes.
    return OpenFile(filter.Handle(), name, 0);
}

void Pin::Close() {
    if (!IsOpen())
        return;
    SetState(KSSTATE_STOP); // a pin that cannot be stopped is closed all the same
    CancelAll();
    KsFile::Close();
}

NTSTATUS Pin::State(KSSTATE &state) {
    return Property(streaming::kPropSetConnection, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_GET, {},
                    BytesOf(state));
}

NTSTATUS Pin::SetState(KSSTATE state) {
    return Property(streaming::kPropSetConnection, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_SET, {},
                    BytesOf(state));
}

NTSTATUS Pin::Format(std::vector<std::uint8_t> &format) {
    return GetSized(streaming::kPropSetConnection, KSPROPERTY_CONNECTION_DATAFORMAT, {}, format);
}

NTSTATUS Pin::SetFormat(ConstBytes format) {
    std::vector<std::uint8_t> copy(format.begin(), format.end());
    return Property(streaming::kPropSetConnection, KSPROPERTY_CONNECTION_DATAFORMAT, KSPROPERTY_TYPE_SET, {}, copy);
}

NTSTATUS Pin::AssignClock(const Clock *clock) {
    HANDLE handle = clock == nullptr ? nullptr : clock->Handle();
    return Property(streaming::kPropSetStream, KSPROPERTY_STREAM_MASTERCLOCK, KSPROPERTY_TYPE_SET, {}, BytesOf(handle));
}

NTSTATUS Pin::Framing(KSALLOCATOR_FRAMING_EX &framing) {
    return Property(streaming::kPropSetConnection, KSPROPERTY_CONNECTION_ALLOCATORFRAMING_EX, KSPROPERTY_TYPE_GET, {},
                    BytesOf(framing));
}

NTSTATUS Pin::Queue(Frame &frame) {
    frame.Prepare();
    NTSTATUS status;
    {
        UserMode application;
        status = ZwDeviceIoControlFile(handle_, frame.event_, nullptr, nullptr, &frame.ioStatus_, IOCTL_KS_READ_STREAM,
                                       nullptr, 0, &frame.block_, frame.block_.header.Size);
    }
    if (!NT_SUCCESS(status)) {
        frame.status_ = status;
        return status;
    }
    queued_.push_back(&frame);
    return STATUS_SUCCESS;
}

NTSTATUS Pin::NextFrame(Frame **frame, std::optional<LONGLONG> milliseconds) {
    if (queued_.empty())
        return STATUS_NO_MORE_ENTRIES;
    Frame *oldest = queued_.front();
    LARGE_INTEGER timeout;
    timeout.QuadPart = -milliseconds.value_or(0) * kTicksPerMillisecond;
    NTSTATUS status = KeWaitForSingleObject(oldest->eventObject_, UserRequest, KernelMode, FALSE,
                                            milliseconds.has_value() ? &timeout : nullptr);
    if (status != STATUS_SUCCESS)
        return status;
    queued_.pop_front();
    oldest->status_ = oldest->ioStatus_.Status;
    *frame = oldest;
    return STATUS_SUCCESS;
}

void Pin::CancelAll() {
    if (queued_.empty())
        return;
    CancelFileIo(handle_);
    Frame *frame = nullptr;
    while (NT_SUCCESS(NextFrame(&frame))) {
    }
}

} // namespace host::client
