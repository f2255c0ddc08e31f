// Where frames come from and go to: the capture side, as the transport sees it.
#pragma once

#include "platform/platform.h"

namespace uvc {

// IRQL: <= DISPATCH_LEVEL. Called only while a pin holds the camera.
class FrameSink {
  public:
    // Ends one frame interval, with the buffer that was filled or with none. The sink takes the frame over. The worker
    // ends a frame while the completion path tells of another that is lost, so calls may overlap.
    virtual void CompleteFrame(KSSTREAM_POINTER *frame, NTSTATUS status) = 0;
    // The next empty buffer of the application, or null. The caller gives it back through CompleteFrame.
    virtual KSSTREAM_POINTER *AcquireFrame() = 0;

  protected:
    ~FrameSink() = default;
};

// The output frame being filled.
struct FrameRecord {
    KSSTREAM_POINTER *frame = nullptr; // handle for the sink; null: none
    UCHAR *data = nullptr;
    ULONG size = 0;             // the stream header's FrameExtent
    ULONG *bytesUsed = nullptr; // the stream header's DataUsed
};

} // namespace uvc
