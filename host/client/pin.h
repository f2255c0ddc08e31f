// An application's view of a capture pin: its format, its state, its frames in order.
#pragma once

#include "host/client/filter.h"
#include "host/client/frame.h"

#include <deque>
#include <optional>

namespace host::client {

// The clock of a pin's stream. Times in 100 ns units.
class Clock : public KsFile {
  public:
    NTSTATUS Open(const KsFile &pin);
    // The stream time.
    NTSTATUS Time(LONGLONG &time);
};

class Pin : public KsFile {
  public:
    ~Pin() { Close(); }

    // `format` begins with a KSDATAFORMAT. STATUS_CONNECTION_REFUSED when all instances are taken, STATUS_NO_MATCH when
    // no data range takes the format.
    NTSTATUS Open(const Filter &filter, ULONG pinId, ConstBytes format);
    // Stops the stream, takes all frames back, closes.
    void Close();

    NTSTATUS State(KSSTATE &state);
    NTSTATUS SetState(KSSTATE state);
    NTSTATUS Format(std::vector<std::uint8_t> &format);
    NTSTATUS SetFormat(ConstBytes format);
    // Null: no master clock.
    NTSTATUS AssignClock(const Clock *clock);
    // How many frames of which size the pin would like to have.
    NTSTATUS Framing(KSALLOCATOR_FRAMING_EX &framing);

    // Gives the frame to the driver. On failure it stays with the caller.
    NTSTATUS Queue(Frame &frame);
    // The oldest queued frame, when it is back; STATUS_TIMEOUT when it is not back in time, STATUS_NO_MORE_ENTRIES when
    // none is queued. Without a time-out it waits for ever. Frame::Status tells how the frame fared.
    NTSTATUS NextFrame(Frame **frame, std::optional<LONGLONG> milliseconds = {});
    std::size_t Queued() const { return queued_.size(); }
    // Cancels what is queued and waits until the driver has given it back; the frames are then the caller's.
    void CancelAll();

  private:
    std::deque<Frame *> queued_;
};

} // namespace host::client
