#include "apps/uvcam/picture.h"

#include "apps/uvcam/byte_file.h"
#include "apps/uvcam/exit_code.h"

#include <png.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace uvcam {

namespace {

Picture Grey(const PixelLayout &layout, std::span<const std::uint8_t> frame) {
    const int height = std::abs(layout.height);
    const auto size = static_cast<std::size_t>(layout.width) * static_cast<std::size_t>(height);
    return {layout.width, height, 1, {frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)}};
}

Picture Rgb(const PixelLayout &layout, std::span<const std::uint8_t> frame) {
    Picture picture{layout.width, std::abs(layout.height), 3, {}};
    const std::size_t step = static_cast<std::size_t>(layout.bitsPerPixel) / 8;
    const std::size_t stride = step * static_cast<std::size_t>(layout.width);
    picture.pixels.reserve(3 * static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height));
    for (int y = 0; y < picture.height; ++y) {
        const int row = layout.height > 0 ? picture.height - 1 - y : y;
        const std::uint8_t *pixel = frame.data() + static_cast<std::size_t>(row) * stride;
        for (int x = 0; x < picture.width; ++x, pixel += step)
            picture.pixels.insert(picture.pixels.end(), {pixel[2], pixel[1], pixel[0]});
    }
    return picture;
}

// BT.601, as cameras send it.
Picture Yuy2(const PixelLayout &layout, std::span<const std::uint8_t> frame) {
    Picture picture{layout.width, std::abs(layout.height), 3, {}};
    auto clamp = [](int value) { return static_cast<std::uint8_t>(std::clamp(value >> 8, 0, 255)); };
    picture.pixels.reserve(3 * static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height));
    const std::size_t pairs = static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height) / 2;
    for (std::size_t i = 0; i < pairs; ++i) {
        const std::uint8_t *pair = frame.data() + 4 * i;
        const int u = pair[1] - 128;
        const int v = pair[3] - 128;
        for (int luma : {pair[0], pair[2]}) {
            const int y = 298 * (luma - 16) + 128;
            picture.pixels.insert(picture.pixels.end(),
                                  {clamp(y + 409 * v), clamp(y - 100 * u - 208 * v), clamp(y + 516 * u)});
        }
    }
    return picture;
}

struct LayoutRow {
    const char *fourCc;
    Picture (*make)(const PixelLayout &, std::span<const std::uint8_t>);
};

constexpr LayoutRow kLayouts[] = {
    {"Y800", Grey}, {"BY8 ", Grey}, {"B1BG", Grey}, {"B1GB", Grey}, {"B1GR", Grey},
    {"B1RG", Grey}, {"RGB3", Rgb},  {"RGB4", Rgb},  {"YUY2", Yuy2},
};

void WritePng(const std::string &path, const Picture &picture) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.width);
    image.height = static_cast<png_uint_32>(picture.height);
    image.format = picture.channels == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
    image.flags = PNG_IMAGE_FLAG_FAST;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::vector<std::uint8_t> bytes(size);
    if (png_image_write_to_memory(&image, bytes.data(), &size, 0, picture.pixels.data(), 0, nullptr) == 0)
        throw Failure(ExitCode::Failed, "cannot make " + path + ": " + image.message);
    WriteBytes(path, "", {bytes.data(), size});
}

void WriteNetpbm(const std::string &path, const Picture &picture) {
    const std::string head = std::string(picture.channels == 1 ? "P5" : "P6") + "\n" + std::to_string(picture.width) +
                             " " + std::to_string(picture.height) + "\n255\n";
    WriteBytes(path, head, picture.pixels);
}

} // namespace

Picture MakePicture(const PixelLayout &layout, std::span<const std::uint8_t> frame) {
    const auto needed = static_cast<std::size_t>(layout.width) * static_cast<std::size_t>(std::abs(layout.height)) *
                        static_cast<std::size_t>(layout.bitsPerPixel) / 8;
    for (const LayoutRow &row : kLayouts) {
        if (layout.fourCc == row.fourCc && layout.width > 0 && frame.size() >= needed)
            return row.make(layout, frame);
    }
    throw Failure(ExitCode::Failed, "a frame of format " + layout.fourCc + " cannot be shown as a picture; use .raw");
}

FrameOutput::FrameOutput(const std::string &pattern) {
    if (pattern.empty())
        return;
    if (pattern == "-") {
        toStdout_ = true;
        return;
    }
    const std::size_t percent = pattern.find('%');
    prefix_ = pattern.substr(0, percent);
    if (percent != std::string::npos) {
        std::size_t i = percent + 1;
        while (i < pattern.size() && pattern[i] >= '0' && pattern[i] <= '9' && digits_ < 100)
            digits_ = 10 * digits_ + (pattern[i++] - '0');
        if (i >= pattern.size() || pattern[i] != 'd' || digits_ > 9 || pattern.find('%', i) != std::string::npos)
            throw Failure(ExitCode::Usage, "--output " + pattern + ": expected one %d or %0Nd (N up to 9)");
        suffix_ = pattern.substr(i + 1);
        numbered_ = true;
    }
    extension_ = std::filesystem::path(pattern).extension().string();
    const char *known[] = {".png", ".ppm", ".pgm", ".raw"};
    if (std::find(std::begin(known), std::end(known), extension_) == std::end(known))
        throw Failure(ExitCode::Usage, "--output " + pattern + ": expected a name ending in .png, .ppm, .pgm or .raw");
}

std::string FrameOutput::PathOf(unsigned number) const {
    if (!numbered_)
        return prefix_;
    std::string digits = std::to_string(number);
    if (digits.size() < static_cast<std::size_t>(digits_))
        digits.insert(0, static_cast<std::size_t>(digits_) - digits.size(), '0');
    return prefix_ + digits + suffix_;
}

void FrameOutput::Write(const PixelLayout &layout, std::span<const std::uint8_t> frame, unsigned number) {
    if (toStdout_) {
        WriteBytes("-", "", frame);
        return;
    }
    if (prefix_.empty() && !numbered_)
        return;
    const std::string path = PathOf(number);
    if (extension_ == ".raw")
        WriteBytes(path, "", frame);
    else if (extension_ == ".png")
        WritePng(path, MakePicture(layout, frame));
    else
        WriteNetpbm(path, MakePicture(layout, frame));
}

} // namespace uvcam
