#include "host/cameras/catalogue.h"

#include "host/cameras/descriptors.h"
#include "platform/byte_cursor.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace host::cameras {
namespace {

constexpr std::size_t kDeviceDescriptorSize = 18;
constexpr std::size_t kConfigurationHeaderSize = 9;

template <typename Number> bool ReadNumber(std::string_view text, Number lowest, Number highest, Number &number) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !(value >= lowest && value <= highest))
        return false;
    number = value;
    return true;
}

// One of two words.
bool ReadChoice(std::string_view text, std::string_view yes, std::string_view no, bool &choice) {
    choice = text == yes;
    return text == yes || text == no;
}

struct Option {
    std::string_view key;
    std::string_view values;
    bool (*read)(std::string_view value, CameraOptions &options);
};

constexpr Option kOptions[] = {
    {"payload", "BYTES (64 to 268435456) or frame",
     [](std::string_view value, CameraOptions &options) {
         options.payloadSize = 0;
         return value == "frame" || ReadNumber(value, 64u, 1u << 28, *options.payloadSize);
     }},
    {"header", "2, 6 or 12",
     [](std::string_view value, CameraOptions &options) {
         options.headerLength = value == "2" ? 2 : value == "6" ? 6 : 12;
         return value == "2" || value == "6" || value == "12";
     }},
    {"eof", "on or off",
     [](std::string_view value, CameraOptions &options) {
         return ReadChoice(value, "on", "off", options.endOfFrameBit);
     }},
    {"fid", "toggle or stuck",
     [](std::string_view value, CameraOptions &options) {
         return ReadChoice(value, "toggle", "stuck", options.toggleFid);
     }},
    {"speed", "full or high",
     [](std::string_view value, CameraOptions &options) {
         options.highSpeed = false;
         return ReadChoice(value, "high", "full", *options.highSpeed);
     }},
    {"seed", "a number",
     [](std::string_view value, CameraOptions &options) {
         return ReadNumber(value, 0u, 0xFFFFFFFFu, options.sensor.seed);
     }},
    {"noise", "0 to 64",
     [](std::string_view value, CameraOptions &options) { return ReadNumber(value, 0.0, 64.0, options.sensor.noise); }},
    {"mark", "on or off",
     [](std::string_view value, CameraOptions &options) {
         return ReadChoice(value, "on", "off", options.sensor.mark);
     }},
    {"defects", "0 to 1000",
     [](std::string_view value, CameraOptions &options) {
         return ReadNumber(value, 0u, 1000u, options.sensor.defects);
     }},
    {"latency", "0 to 100",
     [](std::string_view value, CameraOptions &options) { return ReadNumber(value, 0u, 100u, options.latency); }},
    {"light", "0 to 100",
     [](std::string_view value, CameraOptions &options) {
         return ReadNumber(value, 0.0, 100.0, options.sensor.surroundings.light);
     }},
    {"kelvin", "1500 to 15000",
     [](std::string_view value, CameraOptions &options) {
         return ReadNumber(value, 1500.0, 15000.0, options.sensor.surroundings.kelvin);
     }},
    {"sharp", "0 to 1000",
     [](std::string_view value, CameraOptions &options) {
         return ReadNumber(value, 0, 1000, options.sensor.surroundings.sharpAt);
     }},
    {"scene", "chart, flat, grey or a PNG's path",
     [](std::string_view value, CameraOptions &options) {
         options.scene = value;
         return !value.empty();
     }},
    {"store", "empty, corrupt or a file's path",
     [](std::string_view value, CameraOptions &options) {
         options.store = value;
         return !value.empty();
     }},
    {"stall", "ENTITY:SELECTOR",
     [](std::string_view value, CameraOptions &options) {
         const std::size_t colon = std::min(value.find(':'), value.size());
         unsigned entity = 0;
         unsigned selector = 0;
         if (!ReadNumber(value.substr(0, colon), 1u, 255u, entity) ||
             !ReadNumber(value.substr(std::min(colon + 1, value.size())), 1u, 255u, selector))
             return false;
         options.brokenControls.emplace_back(static_cast<std::uint8_t>(entity), static_cast<std::uint8_t>(selector));
         return true;
     }},
};

std::vector<std::string_view> Split(std::string_view text) {
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t comma = text.find(',');
        parts.push_back(text.substr(0, comma));
        if (comma == std::string_view::npos)
            return parts;
        text.remove_prefix(comma + 1);
    }
}

bool ReadOption(std::string_view part, CameraOptions &options, std::string &reason) {
    const std::size_t equals = part.find('=');
    const std::string_view key = part.substr(0, equals);
    for (const Option &option : kOptions) {
        if (option.key != key)
            continue;
        if (equals != std::string_view::npos && option.read(part.substr(equals + 1), options))
            return true;
        reason = "camera option \"" + std::string(key) + "\" takes " + std::string(option.values);
        return false;
    }
    reason = "unknown camera option \"" + std::string(part) + "\"";
    return false;
}

bool ReadOptions(std::span<const std::string_view> parts, CameraOptions &options, std::string &reason) {
    for (std::string_view part : parts)
        if (!ReadOption(part, options, reason))
            return false;
    return true;
}

bool ReadFile(const std::string &path, std::vector<std::uint8_t> &bytes, std::string &reason) {
    std::ifstream file(path, std::ios::binary);
    if (file)
        bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (!file || file.bad()) {
        reason = path + ": cannot be read";
        return false;
    }
    return true;
}

bool FillStore(SimulatedCamera &camera, const std::string &store, std::string &reason) {
    std::vector<std::uint8_t> bytes;
    if (store == "corrupt") {
        constexpr std::size_t kChecksum = 12;
        bytes = EncodeDefectLists(camera.DefectLists());
        bytes[kChecksum] ^= 1;
    } else if (store != "empty" && !ReadFile(store, bytes, reason)) {
        return false;
    }
    camera.SetUserData(bytes);
    return true;
}

// Null, with a reason, when what the options name cannot be read.
std::shared_ptr<SimulatedCamera> Build(CameraBody body, const CameraOptions &options, std::string &reason) {
    auto camera = std::make_shared<SimulatedCamera>(std::move(body), options);
    if (!options.scene.empty() && !camera->SetScene(options.scene, reason))
        return nullptr;
    if (!options.store.empty() && !FillStore(*camera, options.store, reason))
        return nullptr;
    return camera;
}

std::shared_ptr<SimulatedCamera> MakeModel(const Model &model, const CameraOptions &options, std::string &reason) {
    CameraBody body;
    body.model = model;
    body.highSpeed = true;
    body.device = BuildDeviceDescriptor(model);
    body.configuration = BuildConfigurationDescriptor(model, options.highSpeed.value_or(true));
    body.strings = {std::string(model.manufacturer), std::string(model.product), std::string(model.serial)};
    return Build(std::move(body), options, reason);
}

std::shared_ptr<SimulatedCamera> MakeFromFiles(std::span<const std::string_view> paths, const CameraOptions &options,
                                               std::string &reason) {
    std::vector<std::uint8_t> device;
    std::vector<std::uint8_t> configuration;
    if (!ReadFile(std::string(paths[0]), device, reason) || !ReadFile(std::string(paths[1]), configuration, reason))
        return nullptr;
    auto camera = MakeCamera(std::move(device), std::move(configuration), options, reason);
    if (camera == nullptr)
        reason = std::string(paths[0]) + ", " + std::string(paths[1]) + ": " + reason;
    return camera;
}

} // namespace

std::vector<CameraListing> ListCameras() {
    std::vector<CameraListing> cameras;
    for (const Model &model : Models())
        cameras.push_back(
            {"sim:" + std::string(model.name), model.vendorId, model.productId, std::string(model.product)});
    return cameras;
}

std::shared_ptr<SimulatedCamera> MakeCamera(std::string_view text, std::string &reason, bool *optionsAreWrong) {
    const std::vector<std::string_view> parts = Split(text);
    CameraOptions options;
    const auto readOptions = [&](std::size_t first) {
        const bool right = ReadOptions(std::span(parts).subspan(first), options, reason);
        if (optionsAreWrong != nullptr)
            *optionsAreWrong = !right;
        return right;
    };
    if (text.starts_with("sim:")) {
        const Model *model = FindModel(parts[0].substr(4));
        if (model != nullptr)
            return readOptions(1) ? MakeModel(*model, options, reason) : nullptr;
    } else if (text.starts_with("file:")) {
        if (parts.size() < 2) {
            reason = "a camera from files is file:DEVICE.bin,CONFIG.bin";
            return nullptr;
        }
        const std::string_view paths[] = {parts[0].substr(5), parts[1]};
        return readOptions(2) ? MakeFromFiles(paths, options, reason) : nullptr;
    }
    reason = "no such camera: \"" + std::string(parts[0]) + "\"";
    return nullptr;
}

std::shared_ptr<SimulatedCamera> MakeCamera(std::vector<std::uint8_t> device, std::vector<std::uint8_t> configuration,
                                            const CameraOptions &options, std::string &reason) {
    if (device.size() < kDeviceDescriptorSize || device[0] != kDeviceDescriptorSize || device[1] != 1) {
        reason = "not a device descriptor";
        return nullptr;
    }
    if (configuration.size() < kConfigurationHeaderSize || configuration[0] < kConfigurationHeaderSize ||
        configuration[1] != 2) {
        reason = "not a configuration descriptor";
        return nullptr;
    }
    ByteCursor cursor(device);
    cursor.Skip(2);
    const std::uint16_t bcdUsb = cursor.U16();
    cursor.Skip(4);
    CameraBody body;
    Model &model = body.model;
    model.name = "file";
    model.vendorId = cursor.U16();
    model.productId = cursor.U16();
    model.bcdDevice = cursor.U16();
    model.colour = true;
    model.sensorWidth = 1280;
    model.sensorHeight = 960;
    model.binning = true;
    model.payloadSize = 32768;

    // The texts that the device names by its own indexes; other indexes answer with their number.
    const std::uint8_t manufacturerIndex = cursor.U8();
    const std::uint8_t productIndex = cursor.U8();
    const std::uint8_t serialIndex = cursor.U8();
    body.strings.resize(std::max({manufacturerIndex, productIndex, serialIndex}));
    for (std::size_t i = 0; i < body.strings.size(); ++i)
        body.strings[i] = "String " + std::to_string(i + 1);
    char product[32];
    std::snprintf(product, sizeof product, "Camera %04x:%04x", model.vendorId, model.productId);
    const auto assign = [&](std::uint8_t index, std::string_view text, std::string_view &field) {
        if (index == 0)
            return;
        body.strings[index - 1u] = text;
        field = body.strings[index - 1u];
    };
    assign(manufacturerIndex, "Descriptor Files", model.manufacturer);
    assign(productIndex, product, model.product);
    assign(serialIndex, "0001", model.serial);
    body.lastString = 255;
    body.rule = SelectorRule::Standard;
    body.highSpeed = bcdUsb >= 0x0200;
    body.device = std::move(device);
    body.configuration = std::move(configuration);
    return Build(std::move(body), options, reason);
}

} // namespace host::cameras
