// The queue of a pin: stream requests, their frames, and the stream pointers that move over them.
#pragma once

#include "host/streaming/rules.h"
#include "platform/platform.h"

namespace host::streaming {

class FrameQueue;
struct StreamPointer;

// One stream header of a request and its buffer. Done when the leading edge has passed it (or its request was
// cancelled) and nothing refers to it.
struct Frame {
    LIST_ENTRY link; // FrameQueue::frames_ in order of arrival, until done
    struct StreamRequest *request;
    KSSTREAM_HEADER *header; // our copy; its Data is the system address
    PVOID callerData;
    PMDL mdl;
    ULONG references; // clones, and the leading edge while it is locked
    bool passed;
    bool done;
};

// One IOCTL_KS_READ_STREAM. Completed when its last frame is done.
struct StreamRequest {
    LIST_ENTRY link; // FrameQueue::requests_, then a list of requests to be completed
    FrameQueue *queue;
    PIRP irp;
    NTSTATUS status;  // the first failure set on one of its frames
    bool cancelled;   // by its sender or because the pin stops: frames that nobody refers to are done
    bool cancelCame;  // the cancel routine has run
    ULONG framesLeft; // not done yet
    ULONG frameCount;
    UCHAR *headers; // our copy of the caller's headers
    ULONG headersSize;
    PMDL callerHeaders;
    Frame frames[1];
};

// What the driver sees is the first base.
struct StreamPointer : KSSTREAM_POINTER {
    LIST_ENTRY live;  // all stream pointers there are, so that a deleted one is known as such
    LIST_ENTRY clone; // FrameQueue::clones_
    FrameQueue *queue;
    Frame *frame; // null: beyond the last frame
    bool isClone;
    bool locked;

    static StreamPointer *From(PKSSTREAM_POINTER pointer, const char *routine);
    void Register();
    void Unregister();
    // Lock: queue lock held.
    void Lock();
    void Unlock();
};

// All routines may be called at DISPATCH_LEVEL unless they say otherwise.
class FrameQueue {
  public:
    void Initialise(PKSPIN pin);
    void Destroy();

    // Accepts requests from now on; gives all back and accepts none. IRQL: PASSIVE_LEVEL.
    void Open();
    void Close();
    // Ends the run when a stream pointer is locked or a clone exists.
    void RequireNoPointers(const char *routine);

    // Takes a stream request over and makes it pending; `arrived` tells whether the leading edge had run out of frames.
    // On failure the request is still the caller's. IRQL: PASSIVE_LEVEL.
    NTSTATUS Insert(PIRP irp, bool &arrived);
    bool HasFrame();
    // A mark that changes when the leading edge moves.
    const void *Position();

    PKSSTREAM_POINTER GetLeadingEdge(KSSTREAM_POINTER_STATE state);
    NTSTATUS LockPointer(StreamPointer &pointer);
    void UnlockPointer(StreamPointer &pointer, bool eject);
    NTSTATUS Advance(StreamPointer &pointer);
    NTSTATUS Clone(StreamPointer &pointer, ULONG contextSize, PKSSTREAM_POINTER *made);
    void Delete(StreamPointer &pointer);
    NTSTATUS SetStatus(StreamPointer &pointer, NTSTATUS status);

  private:
    static void NTAPI CancelRoutine(PDEVICE_OBJECT device, PIRP irp);

    // The lock is held in these; finished requests are gathered in `finished` and completed after it is given up.
    Frame *NextFrame(Frame *frame);
    void MoveOn(StreamPointer &pointer, LIST_ENTRY &finished);
    void Release(Frame *frame, LIST_ENTRY &finished);
    void SettleIfUnused(Frame *frame, LIST_ENTRY &finished);
    void CancelRequest(StreamRequest &request, LIST_ENTRY &finished);

    PKSPIN pin_;
    KSPIN_LOCK lock_;
    bool open_;
    LIST_ENTRY requests_;
    LIST_ENTRY frames_;
    LIST_ENTRY clones_;
    StreamPointer leading_;
};

// Building and taking down of requests (stream_request.cpp). Build copies and locks what the caller gave; Free undoes
// it; Finish writes the headers back, frees the request and completes its IRP. Build: PASSIVE_LEVEL.
NTSTATUS BuildStreamRequest(PIRP irp, StreamRequest **built);
void FreeStreamRequest(StreamRequest *request);
void FinishStreamRequest(StreamRequest *request);

} // namespace host::streaming
