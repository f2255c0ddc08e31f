#include "host/client/frame.h"

#include "host/executive/file.h"
#include "host/executive/runtime.h"

#include <algorithm>

namespace host::client {

namespace {

constexpr std::size_t kPage = 4096;

} // namespace

Frame::Frame(std::size_t size, bool withInfo)
    : buffer_(static_cast<std::uint8_t *>(std::aligned_alloc(kPage, (size + kPage - 1) / kPage * kPage))), size_(size),
      withInfo_(withInfo) {
    CreateEventHandle(&event_, NotificationEvent, false);
    PVOID object = nullptr;
    ObReferenceObjectByHandle(event_, SYNCHRONIZE, reinterpret_cast<POBJECT_TYPE>(ExEventObjectType), KernelMode,
                              &object, nullptr);
    eventObject_ = static_cast<PKEVENT>(object);
}

Frame::~Frame() {
    if (status_ == STATUS_PENDING)
        Violation("application", "Frame", "the frame is freed while the driver has it");
    ObDereferenceObject(eventObject_);
    ZwClose(event_);
}

std::span<const std::uint8_t> Frame::Data() const {
    return {buffer_.get(), NT_SUCCESS(status_) ? std::min<std::size_t>(block_.header.DataUsed, size_) : 0};
}

void Frame::Prepare() {
    const ULONG flags = block_.header.OptionsFlags; // stay as they came back: applications do not tidy up
    block_ = {};
    block_.header.OptionsFlags = flags;
    block_.header.Size = withInfo_ ? sizeof(Block) : sizeof(KSSTREAM_HEADER);
    block_.header.PresentationTime = {.Time = 0, .Numerator = 1, .Denominator = 1};
    block_.header.FrameExtent = static_cast<ULONG>(size_);
    block_.header.Data = buffer_.get();
    block_.info.ExtendedHeaderSize = sizeof(KS_FRAME_INFO);
    status_ = STATUS_PENDING;
}

} // namespace host::client
