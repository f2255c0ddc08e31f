#include "tests/apps/uvcam.h"

#include <algorithm>

namespace uvcam_test {
namespace {

enum Code { kDone, kFailed, kUsage, kNoSuchCamera, kPermission, kBusy, kNotOffered, kDeviceLost, kTimedOut };

struct Case {
    const char *line;
    Code code;
    const char *says; // somewhere in the last line on stderr
};

class CommandLineTest : public UvcamTest {
  protected:
    // Ends with the code and one line of its own, behind what the driver may have had to say.
    void Check(const Case &c, bool driverMaySpeak) {
        SCOPED_TRACE(c.line);
        const Outcome outcome = Run(c.line);
        EXPECT_EQ(outcome.code, c.code) << outcome.err;
        EXPECT_EQ(outcome.out, "");
        ASSERT_TRUE(outcome.err.ends_with('\n')) << outcome.err;
        const std::size_t last = outcome.err.rfind('\n', outcome.err.size() - 2) + 1;
        EXPECT_TRUE(outcome.err.substr(last).starts_with("uvcam: ")) << outcome.err;
        EXPECT_NE(outcome.err.find(c.says, last), std::string::npos) << outcome.err;
        if (!driverMaySpeak)
            EXPECT_EQ(last, 0u) << outcome.err;
    }
};

TEST_F(CommandLineTest, SlipsAreToldInOneLine) {
    const Case cases[] = {
        {"", kUsage, "subcommand"},
        {"photograph", kUsage, "subcommand"},
        {"list sim:8101", kUsage, "sim:8101"},
        {"formats", kUsage, "camera"},
        {"capture", kUsage, "camera"},
        {"capture sim:8101 --no-such-option", kUsage, "--no-such-option"},
        {"capture sim:8101 --size 640", kUsage, "640x480"},
        {"capture sim:8101 --size 640x480x2", kUsage, "640x480x2"},
        {"capture sim:8101 --size 0x480", kUsage, "0x480"},
        {"capture sim:8101 --fps 0", kUsage, "--fps"},
        {"capture sim:8101 --frames 0", kUsage, "--frames"},
        {"capture sim:8101 --frames -1", kUsage, "--frames"},
        {"capture sim:8101 --output frame.jpg", kUsage, ".png"},
        {"capture sim:8101 --output frame-%s.png", kUsage, "%d"},
        {"capture sim:8101 --output %d-%d.png", kUsage, "%d"},
        {"capture sim:8101 --output frame-%010d.png", kUsage, "up to 9"},
        {"capture sim:8101 --output frame-%04", kUsage, "%d"},
        {"capture sim:8101 --output - --json", kUsage, "stdout"},
        {"capture sim:8101 --fault melt", kUsage, "melt"},
        {"capture sim:8101 --fault usb:0=gone", kUsage, "usb:0"},
        {"capture sim:8101 --fault usb:3=melt", kUsage, "usb:3"},
        {"capture sim:9999", kNoSuchCamera, "sim:9999"},
        {"formats usb:1", kNoSuchCamera, "usb:1"},
        {"capture sim:8101,header=3", kUsage, "header"},
        {"controls sim:8202,foo=3", kUsage, "foo"},
        {"controls file:none.bin,none.bin,foo=3", kUsage, "foo"},
        {"controls sim:9999,foo=3", kNoSuchCamera, "sim:9999"},
        {"capture file:none.bin,none.bin", kNoSuchCamera, "none.bin"},
        {"capture sim:8101 --scene @none.png", kFailed, "none.png"},
        {"capture sim:8101 --settings @none/registry.json", kFailed, "registry.json"},
        {"capture sim:8101 --settings @broken.json", kFailed, "broken.json: is no JSON from byte 16 on\n"},
        {"capture sim:8101 --settings @list.json", kFailed, "list.json: is JSON, but no registry\n"},
        {"capture sim:8101 --set Exposure", kUsage, "NAME=VALUE"},
        {"capture sim:9999 --set Gian=1", kUsage, "did you mean Gain?"},
        {"capture sim:8101 --settings @.", kFailed, "folder"},
        {"convert --from B1BG --to RGB3 --size 8x8 @image", kUsage, "OUT"},
        {"convert --from RGB3 --to RGB3 --size 8x8 @image -", kUsage, "--from RGB3"},
        {"convert --from B1BG --to UYVY --size 8x8 @image -", kUsage, "--to UYVY"},
        {"convert --from B1BG --to RGB3 --size 7x8 @image -", kUsage, "even"},
        {"convert --from B1BG --to RGB3 --size 2x8 @image -", kUsage, "even"},
        {"convert --from B1BG --to RGB3 --size 8x1 @image -", kUsage, "height"},
        {"convert --from B1BG --to RGB3 --size 99998x99999 @image -", kUsage, "4 GB"},
        {"convert --from B1BG --to RGB3 --size 8x8 --isa avx @image -", kUsage, "sse4.1"},
        {"convert --from B1BG --to RGB3 --size 8x8 --gains 1,2 @image -", kUsage, "--gains"},
        {"convert --from B1BG --to RGB3 --size 8x8 --gains 1,2,3,4 @image -", kUsage, "--gains"},
        {"convert --from B1BG --to RGB3 --size 8x8 --gains 1,2,x @image -", kUsage, "--gains"},
        {"convert --from B1BG --to RGB3 --size 8x8 --matrix 1,2,3,4,5,6,7,8 @image -", kUsage, "--matrix"},
        {"convert --from B1BG --to RGB3 --size 8x8 --matrix 1,2,3,4,5,6,7,8,32768 @image -", kUsage, "--matrix"},
        {"convert --from B1BG --to RGB3 --size 8x10 @image -", kFailed, "64 bytes"},
        {"convert --from B1BG --to RGB3 --size 8x6 @image -", kFailed, "48"},
        {"convert --from B1BG --to RGB3 --size 8x8 @none -", kFailed, "none"},
        {"convert --from B1BG --to RGB3 --size 8x8 @image @none/out", kFailed, "none/out"},
    };
    WriteFile(PathOf("image"), std::string(64, 'x'));
    WriteFile(PathOf("broken.json"), "{\"\\\\Registry\": ");
    WriteFile(PathOf("list.json"), "[1]");
    for (const Case &c : cases)
        Check(c, false);
}

TEST_F(CommandLineTest, WhatACameraRefuses) {
    const Case cases[] = {
        {"capture sim:8101 --format NV12", kNotOffered, "NV12"},
        {"capture sim:8101 --format RGB3", kNotOffered, "RGB3"},
        {"capture sim:8101 --size 642x480", kNotOffered, "642x480"},
        {"capture sim:8101 --format BY8 --size 1280x720", kNotOffered, "1280x720"},
        {"capture sim:8101 --fps 500", kNotOffered, "frame rate"},
        {"capture sim:8101 --fps 0.5", kNotOffered, "frame rate"},
        {"capture sim:generic,speed=full", kFailed, "does not start"},
        {"capture sim:8101 --free-run --output @none/a.png", kFailed, "none/a.png"},
        {"capture sim:8101 --free-run --output @none/a.raw", kFailed, "none/a.raw"},
        {"capture sim:8101 --free-run --format Y800 --output @none/%d.pgm", kFailed, "none/1.pgm"},
    };
    for (const Case &c : cases)
        Check(c, true);
}

TEST_F(CommandLineTest, CamerasThatDie) {
    const Case cases[] = {
        {"capture sim:8101 --free-run --frames 500 --fault usb:1=gone", kDeviceLost, "gone"}, // at the start
        {"capture sim:8101 --free-run --frames 500 --fault usb:12=gone", kDeviceLost, "gone"},
        {"capture sim:8101 --free-run --frames 500 --fault usb:60=gone", kDeviceLost, "gone"}, // while frames come
        {"capture sim:8201 --free-run --frames 500 --fault usb:90=gone", kDeviceLost, "gone"},
        {"capture sim:8202 --free-run --frames 500 --fault usb:90=gone", kDeviceLost, "gone"},
        {"capture sim:8201 --free-run --frames 500 --fault usb:60+=hang", kTimedOut, "no frame"},
    };
    for (const Case &c : cases)
        Check(c, true);
}

// Whatever fails, the program ends in order: a rule of the runtime that is broken would end it with a signal.
TEST_F(CommandLineTest, FaultsOfEveryKind) {
    const char *const kFaults[] = {"pool:%d",   "irp:%d",       "mdl:%d",       "workitem:%d",
                                   "thread:%d", "usb:%d=short", "usb:%d=babble"};
    constexpr std::pair<const char *, int> kCameras[] = {{"sim:8101", 1}, {"sim:8202", 7}};
    for (const auto &[camera, first] : kCameras) {
        for (const std::string fault : kFaults) {
            for (int n = first; n < 60; n += 13) {
                std::string plan = fault;
                plan.replace(plan.find("%d"), 2, std::to_string(n));
                const Outcome outcome =
                    Run(std::string("capture ") + camera + " --free-run --frames 3 --fault " + plan);
                EXPECT_TRUE(outcome.code == kDone || outcome.code == kFailed) << camera << " " << plan << "\n"
                                                                              << outcome.err;
            }
        }
    }
}

} // namespace
} // namespace uvcam_test
