#include "host/cameras/sensor.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace host::cameras {
namespace {

enum Channel : std::size_t { kRed, kGreen, kBlue };

// Reflectance to raw level, by channel.
using Response = std::array<std::array<std::uint8_t, 256>, 3>;

constexpr std::size_t kNoiseSamples = 1 << 16;

std::uint64_t Scramble(std::uint64_t value) { // splitmix64
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

double Uniform(std::uint64_t value) {
    return static_cast<double>((Scramble(value) >> 11) + 1) / 9007199254740993.0;
}

Response MakeResponse(const SensorSettings &settings, const Surroundings &surroundings) {
    // A warm light has more red and less blue; green is taken as constant.
    const double warmth = std::pow(5500 / surroundings.kelvin, 0.8);
    const double signal = settings.exposure * settings.gain * surroundings.light;
    const std::array<double, 3> factors{signal * warmth, signal, signal / warmth};
    Response response;
    for (std::size_t channel = 0; channel < 3; ++channel)
        for (std::size_t level = 0; level < 256; ++level)
            response[channel][level] =
                static_cast<std::uint8_t>(std::clamp(static_cast<double>(level) * factors[channel] + 0.5, 0.0, 255.0));
    return response;
}

void Mosaic(const Picture &picture, const Response &response, BayerPattern pattern, std::uint8_t *out) {
    // Channel at (row parity, column parity).
    constexpr std::array<std::array<Channel, 4>, 4> kFilters{{
        {kBlue, kGreen, kGreen, kRed},
        {kGreen, kBlue, kRed, kGreen},
        {kGreen, kRed, kBlue, kGreen},
        {kRed, kGreen, kGreen, kBlue},
    }};
    const auto &filter = kFilters[static_cast<std::size_t>(pattern)];
    for (std::uint32_t y = 0; y < picture.height; ++y) {
        const Rgb *row = picture.Row(y);
        for (std::uint32_t x = 0; x < picture.width; ++x) {
            const Channel channel = filter[(y & 1) * 2 + (x & 1)];
            const std::uint8_t level = channel == kRed ? row[x].red : channel == kGreen ? row[x].green : row[x].blue;
            *out++ = response[channel][level];
        }
    }
}

// Luma and colour differences of BT.601, studio range, in 1/256.
std::uint8_t Luma(int r, int g, int b) {
    return static_cast<std::uint8_t>((66 * r + 129 * g + 25 * b + 4224) >> 8);
}

std::uint8_t Clip(int value) {
    return static_cast<std::uint8_t>(std::clamp(value, 0, 255));
}

void GreyPlane(const Picture &picture, const Response &response, std::uint8_t *out) {
    for (const Rgb &pixel : picture.pixels) {
        const unsigned red = response[kRed][pixel.red];
        const unsigned green = response[kGreen][pixel.green];
        const unsigned blue = response[kBlue][pixel.blue];
        *out++ = static_cast<std::uint8_t>((77 * red + 150 * green + 29 * blue + 128) >> 8);
    }
}

// `luma` is the place of the first luma byte in a group of four: 0 for YUY2, 1 for UYVY.
void PackedYuv(const Picture &picture, const Response &response, std::size_t luma, bool colour, std::uint8_t *out) {
    const std::size_t chroma = 1 - luma;
    for (std::uint32_t y = 0; y < picture.height; ++y) {
        const Rgb *row = picture.Row(y);
        for (std::uint32_t x = 0; x + 1 < picture.width; x += 2) {
            int sum[3] = {};
            for (std::size_t i = 0; i < 2; ++i) {
                const int r = response[kRed][row[x + i].red];
                const int g = response[kGreen][row[x + i].green];
                const int b = response[kBlue][row[x + i].blue];
                out[luma + 2 * i] = Luma(r, g, b);
                sum[kRed] += r;
                sum[kGreen] += g;
                sum[kBlue] += b;
            }
            const int u = (-38 * sum[kRed] - 74 * sum[kGreen] + 112 * sum[kBlue] + 256) >> 9;
            const int v = (112 * sum[kRed] - 94 * sum[kGreen] - 18 * sum[kBlue] + 256) >> 9;
            out[chroma] = colour ? Clip(u + 128) : 128;
            out[chroma + 2] = colour ? Clip(v + 128) : 128;
            out += 4;
        }
    }
}

} // namespace

Sensor::Sensor(const Model &model, const SensorOptions &options)
    : colour_(model.colour), pattern_(model.pattern), motorisedFocus_(model.motorisedFocus), width_(model.sensorWidth),
      height_(model.sensorHeight), options_(options) {
    for (std::uint32_t i = 0; i < options.defects && width_ > 0 && height_ > 0; ++i) {
        const std::uint64_t place = Scramble((std::uint64_t{options.seed} << 32) + i);
        defects_.push_back({static_cast<std::uint16_t>((place & 0xFFFFFF) % width_),
                            static_cast<std::uint16_t>((place >> 24 & 0xFFFFFF) % height_),
                            static_cast<std::uint8_t>(place >> 63 != 0 ? 255 : 0)});
    }
}

std::vector<DefectList> Sensor::DefectLists() const {
    std::vector<DefectList> lists{{1, {}}, {2, {}}, {4, {}}};
    for (DefectList &list : lists) {
        for (const Defect &defect : defects_) {
            const SensorPlace place{static_cast<std::uint16_t>(BinnedPlace(defect.x, list.binning, colour_)),
                                    static_cast<std::uint16_t>(BinnedPlace(defect.y, list.binning, colour_))};
            if (std::find(list.pixels.begin(), list.pixels.end(), place) == list.pixels.end())
                list.pixels.push_back(place);
        }
    }
    return lists;
}

bool Sensor::SetScene(const std::string &scene, std::string &reason) {
    if (scene == "chart") {
        scene_ = Scene::Chart;
    } else if (scene == "flat") {
        scene_ = Scene::Flat;
    } else if (scene == "grey") {
        scene_ = Scene::Grey;
    } else {
        Picture picture = ReadPng(scene, reason);
        if (picture.pixels.empty())
            return false;
        png_ = std::move(picture);
        scene_ = Scene::Png;
    }
    projection_.reset();
    view_.reset();
    still_.reset();
    return true;
}

void Sensor::SetSurroundings(const Surroundings &surroundings) {
    options_.surroundings = surroundings;
    still_.reset();
}

const Picture &Sensor::Projection(Extent sensor) {
    if (projection_ && Extent{projection_->width, projection_->height} == sensor)
        return *projection_;
    switch (scene_) {
    case Scene::Chart:
    case Scene::Grey:
        projection_ = DrawChart(sensor.width, sensor.height);
        if (scene_ == Scene::Grey)
            RemoveColours(*projection_);
        break;
    case Scene::Flat:
        projection_ = Picture{sensor.width, sensor.height, {}};
        projection_->pixels.assign(std::size_t{sensor.width} * sensor.height, {128, 128, 128});
        break;
    case Scene::Png:
        projection_ = Resample(png_, sensor.width, sensor.height);
        break;
    }
    return *projection_;
}

// A frame at (left, top) of a sensor of that many binned pixels.
const Picture &Sensor::Look(Extent sensor, Extent frame, std::uint32_t left, std::uint32_t top, double blur) {
    if (view_ && view_->sensor == sensor && view_->frame == frame && view_->left == left && view_->top == top &&
        view_->blur == blur)
        return view_->picture;
    const Picture &scene = Projection(sensor);
    view_ = View{sensor, frame, left, top, blur, {}};
    if (blur == 0) {
        view_->picture = Cut(scene, left, top, frame.width, frame.height);
        return view_->picture;
    }
    // What lies around the frame blurs into it.
    const auto margin = static_cast<std::uint32_t>(2 * blur) + 3;
    const std::uint32_t before = std::min(left, margin);
    const std::uint32_t above = std::min(top, margin);
    Picture part = Cut(scene, left - before, top - above,
                       before + frame.width + std::min(sensor.width - left - frame.width, margin),
                       above + frame.height + std::min(sensor.height - top - frame.height, margin));
    Blur(part, blur);
    view_->picture = Cut(part, before, above, frame.width, frame.height);
    return view_->picture;
}

std::vector<std::uint8_t> Sensor::Develop(const Raster &raster, const SensorSettings &settings) {
    std::vector<std::uint8_t> frame(raster.bytes);
    if (raster.pixels == PixelFormat::Opaque) {
        for (std::size_t i = 0; i < frame.size(); ++i)
            frame[i] = static_cast<std::uint8_t>((i >> 8) ^ i ^ options_.seed);
        return frame;
    }
    const Region &region = settings.region;
    const bool enlarged = !LiesOn(Size(), raster.Size(), region);
    const Extent sensor = enlarged ? raster.Size() : Extent{width_ / region.binning, height_ / region.binning};
    // The spot of a point grows with the way to the sharp position: 12 pixels across the full width of 1000.
    double blur = 0;
    if (motorisedFocus_)
        blur = std::abs(settings.focus - options_.surroundings.sharpAt) * 0.000012 * sensor.width;
    const Picture &picture = Look(sensor, raster.Size(), enlarged ? 0 : region.x / region.binning,
                                  enlarged ? 0 : region.y / region.binning, blur);
    const Response response = MakeResponse(settings, options_.surroundings);
    switch (raster.pixels) {
    case PixelFormat::Bayer8:
        if (colour_)
            Mosaic(picture, response, pattern_, frame.data());
        else
            GreyPlane(picture, response, frame.data());
        break;
    case PixelFormat::Grey8:
        GreyPlane(picture, response, frame.data());
        break;
    case PixelFormat::Yuy2:
        PackedYuv(picture, response, 0, colour_, frame.data());
        break;
    case PixelFormat::Uyvy:
        PackedYuv(picture, response, 1, colour_, frame.data());
        break;
    case PixelFormat::Opaque:
        break;
    }
    AddDefects(raster, region, frame);
    return frame;
}

void Sensor::AddDefects(const Raster &raster, const Region &region, std::vector<std::uint8_t> &frame) const {
    const bool enlarged = !LiesOn(Size(), raster.Size(), region);
    const auto place = [&](std::uint32_t at, std::uint32_t offset, std::uint32_t side, std::uint32_t length) {
        // Wraps around, and so lies outside, for a place before the frame.
        return enlarged ? at * length / side : BinnedPlace(at, region.binning, colour_) - offset / region.binning;
    };
    const std::size_t width = Describe(raster.pixels).bitsPerPixel / 8u;
    for (const Defect &defect : defects_) {
        const std::uint32_t x = place(defect.x, region.x, width_, raster.width);
        const std::uint32_t y = place(defect.y, region.y, height_, raster.height);
        if (x < raster.width && y < raster.height)
            frame[(std::size_t{y} * raster.width + x) * width + (raster.pixels == PixelFormat::Uyvy ? 1 : 0)] =
                defect.level;
    }
}

void Sensor::AddNoise(const Raster &raster, std::uint64_t number, std::vector<std::uint8_t> &frame) {
    const std::size_t rowBytes = raster.bytes / raster.height;
    if (noise_.size() < kNoiseSamples + rowBytes) {
        const std::size_t samples = kNoiseSamples + rowBytes;
        const std::uint64_t stream = Scramble(options_.seed) << 20;
        noise_.resize(samples);
        for (std::size_t i = 0; i < samples; ++i) {
            const double radius = std::sqrt(-2 * std::log(Uniform(stream + 2 * i)));
            const double value = radius * std::cos(2 * std::numbers::pi * Uniform(stream + 2 * i + 1));
            noise_[i] = static_cast<std::int16_t>(std::lround(std::clamp(value * options_.noise, -255.0, 255.0)));
        }
    }
    for (std::size_t y = 0; y < raster.height; ++y) {
        // Each row of each frame starts elsewhere in one long record of noise.
        const std::int16_t *noise = noise_.data() + Scramble(Scramble(number) + y) % kNoiseSamples;
        std::uint8_t *row = frame.data() + y * rowBytes;
        for (std::size_t x = 0; x < rowBytes; ++x)
            row[x] = static_cast<std::uint8_t>(std::clamp(row[x] + noise[x], 0, 255));
    }
}

FrameBytes Sensor::Expose(const Raster &raster, const SensorSettings &settings, std::uint64_t number) {
    if (!still_ || still_->raster != raster || still_->settings != settings)
        still_ = Still{raster, settings, std::make_shared<const std::vector<std::uint8_t>>(Develop(raster, settings))};
    const bool noisy = options_.noise > 0 && raster.pixels != PixelFormat::Opaque;
    if (!noisy && !options_.mark)
        return still_->bytes;

    if (!scratch_ || scratch_.use_count() != 1)
        scratch_ = std::make_shared<std::vector<std::uint8_t>>();
    *scratch_ = *still_->bytes;
    if (noisy)
        AddNoise(raster, number, *scratch_);
    if (options_.mark)
        DrawMark(raster, number, *scratch_);
    return scratch_;
}

void DrawMark(const Raster &raster, std::uint64_t number, std::vector<std::uint8_t> &frame) {
    constexpr std::uint32_t kRows = 32 / kMarkColumns;
    if (raster.pixels == PixelFormat::Opaque || raster.width < kMarkCell * kMarkColumns ||
        raster.height < kMarkCell * kRows)
        return;
    const std::size_t width = Describe(raster.pixels).bitsPerPixel / 8u;
    for (std::uint32_t y = 0; y < kMarkCell * kRows; ++y) {
        for (std::uint32_t x = 0; x < kMarkCell * kMarkColumns; ++x) {
            const std::uint32_t bit = 31 - (y / kMarkCell * kMarkColumns + x / kMarkCell);
            const std::uint8_t level = (number >> bit & 1) != 0 ? 235 : 16;
            std::uint8_t *pixel = frame.data() + (std::size_t{y} * raster.width + x) * width;
            if (width == 1) {
                pixel[0] = level;
            } else {
                const std::size_t luma = raster.pixels == PixelFormat::Uyvy ? 1 : 0;
                pixel[luma] = level;
                pixel[1 - luma] = 128;
            }
        }
    }
}

} // namespace host::cameras
