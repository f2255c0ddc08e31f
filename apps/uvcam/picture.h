// Delivered frames as pictures for people, and as raw bytes for programs.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace uvcam {

// What a delivered frame holds.
struct PixelLayout {
    std::string fourCc; // "YUY2", "Y800", "BY8 ", "RGB3", "RGB4", "B1BG", ...
    int width = 0;
    int height = 0; // of the bitmap header: for RGB a positive height means bottom-up rows
    int bitsPerPixel = 0;
};

// Grey or RGB rows from top to bottom, as they are seen.
struct Picture {
    int width = 0;
    int height = 0;
    int channels = 0; // 1 grey, 3 red-green-blue
    std::vector<std::uint8_t> pixels;
};

// Throws Failure when the layout is none that can be shown.
Picture MakePicture(const PixelLayout &layout, std::span<const std::uint8_t> frame);

// Where frames go: nowhere, stdout ("-"), or files named by a pattern with one %d form, such as "frame-%04d.png". The
// suffix chooses: .png, .ppm/.pgm, .raw.
class FrameOutput {
  public:
    // Throws Failure (Usage) for a pattern that is no such pattern; an empty one means nowhere.
    explicit FrameOutput(const std::string &pattern);

    // Throws Failure when the frame cannot be written.
    void Write(const PixelLayout &layout, std::span<const std::uint8_t> frame, unsigned number);

    bool ToStdout() const { return toStdout_; }

  private:
    std::string PathOf(unsigned number) const;

    bool toStdout_ = false;
    std::string prefix_;
    std::string suffix_;
    std::string extension_;
    int digits_ = 0;
    bool numbered_ = false;
};

} // namespace uvcam
