#include "host/cameras/picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace host::cameras {
namespace {

struct Colour {
    float red, green, blue;
};

constexpr Colour Grey(float level) {
    return {level, level, level};
}

constexpr Colour Mix(Colour under, Colour over, float cover) {
    return {under.red + (over.red - under.red) * cover, under.green + (over.green - under.green) * cover,
            under.blue + (over.blue - under.blue) * cover};
}

struct Box {
    float left, top, right, bottom;
};

// Six columns by four rows: skin, sky, foliage and flower tones, saturated mixtures, primaries, greys.
constexpr std::array<Colour, 24> kPatches{{
    {115, 82, 68},   {194, 150, 130}, {98, 122, 157},  {87, 108, 67},   {133, 128, 177}, {103, 189, 170},
    {214, 126, 44},  {80, 91, 166},   {193, 90, 99},   {94, 60, 108},   {157, 188, 64},  {224, 163, 46},
    {56, 61, 150},   {70, 148, 73},   {175, 54, 60},   {231, 199, 31},  {187, 86, 149},  {8, 133, 161},
    {243, 243, 242}, {200, 200, 200}, {160, 160, 160}, {122, 122, 121}, {85, 85, 85},    {52, 52, 52},
}};

constexpr Colour kBackground = Grey(118);
constexpr Colour kBlack = Grey(24);
constexpr Colour kWhite = Grey(232);

// The chart's plane is 4/3 wide and 1 high.
constexpr Box kPatchField{0.06f, 0.07f, 0.75f, 0.53f};
constexpr float kStarX = 1.035f, kStarY = 0.30f, kStarRadius = 0.23f;
constexpr float kStarCycles = 36;
constexpr Box kEdgeField{0.06f, 0.585f, 0.36f, 0.785f};
constexpr Box kBarField{0.42f, 0.585f, 0.84f, 0.785f};
constexpr Box kHueField{0.90f, 0.585f, 1.273f, 0.785f};
constexpr Box kStepField{0.06f, 0.825f, 1.273f, 0.89f};
constexpr Box kRampField{0.06f, 0.885f, 1.273f, 0.945f};

class Chart {
  public:
    // `pixel` is the side of a pixel in the plane: edges are as soft as one pixel.
    explicit Chart(float pixel) : pixel_(pixel) {}

    Colour At(float x, float y) const {
        Colour colour = kBackground;
        const float frame = std::min(std::min(x, 4.0f / 3 - x), std::min(y, 1 - y));
        colour = Mix(colour, kBlack, Soft(0.004f - std::abs(frame - 0.03f)));
        if (y < 0.56f) {
            colour = Patches(colour, x, y);
            colour = Star(colour, x, y);
        } else if (y < 0.805f) {
            colour = Edges(colour, x, y);
            if (x < 0.87f)
                colour = Mix(colour, Grey(128 + 104 * Bars(x)), Cover(kBarField, x, y));
            else
                colour = Mix(colour, Hue(Along(kHueField, x)), Cover(kHueField, x, y));
        } else {
            colour = Mix(colour, Grey(Steps(x)), Cover(kStepField, x, y));
            colour = Mix(colour, Grey(255 * Along(kRampField, x)), Cover(kRampField, x, y));
        }
        return colour;
    }

  private:
    // How much of a pixel lies inside an edge at that distance (positive: inside).
    float Soft(float inside) const { return std::clamp(0.5f + inside / pixel_, 0.0f, 1.0f); }

    // Lines of that many pairs to a unit of the plane fade out before they are too fine for the pixels.
    float Resolved(float pairs) const { return std::clamp(2 - 4 * pairs * pixel_, 0.0f, 1.0f); }

    float Cover(const Box &box, float x, float y) const {
        const float inside = std::min(std::min(x - box.left, box.right - x), std::min(y - box.top, box.bottom - y));
        return Soft(inside);
    }

    static float Along(const Box &box, float x) {
        return std::clamp((x - box.left) / (box.right - box.left), 0.0f, 1.0f);
    }

    Colour Patches(Colour under, float x, float y) const {
        constexpr float kPitch = (kPatchField.right - kPatchField.left) / 6;
        constexpr float kGap = 0.008f;
        Colour colour = Mix(under, kBlack, Cover(kPatchField, x, y));
        const int column = static_cast<int>(std::floor((x - kPatchField.left) / kPitch));
        const int row = static_cast<int>(std::floor((y - kPatchField.top) / kPitch));
        if (column < 0 || column > 5 || row < 0 || row > 3)
            return colour;
        const float left = kPatchField.left + static_cast<float>(column) * kPitch;
        const float top = kPatchField.top + static_cast<float>(row) * kPitch;
        const Box patch{left + kGap, top + kGap, left + kPitch - kGap, top + kPitch - kGap};
        return Mix(colour, kPatches[static_cast<std::size_t>(row * 6 + column)], Cover(patch, x, y));
    }

    Colour Star(Colour under, float x, float y) const {
        const float dx = x - kStarX;
        const float dy = y - kStarY;
        const float radius = std::sqrt(dx * dx + dy * dy);
        if (radius > kStarRadius + 0.02f)
            return under;
        const float wave = std::sin(std::atan2(dy, dx) * kStarCycles);
        const float resolved = Resolved(kStarCycles / (2 * std::numbers::pi_v<float> * std::max(radius, pixel_)));
        const float white = 0.5f + (Soft(wave * radius / kStarCycles) - 0.5f) * resolved;
        const Colour spokes = Mix(kBlack, kWhite, white);
        const Colour disc = Mix(under, kWhite, Soft(kStarRadius + 0.012f - radius));
        return Mix(disc, spokes, Soft(kStarRadius - radius));
    }

    // A dark rectangle, turned by 5 degrees, on white.
    Colour Edges(Colour under, float x, float y) const {
        const float dx = x - (kEdgeField.left + kEdgeField.right) / 2;
        const float dy = y - (kEdgeField.top + kEdgeField.bottom) / 2;
        const float u = 0.99619f * dx + 0.08716f * dy;
        const float v = 0.99619f * dy - 0.08716f * dx;
        const float inside = std::min(0.10f - std::abs(u), 0.065f - std::abs(v));
        return Mix(under, Mix(kWhite, kBlack, Soft(inside)), Cover(kEdgeField, x, y));
    }

    // Vertical lines that grow finer to the right: from 20 to 320 pairs to the picture's height. -1 to 1.
    float Bars(float x) const {
        constexpr float kTurn = 2 * std::numbers::pi_v<float>;
        const float along = Along(kBarField, x);
        const float width = kBarField.right - kBarField.left;
        const float growth = std::log(16.0f);
        const float phase = kTurn * 20 * width / growth * (std::exp(growth * along) - 1);
        const float slope = kTurn * 20 * std::exp(growth * along);
        return (2 * Soft(std::sin(phase) / slope) - 1) * Resolved(slope / kTurn);
    }

    static Colour Hue(float along) {
        const auto channel = [along](float shift) {
            const float turn = std::fmod(along + shift, 1.0f) * 6;
            return 40 + 190 * std::clamp(std::abs(turn - 3) - 1, 0.0f, 1.0f);
        };
        return {channel(0), channel(2.0f / 3), channel(1.0f / 3)};
    }

    float Steps(float x) const { return 255 * std::min(std::floor(Along(kStepField, x) * 12), 11.0f) / 11; }

    float pixel_;
};

std::uint8_t Level(float value) {
    return static_cast<std::uint8_t>(std::clamp(value + 0.5f, 0.0f, 255.0f));
}

} // namespace

Picture DrawChart(std::uint32_t width, std::uint32_t height) {
    Picture picture{width, height, std::vector<Rgb>(std::size_t{width} * height)};
    const float scaleX = 4.0f / 3 / static_cast<float>(width);
    const float scaleY = 1.0f / static_cast<float>(height);
    const Chart chart(std::max(scaleX, scaleY));
    for (std::uint32_t y = 0; y < height; ++y) {
        Rgb *row = picture.Row(y);
        for (std::uint32_t x = 0; x < width; ++x) {
            const Colour colour =
                chart.At((static_cast<float>(x) + 0.5f) * scaleX, (static_cast<float>(y) + 0.5f) * scaleY);
            row[x] = {Level(colour.red), Level(colour.green), Level(colour.blue)};
        }
    }
    return picture;
}

} // namespace host::cameras
