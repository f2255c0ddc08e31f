// What stands around a stream in a test: an application's frames, and a camera class that converts.
#pragma once

#include "camera/uvc_camera.h"
#include "host/executive/runtime.h"
#include "platform/shared_field.h"
#include "tests/usb/lower_driver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace uvc::usb_test {

inline constexpr LONG kWidth = 64;
inline constexpr LONG kHeight = 64;
inline constexpr ULONG kFrameSize = kWidth * kHeight;

inline void Await(KEVENT &event) {
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
}

// "1*2048 7*2048": the bytes by runs.
inline std::string Runs(const std::vector<UCHAR> &bytes) {
    std::string text;
    for (auto begin = bytes.begin(); begin != bytes.end();) {
        auto end = std::find_if(begin, bytes.end(), [&](UCHAR byte) { return byte != *begin; });
        text += (text.empty() ? "" : " ") + std::to_string(*begin) + "*" + std::to_string(end - begin);
        begin = end;
    }
    return text;
}

// An application that keeps a number of frames queued and writes down how each one comes back.
class RecordingSink final : public FrameSink {
  public:
    explicit RecordingSink(std::size_t frames = 3, ULONG size = kFrameSize) {
        KeInitializeEvent(&news_, NotificationEvent, FALSE);
        for (std::size_t i = 0; i < frames; ++i) {
            frames_.push_back(std::make_unique<Frame>());
            Frame &frame = *frames_.back();
            frame.data.resize(size);
            frame.header = {.FrameExtent = size, .Data = frame.data.data()};
            frame.pointer = {.StreamHeader = &frame.header};
        }
    }

    KSSTREAM_POINTER *AcquireFrame() override {
        std::lock_guard guard(mutex_);
        for (auto &frame : frames_) {
            if (frame->out)
                continue;
            frame->out = true;
            frame->header.DataUsed = 0xDEAD; // applications leave anything in here
            std::ranges::fill(frame->data, UCHAR{0});
            return &frame->pointer;
        }
        return nullptr;
    }
    void CompleteFrame(KSSTREAM_POINTER *pointer, NTSTATUS status) override {
        std::lock_guard guard(mutex_);
        if (pointer == nullptr) {
            events_.push_back(status == STATUS_SUCCESS ? "lost" : "lost, failed");
        } else {
            auto frame = std::ranges::find(frames_, pointer, [](auto &each) { return &each->pointer; });
            EXPECT_TRUE((*frame)->out);
            (*frame)->out = false;
            if (status == STATUS_SUCCESS)
                EXPECT_EQ((*frame)->header.DataUsed, (*frame)->header.FrameExtent);
            events_.push_back(status == STATUS_SUCCESS     ? Runs((*frame)->data)
                              : status == STATUS_CANCELLED ? "cancelled"
                                                           : "failed");
        }
        KeSetEvent(&news_, IO_NO_INCREMENT, FALSE);
    }

    std::vector<std::string> Events() {
        std::lock_guard guard(mutex_);
        return events_;
    }
    // Returns once that many intervals have ended since the beginning, or fails after ten seconds without news.
    void AwaitEvents(std::size_t count) {
        LARGE_INTEGER patience{.QuadPart = -10 * 10'000'000};
        while (Events().size() < count) {
            if (KeWaitForSingleObject(&news_, Executive, KernelMode, FALSE, &patience) != STATUS_SUCCESS) {
                ADD_FAILURE() << Events().size() << " of " << count << " intervals have ended";
                return;
            }
            KeClearEvent(&news_);
        }
    }
    bool HasAllFrames() {
        std::lock_guard guard(mutex_);
        return std::ranges::none_of(frames_, [](auto &frame) { return frame->out; });
    }

  private:
    struct Frame {
        std::vector<UCHAR> data;
        KSSTREAM_HEADER header;
        KSSTREAM_POINTER pointer;
        bool out = false;
    };
    std::mutex mutex_;
    std::vector<std::unique_ptr<Frame>> frames_;
    std::vector<std::string> events_;
    KEVENT news_;
};

// Converts by copying as many rows as both images have, and waits at a gate before that.
class WorkerCamera : public UvcCamera {
  public:
    WorkerCamera(PDEVICE_OBJECT device, FrameSink *frameSink) : UvcCamera(device, frameSink) {
        stream.workerMode = true;
        KeInitializeEvent(&gate, NotificationEvent, TRUE);
    }
    void ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, ULONG) override {
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        Await(gate);
        if (source.size >= source.height * source.stride) // as the real ones: all rows or none
            std::memcpy(destination.data, source.data, std::min(destination.height, source.height) * source.stride);
    }

    KEVENT gate;
};

struct CameraDeleter {
    void operator()(UvcCamera *camera) const { camera->Destroy(1); }
};
template <class Camera> std::unique_ptr<Camera, CameraDeleter> NewCamera(PDEVICE_OBJECT device, FrameSink &sink) {
    return std::unique_ptr<Camera, CameraDeleter>(static_cast<Camera *>(MakeCamera<Camera>(device, &sink)));
}

} // namespace uvc::usb_test
