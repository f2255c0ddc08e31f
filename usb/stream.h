// One camera's stream: its state, and start, pause, resume and stop.
//
//   state      | start      | pause   | resume  | stop
//   idle       | streaming  | -       | -       | -
//   streaming  | restarted  | paused  | -       | idle
//   paused     | restarted  | -       | streaming | idle
//
// The stream mutex serialises these four. Payloads arrive under the frame lock at DISPATCH_LEVEL; the pool's lock is
// taken inside it. The worker converts without any lock.
#pragma once

#include "usb/bulk_engine.h"
#include "usb/frame_pool.h"
#include "usb/frame_rate.h"
#include "usb/frame_sink.h"
#include "usb/probe_commit.h"
#include "usb/stream_worker.h"

namespace uvc {

inline constexpr UCHAR kFidUnknown = 255;

// The frame whose payloads are arriving, from its first data to its end-of-frame bit or the next frame identifier,
// whatever becomes of them: the capture side hears of each exactly once.
struct FrameInterval {
    enum class State : UCHAR {
        None,    // between two frames
        Open,    // the capture side has not heard of it
        Starved, // neither, for want of an output frame
        Settled  // delivered, dropped or told as lost
    };
    State state = State::None;
    UCHAR fid = kFidUnknown;
    bool goesOn = false; // large payloads: the next transfer continues this payload
};

struct StreamState {
    KMUTEX mutex;
    bool streaming = false;
    bool workerMode = false;    // set by the camera class
    bool collecting = false;    // payloads are collected in the pool; computed at start
    bool largePayloads = false; // one payload spans several transfers; computed at start
    LONG stopping = 0;          // atomic: payloads are refused
    BulkStreamEngine *engine = nullptr;
    ULONG transferSize = 0;

    KSPIN_LOCK frameLock; // guards writes to what follows, up to the counters
    FrameRecord currentFrame;
    UCHAR lastFid = kFidUnknown;
    FrameInterval interval;

    // Written by whoever ends a frame (completion path or worker), read by the overlay.
    ULONG dropped = 0;
    ULONG delivered = 0;
    ULONG noBuffer = 0;
    FrameRate rate{};

    KS_VIDEOINFOHEADER sensor{}; // image parameters of the committed format; biSizeImage is the frame size
    KS_VIDEOINFOHEADER output{}; // the pin's format; the sign of biHeight may change while running

    FramePool pool;
    StreamWorker worker;
};

// Locks, lists, defaults. IRQL: PASSIVE_LEVEL.
void StreamInitialise(UvcCamera &camera);

// Negotiates `format`, builds engine, pool and worker, and sets the transfers going. STATUS_DEVICE_NOT_CONNECTED
// without a streaming pipe; otherwise the failing step's status, with everything undone. A camera that streams already
// is stopped first. IRQL: PASSIVE_LEVEL. Lock: takes the stream mutex.
NTSTATUS StreamStart(UvcCamera &camera, const KS_VIDEOINFOHEADER &format);

// `pause` true stops the transfers and keeps everything else, false sets them going again. Does nothing when not
// streaming. IRQL: PASSIVE_LEVEL. Lock: takes the stream mutex.
NTSTATUS StreamPause(UvcCamera &camera, bool pause);

// Whether there is a stream, flowing or paused. IRQL: PASSIVE_LEVEL. Lock: takes the stream mutex.
bool StreamIsUp(UvcCamera &camera);

// Ends the stream; always succeeds. IRQL: PASSIVE_LEVEL. Lock: takes the stream mutex.
NTSTATUS StreamStop(UvcCamera &camera);

} // namespace uvc
