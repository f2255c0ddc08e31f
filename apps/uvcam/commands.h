// The subcommands of uvcam. Each throws Failure; stdout carries the data or the listing, everything else goes to
// stderr.
#pragma once

#include <optional>
#include <string>

namespace uvcam {

struct ListOptions {
    bool json = false;
};
void List(const ListOptions &options);

struct FormatsOptions {
    std::string camera;
    bool json = false;
};
void Formats(const FormatsOptions &options);

struct Size {
    int width = 0;
    int height = 0;
};

struct CaptureOptions {
    std::string camera;
    std::string format; // empty: the camera's first
    std::optional<Size> size;
    std::optional<double> framesPerSecond;
    unsigned frames = 1;
    std::string output; // pattern, "-", or empty
    std::string scene;
    bool freeRun = false;
    bool overlay = false;
    std::string faults;
    std::string settings;
    bool json = false;
};
void Capture(const CaptureOptions &options);

} // namespace uvcam
