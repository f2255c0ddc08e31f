// The capture pin of an opened camera, running, with frames queued.
#pragma once

#include "apps/uvcam/camera_control.h"
#include "apps/uvcam/picture.h"
#include "apps/uvcam/session.h"

#include "host/client/pin.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace uvcam {

struct Size {
    int width = 0;
    int height = 0;
};

struct StreamOptions {
    std::string format; // empty: the camera's first
    std::optional<Size> size;
    std::optional<double> framesPerSecond;
    std::vector<Assignment> settings; // in force from the first frame on
};

class Stream {
  public:
    // Throws Failure (NotOffered) for a format that the camera does not have, and that of a setting.
    Stream(Session &session, const StreamOptions &options);

    const PixelLayout &Layout() const { return layout_; }

    // The next frame, delivered or failed. Throws Failure when none comes; `taken` is for its message.
    host::client::Frame &Next(unsigned taken);
    // Gives the frame back, and a free-running camera the leave to expose another one.
    void Return(host::client::Frame &frame);
    void Stop() { pin_.Close(); }

  private:
    void QueueFrames(std::size_t size);
    void Queue(host::client::Frame &frame);
    void ApplyWhileRunning(const std::vector<Assignment> &settings);

    Session &session_;
    PixelLayout layout_;
    std::vector<std::unique_ptr<host::client::Frame>> frames_; // outlive the pin, which they are queued to
    host::client::Pin pin_;
    host::client::Clock clock_;
};

// Ends endless work in order: true once the person has pressed Ctrl-C.
void CatchInterrupts();
bool IsInterrupted();

} // namespace uvcam
