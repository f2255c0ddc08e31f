#include "tests/host/cameras/camera_harness.h"

#include <set>

namespace host::cameras {
namespace {

std::vector<std::string> ModelNames() {
    std::vector<std::string> names;
    for (const CameraListing &camera : ListCameras())
        names.push_back(camera.name);
    return names;
}

Bytes Descriptor(SimulatedCamera &camera, std::uint8_t type, std::uint8_t index, std::uint16_t length = 0xFFFF) {
    return Get(camera, 0x80, 6, static_cast<std::uint16_t>(type << 8 | index), 0, length).value_or(Bytes{});
}

class ModelTest : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(All, ModelTest, testing::ValuesIn(ModelNames()),
                         [](const auto &info) { return info.param.substr(4); });

// Splits a configuration into descriptors and proves that lengths add up.
std::vector<Bytes> Walk(const Bytes &bytes) {
    std::vector<Bytes> descriptors;
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t length = bytes[at];
        if (length < 2 || at + length > bytes.size()) {
            ADD_FAILURE() << "broken length at " << at;
            break;
        }
        descriptors.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                 bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
    }
    return descriptors;
}

bool IsClass(const Bytes &descriptor, std::uint8_t subtype) {
    return descriptor[1] == 0x24 && descriptor[2] == subtype;
}

TEST_P(ModelTest, ConfigurationIsWellFormed) {
    const auto camera = Make(GetParam());
    const Bytes configuration = Descriptor(*camera, 2, 0);
    ASSERT_EQ(Little(configuration, 2, 2), configuration.size());
    EXPECT_EQ(Descriptor(*camera, 2, 0, 9), Bytes(configuration.begin(), configuration.begin() + 9));

    const std::vector<Bytes> all = Walk(configuration);
    std::set<int> interfaces;
    std::set<int> entities;
    std::size_t classBytes[2] = {};
    std::size_t announced[2] = {};
    std::size_t formats = 0;
    std::size_t framesLeft = 0;
    std::size_t headerFormats = 0;
    int place = -1;
    for (const Bytes &descriptor : all) {
        if (descriptor[1] == 4) {
            place = descriptor[2];
            interfaces.insert(place);
            EXPECT_EQ(descriptor[5], 0x0E);
            EXPECT_EQ(descriptor[6], place + 1);
            EXPECT_EQ(descriptor[4], place) << "bulk pipe in alternate 0 of interface 1 alone";
        }
        if (descriptor[1] == 0x24)
            classBytes[place] += descriptor.size();
        if (descriptor[1] == 5) {
            EXPECT_EQ(descriptor, (Bytes{7, 5, 0x81, 2, 0, 2, 0}));
        }
        if (IsClass(descriptor, 1)) {
            announced[place] = Little(descriptor, place == 0 ? 5 : 4, 2);
            headerFormats = place == 1 ? descriptor[3] : 0;
            EXPECT_EQ(descriptor.size(), place == 0 ? 12u + descriptor[11] : 13u + descriptor[3]);
        } else if (place == 0 && descriptor[1] == 0x24) {
            EXPECT_TRUE(entities.insert(descriptor[3]).second) << "entity id used twice";
            const bool unit = IsClass(descriptor, 5);
            if (unit || IsClass(descriptor, 6)) {
                EXPECT_TRUE(entities.contains(descriptor[unit ? 4 : 22])) << "source of a unit";
            }
        } else if (IsClass(descriptor, 0x04) || IsClass(descriptor, 0x10)) {
            EXPECT_EQ(framesLeft, 0u);
            EXPECT_EQ(descriptor[3], ++formats);
            EXPECT_EQ(descriptor.size(), IsClass(descriptor, 0x04) ? 27u : 28u);
            framesLeft = descriptor[4];
        } else if (place == 1 && (IsClass(descriptor, 0x05) || IsClass(descriptor, 0x11))) {
            const bool frameBased = IsClass(descriptor, 0x11);
            const std::size_t count = descriptor[frameBased ? 21 : 25];
            EXPECT_EQ(descriptor.size(), 26 + 4 * (count == 0 ? 3 : count));
            const std::uint32_t preferred = Little(descriptor, frameBased ? 17 : 21, 4);
            bool offered = count == 0;
            for (std::size_t i = 0; i < count; ++i)
                offered = offered || Little(descriptor, 26 + 4 * i, 4) == preferred;
            EXPECT_TRUE(offered) << "default interval " << preferred;
            EXPECT_LE(Little(descriptor, 9, 4), Little(descriptor, 13, 4)) << "bit rates";
            --framesLeft;
        }
    }
    EXPECT_EQ(interfaces, (std::set<int>{0, 1}));
    EXPECT_EQ(configuration[4], 2);
    EXPECT_EQ(classBytes[0], announced[0]);
    EXPECT_EQ(classBytes[1], announced[1]);
    EXPECT_EQ(formats, headerFormats);
    EXPECT_EQ(framesLeft, 0u);
    const std::set<std::string> plain{"sim:generic", "sim:8204"}; // without an extension unit
    EXPECT_EQ(entities.size(), 4u - plain.count(GetParam()));
    EXPECT_EQ(formats > 0 && IsClass(all.at(2 + 1), 1), true);
}

TEST(Catalogue, RefusesWithAReason) {
    const struct {
        const char *text;
        const char *reason;
    } kRows[] = {
        {"sim:8208", "no such camera: \"sim:8208\""},
        {"", "no such camera: \"\""},
        {"sim:", "no such camera: \"sim:\""},
        {"sim:generic,", "unknown camera option \"\""},
        {"sim:generic,sharpness=1", "unknown camera option \"sharpness=1\""},
        {"sim:generic,header=3", "camera option \"header\" takes 2, 6 or 12"},
        {"sim:generic,header", "camera option \"header\" takes 2, 6 or 12"},
        {"sim:generic,payload=63", "camera option \"payload\" takes BYTES (64 to 268435456) or frame"},
        {"sim:generic,payload=64k", "camera option \"payload\" takes BYTES (64 to 268435456) or frame"},
        {"sim:generic,noise=nan", "camera option \"noise\" takes 0 to 64"},
        {"sim:8101,seed=-1", "camera option \"seed\" takes a number"},
        {"file:one.bin", "a camera from files is file:DEVICE.bin,CONFIG.bin"},
        {"file:absent.bin,absent.bin", "absent.bin: cannot be read"},
    };
    for (const auto &row : kRows) {
        std::string reason;
        EXPECT_EQ(MakeCamera(row.text, reason), nullptr) << row.text;
        EXPECT_EQ(reason, row.reason);
    }
    EXPECT_FALSE(Make("sim:8101,speed=full")->IsHighSpeed());
    EXPECT_EQ(ListCameras().size(), 10u);
}

} // namespace
} // namespace host::cameras
