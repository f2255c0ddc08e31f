#include "host/cameras/picture.h"

#include <png.h>

#include <algorithm>
#include <cmath>

namespace host::cameras {
namespace {

constexpr std::uint64_t kMostPixels = 64u << 20;

// The source samples of one destination sample and their weights, which sum to 1.
struct Taps {
    std::uint32_t first;
    std::vector<float> weights;
};

// A triangle as wide as the scale, at least one sample: averages when shrinking, interpolates when growing.
std::vector<Taps> MakeTaps(double start, double length, std::uint32_t sourceSize, std::uint32_t size) {
    const double scale = length / size;
    const double radius = std::max(scale, 1.0);
    std::vector<Taps> taps(size);
    for (std::uint32_t i = 0; i < size; ++i) {
        const double centre = start + (i + 0.5) * scale - 0.5;
        const double last = sourceSize - 1.0;
        const auto first = static_cast<std::uint32_t>(std::clamp(std::ceil(centre - radius), 0.0, last));
        const auto end = static_cast<std::uint32_t>(std::clamp(std::floor(centre + radius), 0.0, last));
        taps[i].first = first;
        float sum = 0;
        for (std::uint32_t at = first; at <= end; ++at) {
            const double weight = std::max(1 - std::abs(at - centre) / radius, 1e-6);
            taps[i].weights.push_back(static_cast<float>(weight));
            sum += taps[i].weights.back();
        }
        for (float &weight : taps[i].weights)
            weight /= sum;
    }
    return taps;
}

struct Sum {
    float red = 0, green = 0, blue = 0;

    template <typename Pixel> void Add(const Pixel &pixel, float weight) {
        red += static_cast<float>(pixel.red) * weight;
        green += static_cast<float>(pixel.green) * weight;
        blue += static_cast<float>(pixel.blue) * weight;
    }
};

std::uint8_t Level(float value) {
    return static_cast<std::uint8_t>(std::clamp(value + 0.5f, 0.0f, 255.0f));
}

// Mean of the 2 x `radius` + 1 samples around each of `count` samples, which are `lanes` bytes that lie side by side.
void BlurLine(const std::uint8_t *from, std::uint8_t *to, std::size_t count, std::size_t lanes, double radius,
              std::vector<std::int32_t> &sums) {
    // All samples but the outermost two count fully.
    const auto whole = static_cast<std::ptrdiff_t>(radius);
    const auto part = static_cast<float>(radius - static_cast<double>(whole));
    const auto scale = static_cast<float>(1 / (2 * radius + 1));
    const auto sample = [&](std::ptrdiff_t at) {
        return from + static_cast<std::size_t>(std::clamp<std::ptrdiff_t>(at, 0, std::ptrdiff_t(count) - 1)) * lanes;
    };
    sums.assign(lanes, 0);
    for (std::ptrdiff_t at = -whole; at <= whole; ++at)
        for (std::size_t lane = 0; lane < lanes; ++lane)
            sums[lane] += sample(at)[lane];
    std::int32_t *sum = sums.data();
    for (std::ptrdiff_t i = 0; i < std::ptrdiff_t(count); ++i, to += lanes) {
        const std::uint8_t *outerLeft = sample(i - whole - 1);
        const std::uint8_t *outerRight = sample(i + whole + 1);
        const std::uint8_t *left = sample(i - whole);
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            const auto ends = static_cast<float>(outerLeft[lane] + outerRight[lane]);
            to[lane] = static_cast<std::uint8_t>((static_cast<float>(sum[lane]) + part * ends) * scale + 0.5f);
            sum[lane] += outerRight[lane] - left[lane];
        }
    }
}

} // namespace

void RemoveColours(Picture &picture) {
    for (Rgb &pixel : picture.pixels) {
        const auto grey = static_cast<std::uint8_t>((77 * pixel.red + 150 * pixel.green + 29 * pixel.blue + 128) >> 8);
        pixel = {grey, grey, grey};
    }
}

void Blur(Picture &picture, double radius) {
    static_assert(sizeof(Rgb) == 3, "the picture is walked as bytes");
    const std::size_t pitch = std::size_t{picture.width} * 3;
    std::vector<std::uint8_t> once(pitch * picture.height);
    std::vector<std::int32_t> sums;
    auto *bytes = reinterpret_cast<std::uint8_t *>(picture.pixels.data());
    for (std::size_t y = 0; y < picture.height; ++y) {
        BlurLine(bytes + y * pitch, once.data(), picture.width, 3, radius, sums);
        BlurLine(once.data(), bytes + y * pitch, picture.width, 3, radius, sums);
    }
    BlurLine(bytes, once.data(), picture.height, pitch, radius, sums);
    BlurLine(once.data(), bytes, picture.height, pitch, radius, sums);
}

Picture Cut(const Picture &picture, std::uint32_t left, std::uint32_t top, std::uint32_t width, std::uint32_t height) {
    Picture part{width, height, {}};
    part.pixels.reserve(std::size_t{width} * height);
    for (std::uint32_t y = 0; y < height; ++y) {
        const Rgb *row = picture.Row(top + y) + left;
        part.pixels.insert(part.pixels.end(), row, row + width);
    }
    return part;
}

Picture ReadPng(const std::string &path, std::string &reason) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        reason = path + ": " + image.message;
        return {};
    }
    image.format = PNG_FORMAT_RGB;
    Picture picture{image.width, image.height, {}};
    if (std::uint64_t{image.width} * image.height > kMostPixels) {
        png_image_free(&image);
        reason = path + ": larger than 64 megapixels";
        return {};
    }
    picture.pixels.resize(std::size_t{image.width} * image.height);
    const png_color behind{255, 255, 255};
    if (!png_image_finish_read(&image, &behind, picture.pixels.data(), 0, nullptr)) {
        reason = path + ": " + image.message;
        return {};
    }
    return picture;
}

Picture Resample(const Picture &source, std::uint32_t width, std::uint32_t height) {
    const double scale = std::min(double{1} * source.width / width, double{1} * source.height / height);
    const double usedWidth = scale * width;
    const double usedHeight = scale * height;
    const auto columns = MakeTaps((source.width - usedWidth) / 2, usedWidth, source.width, width);
    const auto rows = MakeTaps((source.height - usedHeight) / 2, usedHeight, source.height, height);

    std::vector<Sum> narrow(std::size_t{width} * source.height);
    for (std::uint32_t y = 0; y < source.height; ++y) {
        for (std::uint32_t x = 0; x < width; ++x) {
            Sum &sum = narrow[std::size_t{y} * width + x];
            const Rgb *from = source.Row(y) + columns[x].first;
            for (float weight : columns[x].weights)
                sum.Add(*from++, weight);
        }
    }
    Picture picture{width, height, std::vector<Rgb>(std::size_t{width} * height)};
    for (std::uint32_t y = 0; y < height; ++y) {
        for (std::uint32_t x = 0; x < width; ++x) {
            Sum sum;
            const Sum *from = narrow.data() + std::size_t{rows[y].first} * width + x;
            for (float weight : rows[y].weights) {
                sum.Add(*from, weight);
                from += width;
            }
            picture.Row(y)[x] = {Level(sum.red), Level(sum.green), Level(sum.blue)};
        }
    }
    return picture;
}

} // namespace host::cameras
