// From payloads to frames: UVC payload headers, the three ways of assembly, completed and dropped frames.
//
//   mode             | used when                                 | who copies
//   direct           | the camera class does not convert          | payload into the application's frame
//   whole transfers  | worker mode, a transfer holds a frame       | nobody: the worker reads the transfer
//   collecting       | worker mode or large payloads               | payloads into a pool buffer
#pragma once

#include "usb/bulk_engine.h"
#include "usb/frame_sink.h"

namespace uvc {

// The engine's payload callback; follows the contract of PayloadCallback. IRQL: DISPATCH_LEVEL (raises to it). Lock:
// takes the frame lock.
NTSTATUS OnBulkPayload(BulkStreamEngine &engine, BulkTransfer &transfer, UvcCamera &camera, const UCHAR *buffer,
                       ULONG length);

// What stands behind the camera's operations on output frames. `record` is the current frame (frame lock held) or a
// worker node's own. IRQL: <= DISPATCH_LEVEL.
void GetOutputFrame(UvcCamera &camera, FrameRecord &record); // record.frame stays null when there is none
void CompleteOutputFrame(UvcCamera &camera, FrameRecord &record);
void DropOutputFrame(UvcCamera &camera, FrameRecord &record, bool release);

} // namespace uvc
