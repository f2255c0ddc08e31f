// A small physical model of lens and image sensor: a scene under a light, blurred by the focus, exposed and amplified,
// seen through a colour filter, with noise and defects. Everything is a function of the seed and the frame number.
#pragma once

#include "host/cameras/model.h"
#include "host/cameras/picture.h"
#include "host/cameras/region.h"
#include "host/cameras/user_data.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host::cameras {

// A frame as the host gets it. One that is larger than the sensor shows the whole of it, enlarged.
struct Raster {
    PixelFormat pixels = PixelFormat::Opaque;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t bytes = 0;

    Extent Size() const { return {width, height}; }

    friend bool operator==(const Raster &, const Raster &) = default;
};

// What the host can set. With both factors 1 a white of the scene under a light of 1 is just below the sensor's limit.
struct SensorSettings {
    double exposure = 1;
    double gain = 1;
    int focus = 500; // position of the motor
    Region region;

    friend bool operator==(const SensorSettings &, const SensorSettings &) = default;
};

// What the world sets.
struct Surroundings {
    double light = 1;
    double kelvin = 5500; // at 5500 the sensor sees white as white
    int sharpAt = 500;    // the motor position at which the scene is in focus
};

struct SensorOptions {
    std::uint32_t seed = 1;
    double noise = 0; // standard deviation in levels
    bool mark = false;
    std::uint32_t defects = 0;
    Surroundings surroundings;
};

struct Defect {
    std::uint16_t x; // of the full sensor
    std::uint16_t y;
    std::uint8_t level;
};

using FrameBytes = std::shared_ptr<const std::vector<std::uint8_t>>;

// Not thread-safe: its camera serialises.
class Sensor {
  public:
    Sensor(const Model &model, const SensorOptions &options);

    // "chart", "flat" (a grey of 128 all over), "grey" (the chart without its colours) or the path of a PNG. False
    // leaves the scene as it was.
    bool SetScene(const std::string &scene, std::string &reason);
    void SetSurroundings(const Surroundings &surroundings);

    // Exposure `number`. As long as nothing changes, and without noise and mark, the same bytes are shared by all.
    FrameBytes Expose(const Raster &raster, const SensorSettings &settings, std::uint64_t number);

    const std::vector<Defect> &Defects() const { return defects_; }
    // A binned pixel is stuck as soon as one of its pixels is. At binning 1, 2 and 4, each place once.
    std::vector<DefectList> DefectLists() const;

    Extent Size() const { return {width_, height_}; }

  private:
    enum class Scene { Chart, Flat, Grey, Png };
    struct View { // what a frame sees
        Extent sensor, frame;
        std::uint32_t left, top;
        double blur;
        Picture picture;
    };
    struct Still {
        Raster raster;
        SensorSettings settings;
        FrameBytes bytes;
    };

    const Picture &Projection(Extent sensor);
    const Picture &Look(Extent sensor, Extent frame, std::uint32_t left, std::uint32_t top, double blur);
    std::vector<std::uint8_t> Develop(const Raster &raster, const SensorSettings &settings);
    void AddDefects(const Raster &raster, const Region &region, std::vector<std::uint8_t> &frame) const;
    void AddNoise(const Raster &raster, std::uint64_t number, std::vector<std::uint8_t> &frame);

    bool colour_;
    BayerPattern pattern_;
    bool motorisedFocus_;
    std::uint16_t width_;
    std::uint16_t height_;
    SensorOptions options_;
    std::vector<Defect> defects_;
    std::vector<std::int16_t> noise_;
    Scene scene_ = Scene::Chart;
    Picture png_;
    std::optional<Picture> projection_; // the scene, sharp, on the whole sensor as it is binned
    std::optional<View> view_;
    std::optional<Still> still_;
    std::shared_ptr<std::vector<std::uint8_t>> scratch_;
};

// The frame number in a frame with a mark: 32 cells of 8 by 8 pixels in two rows at the top left, black for 0 and white
// for 1, most significant first.
inline constexpr std::uint32_t kMarkCell = 8;
inline constexpr std::uint32_t kMarkColumns = 16;
void DrawMark(const Raster &raster, std::uint64_t number, std::vector<std::uint8_t> &frame);

} // namespace host::cameras
