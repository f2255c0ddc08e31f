#include "tests/apps/uvcam.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <sstream>

namespace uvcam_test {
namespace {

using nlohmann::json;

enum Code { kDone, kFailed, kUsage, kNoSuchCamera, kPermission, kBusy, kNotOffered };

const char *const kCameras[] = {"sim:generic", "sim:8101", "sim:8102", "sim:8201", "sim:8202",
                                "sim:8203",    "sim:8204", "sim:8205", "sim:8206", "sim:8207"};

class ControlsTest : public UvcamTest {
  protected:
    std::map<std::string, json> Controls(const std::string &camera) {
        const Outcome outcome = Run("controls " + camera + " --json");
        EXPECT_EQ(outcome.code, kDone) << outcome.err;
        std::map<std::string, json> controls;
        for (const json &control : json::parse(outcome.out))
            controls[control.at("name")] = control;
        return controls;
    }
    std::string Get(const std::string &words) {
        const Outcome outcome = Run("get " + words);
        EXPECT_EQ(outcome.code, kDone) << outcome.err;
        return outcome.out;
    }
    double Mean(const std::string &line) {
        const Outcome outcome = Run("capture " + line + " --free-run --frames 4 --output -");
        EXPECT_EQ(outcome.code, kDone) << outcome.err;
        // The last frame: a sensor shows a new exposure with some delay.
        const std::string_view last = std::string_view(outcome.out).substr(outcome.out.size() / 4 * 3);
        const double sum = std::accumulate(last.begin(), last.end(), 0.0,
                                           [](double so, char level) { return so + static_cast<std::uint8_t>(level); });
        return last.empty() ? 0 : sum / static_cast<double>(last.size());
    }
};

TEST_F(ControlsTest, EveryControlOfEveryCamera) {
    const std::set<std::string> keys{"name", "set",     "id",   "value",    "minimum", "maximum",
                                     "step", "default", "auto", "readonly", "unit"};
    const std::map<std::string, unsigned> largestId{{"PROPSETID_VIDCAP_VIDEOPROCAMP", 13},
                                                    {"PROPSETID_VIDCAP_CAMERACONTROL", 16},
                                                    {"PROPSETID_PRIVATE_IMAGE", 229},
                                                    {"PROPSETID_PRIVATE_COLORMATRIX", 32}};
    for (const std::string camera : kCameras) {
        SCOPED_TRACE(camera);
        const Outcome listing = Run("controls " + camera + " --json");
        ASSERT_EQ(listing.code, kDone) << listing.err;
        const json controls = json::parse(listing.out);
        const std::string text = Run("controls " + camera).out;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<long>(controls.size()) + 1);
        std::set<std::string> names;
        std::set<std::pair<std::string, unsigned>> ids;
        for (const json &control : controls) {
            SCOPED_TRACE(control.dump());
            std::set<std::string> found;
            for (const auto &[key, value] : control.items())
                found.insert(key);
            EXPECT_EQ(found, keys);
            EXPECT_TRUE(names.insert(control["name"]).second);
            EXPECT_TRUE(ids.emplace(control["set"].get<std::string>(), control["id"].get<unsigned>()).second ||
                        control["name"] == "GeneralRegister2");
            EXPECT_LE(control["id"], largestId.at(control["set"]));
            EXPECT_NE(text.find("\n" + control["name"].get<std::string>() + " "), std::string::npos);
            const std::string name = control["name"];
            const bool isDrivers = control["set"] == "PROPSETID_PRIVATE_COLORMATRIX" || name == "WhiteBalance Green" ||
                                   name == "GreenSmoothing" || name == "WhiteBalanceGainsEnable";
            EXPECT_EQ(control["readonly"], isDrivers ? json(false) : json());
            ASSERT_EQ(control["minimum"].is_null(), control["maximum"].is_null());
            if (!control["minimum"].is_null() && !control["value"].is_null()) {
                EXPECT_LE(control["minimum"], control["maximum"]);
                EXPECT_GE(control["value"], control["minimum"]);
                EXPECT_LE(control["value"], control["maximum"]);
            }
        }
        for (const char *name : {"Exposure", "Gain"})
            EXPECT_TRUE(names.contains(name)) << name;
    }
}

TEST_F(ControlsTest, RangesModesAndUnits) {
    const std::map<std::string, json> controls = Controls("sim:generic");
    const json hue = controls.at("Hue");
    EXPECT_EQ(hue["set"], "PROPSETID_VIDCAP_VIDEOPROCAMP");
    EXPECT_EQ(hue["id"], 2);
    EXPECT_EQ(hue["minimum"], -2000) << "a 16-bit control with a sign";
    EXPECT_EQ(hue["maximum"], 2000);
    EXPECT_EQ(hue["default"], 0);
    EXPECT_EQ(hue["auto"], false);
    EXPECT_EQ(hue["unit"], "0.01 degree");
    const json exposure = controls.at("Exposure");
    EXPECT_EQ(exposure["set"], "PROPSETID_PRIVATE_IMAGE");
    EXPECT_EQ(exposure["id"], 109);
    EXPECT_EQ(exposure["value"], 333);
    EXPECT_EQ(exposure["unit"], "100 us");
    EXPECT_TRUE(exposure["step"].is_null()) << "nobody tells it";
    EXPECT_EQ(controls.at("ExposureLog2")["step"], 1);
    EXPECT_NE(Run("controls sim:generic").out.find("range                      step  default"), std::string::npos);
    EXPECT_TRUE(controls.at("Gain")["unit"].is_null());
    EXPECT_EQ(controls.at("ExposureLog2")["set"], "PROPSETID_VIDCAP_CAMERACONTROL");
    EXPECT_FALSE(controls.contains("Pan"));
    EXPECT_FALSE(controls.contains("ColorMatrixEnable"));

    EXPECT_EQ(Run("set sim:generic Hue=auto").out, "Hue=0 auto\n");
    EXPECT_EQ(Controls("sim:generic").at("Hue")["auto"], true);
    EXPECT_NE(Run("controls sim:generic").out.find("inactive while its automatic is on"), std::string::npos);
    EXPECT_EQ(Run("set sim:generic hue=manual").out, "Hue=0\n");
}

TEST_F(ControlsTest, WhatIsSetIsFoundAgain) {
    const Outcome set = Run("set sim:8101 exposure=777 GAIN=0x63 whitebalancered=300");
    EXPECT_EQ(set.code, kDone) << set.err;
    EXPECT_EQ(set.out, "Exposure=777\nGain=99\nWhiteBalance Red=300\n");
    EXPECT_EQ(Get("sim:8101 Gain Exposure white_balance_red"), "Gain=99\nExposure=777\nWhiteBalance Red=300\n");
    EXPECT_EQ(Get("sim:8102 Exposure"), "Exposure=333\n") << "another camera";
    EXPECT_EQ(Get("sim:8101 Exposure --settings @other.json"), "Exposure=333\n") << "another file";
    const json file = json::parse(ReadFile(PathOf("state/uvcam/settings.json")));
    EXPECT_NE(file.dump().find(R"("Exposure Auto")"), std::string::npos);

    SetEnvironment({"HOME=" + PathOf("home")});
    EXPECT_EQ(Run("set sim:8101 Exposure=778").code, kDone);
    EXPECT_TRUE(std::filesystem::exists(PathOf("home/.local/state/uvcam/settings.json")));
    EXPECT_EQ(Get("sim:8101 Exposure"), "Exposure=778\n");
    SetEnvironment({});
    EXPECT_EQ(Run("set sim:8101 Exposure=779").code, kDone);
    EXPECT_EQ(Get("sim:8101 Exposure"), "Exposure=333\n") << "there is nowhere to keep it";
    SetEnvironment({"XDG_STATE_HOME=" + PathOf("stdin")}); // no folder
    const Outcome nowhere = Run("get sim:8101 Exposure");
    EXPECT_EQ(nowhere.code, kDone) << nowhere.err;
    EXPECT_NE(nowhere.err.find("settings are not kept"), std::string::npos) << nowhere.err;
}

TEST_F(ControlsTest, AnErrorLeavesEverythingBehindItAlone) {
    struct Case {
        const char *line;
        Code code;
        const char *says;
    };
    const Case cases[] = {
        {"set sim:generic Gain=99 Exposure=20001", kUsage, "1 to 20000"},
        {"set sim:generic Gain=99 Exposure=0", kUsage, "1 to 20000"},
        {"set sim:generic Gain=99 Hue=-2001", kUsage, "-2000 to 2000"},
        {"set sim:generic Gain=99 Exposur=5", kUsage, "did you mean Exposure?"},
        {"set sim:generic Gain=99 White_Balance_Redd=5", kUsage, "did you mean WhiteBalance Red?"},
        {"set sim:generic Gain=99 Contrast", kUsage, "NAME=VALUE"},
        {"set sim:generic Gain=99 Contrast=", kUsage, "whole number"},
        {"set sim:generic Gain=99 Contrast=5x", kUsage, "whole number"},
        {"set sim:generic Gain=99 Contrast=99999999999", kUsage, "whole number"},
        {"set sim:8101 GeneralRegister=0x80000000", kUsage, "whole number"},
        {"set sim:8101 GeneralRegister=0x-1", kUsage, "whole number"},
        {"set sim:generic Gain=99 ColorMatrixEnable=perhaps", kUsage, "on or off"},
        {"set sim:generic Gain=99 ExternalTrigger=2", kUsage, "on or off"},
        {"set sim:generic Gain=99 Pan=1", kNotOffered, "Pan"},
        {"set sim:generic Gain=99 Contrast=auto", kNotOffered, "automatic"},
        {"set sim:generic", kUsage, "assignments"},
        {"get sim:generic", kUsage, "names"},
        {"get sim:generic Gain Zooom", kUsage, "did you mean Zoom?"},
        {"get sim:generic Gain xyzzyplugh", kUsage, "xyzzyplugh"},
        {"get sim:generic Gain Binning", kNotOffered, "Binning"},
        {"get sim:9999 Gain", kNoSuchCamera, "sim:9999"},
        {"set sim:9999 Gian=1", kUsage, "did you mean Gain?"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        const Outcome outcome = Run(c.line);
        EXPECT_EQ(outcome.code, c.code);
        EXPECT_EQ(outcome.out, "") << "nothing is half done";
        EXPECT_NE(outcome.err.find(c.says), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(Get("sim:generic Gain"), "Gain=32\n");

    // What only the camera refuses: its iris can be seen, but not turned.
    const Outcome outcome = Run("set sim:generic Gain=99 Iris=30 Contrast=50");
    EXPECT_EQ(outcome.code, kFailed);
    EXPECT_EQ(outcome.out, "Gain=99\n");
    EXPECT_NE(outcome.err.find("Iris"), std::string::npos) << outcome.err;
    EXPECT_EQ(Get("sim:generic Gain Contrast Iris"), "Gain=99\nContrast=32\nIris=28\n");
}

TEST_F(ControlsTest, AFolderThatNobodyMayWriteIsAMatterOfPermission) {
    // The kernel refuses even root.
    const Outcome outcome = Run("get sim:generic Gain --settings /proc/sys/kernel/settings.json");
    EXPECT_EQ(outcome.code, kPermission) << outcome.err;
}

TEST_F(ControlsTest, ALongerExposureMakesABrighterPicture) {
    for (const std::string camera : {"sim:8101", "sim:8202"}) {
        SCOPED_TRACE(camera);
        const std::string line = camera + " --format Y800 --size 320x240";
        EXPECT_EQ(Run("set " + camera + " Exposure=50 Gain=manual").code, kDone);
        const double dark = Mean(line);
        EXPECT_EQ(Run("set " + camera + " Exposure=150").code, kDone);
        const double bright = Mean(line);
        EXPECT_GT(dark, 5);
        EXPECT_NEAR(bright / dark, 3, 0.1);
    }
}

TEST_F(ControlsTest, TellsWhatIsNotAsAskedAndWhatIsNotKept) {
    const Outcome outcome = Run("set sim:8205 Binning=2 Exposure=500 GreenSmoothing=on");
    EXPECT_EQ(outcome.code, kDone);
    EXPECT_EQ(outcome.out, "Binning=1\nExposure=500\nGreenSmoothing=on\n");
    EXPECT_NE(outcome.err.find("uvcam: Binning is 1, not 2\n"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("uvcam: Binning is not kept"), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.err.find("Exposure"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("uvcam: GreenSmoothing is not kept"), std::string::npos) << outcome.err;
    EXPECT_EQ(Get("sim:8205 Binning Exposure GreenSmoothing"), "Binning=1\nExposure=500\nGreenSmoothing=off\n");
}

// The driver's own automatics and colours.
TEST_F(ControlsTest, ColourCamerasOfFamilyC) {
    std::map<std::string, json> controls = Controls("sim:8201");
    EXPECT_TRUE(controls.at("WhiteBalance")["value"].is_null()) << "there is no temperature";
    EXPECT_EQ(controls.at("WhiteBalance")["auto"], true);
    EXPECT_EQ(controls.at("Exposure")["auto"], true);
    EXPECT_EQ(controls.at("ColorMatrix_R_R")["set"], "PROPSETID_PRIVATE_COLORMATRIX");
    EXPECT_EQ(controls.at("ColorMatrix_R_R")["value"], 90);
    EXPECT_FALSE(controls.contains("FocusOnePush")) << "it has no motor";
    EXPECT_TRUE(Controls("sim:8205").contains("FocusOnePush"));
    EXPECT_FALSE(Controls("sim:8202").contains("ColorMatrixEnable")) << "it has no colours";
    EXPECT_EQ(Run("set sim:8201 WhiteBalance=5000").code, kNotOffered);
    EXPECT_EQ(Run("set sim:8201 Exposure=400 Gain=manual").out, "Exposure=400\nGain=64\n");
    EXPECT_EQ(Run("set sim:8201 Exposure=auto").out, "Exposure=400 auto\n");

    const std::string text = Run("controls sim:8201").out;
    for (const char *note : {"inactive while its automatic is on", "inactive while WhiteBalance is automatic",
                             "inactive while ExternalTrigger is off"})
        EXPECT_NE(text.find(note), std::string::npos) << note;
    const Outcome set = Run("set sim:8201 WhiteBalance=manual WhiteBalanceRed=100 WhiteBalanceBlue=90 "
                            "WhiteBalanceGreen=80 ColorMatrixEnable=off AutoExposureMaxValueAuto=off "
                            "AutoExposureMaxValue=500");
    EXPECT_EQ(set.code, kDone) << set.err;
    EXPECT_EQ(set.out, "WhiteBalance=manual\nWhiteBalance Red=100\nWhiteBalance Blue=90\nWhiteBalance Green=80\n"
                       "ColorMatrixEnable=off\nAutoExposureMaxValueAuto=off\nAutoExposureMaxValue=500\n");
    EXPECT_EQ(Get("sim:8201 WhiteBalanceRed WhiteBalanceBlue ColorMatrixEnable"),
              "WhiteBalance Red=100\nWhiteBalance Blue=90\nColorMatrixEnable=off\n");
    EXPECT_NE(Run("controls sim:8201").out.find("inactive while ColorMatrixEnable is off"), std::string::npos);
}

TEST_F(ControlsTest, SwitchesTriggersAndRegisters) {
    const Outcome set = Run("set sim:8101 ExternalTrigger=on GeneralRegister2=0x7FFFFFFE GeneralRegister1=5 "
                            "GeneralRegister=6 WhiteBalanceOnePush=on AutoExposureMaxValueAuto=off");
    EXPECT_EQ(set.code, kDone) << set.err;
    EXPECT_EQ(set.out, "ExternalTrigger=on\nGeneralRegister2=2147483646\nGeneralRegister1=5\nGeneralRegister=6\n"
                       "WhiteBalanceOnePush=?\nAutoExposureMaxValueAuto=off\n");
    const Outcome again =
        Run("set sim:8101 GeneralRegister2=3 ExternalTrigger=on ExternalTrigger=off SoftwareTrigger=on");
    EXPECT_EQ(again.code, kDone) << again.err;
    EXPECT_EQ(again.out.substr(0, again.out.find("Soft")),
              "GeneralRegister2=3\nExternalTrigger=on\nExternalTrigger=off\n");
    EXPECT_EQ(Controls("sim:8101").at("AutoExposureMaxValueAuto")["value"], 0) << "is kept";
    EXPECT_EQ(Get("sim:8101 ExternalTrigger"), "ExternalTrigger=off\n") << "is not kept";
    EXPECT_EQ(Run("get sim:8101 WhiteBalanceOnePush").code, kNotOffered) << "cannot be read";
    EXPECT_EQ(Run("set sim:8101 Exposure=auto Gain=auto").out, "Exposure=333 auto\nGain=64 auto\n");
    EXPECT_EQ(Controls("sim:8101").at("ExposureLog2")["auto"], true);
}

// Whatever one process saves, another one's settings stay.
TEST_F(ControlsTest, ManyProcessesShareTheFile) {
    std::vector<Process> processes;
    for (const std::string camera : {"sim:generic", "sim:8101", "sim:8102"}) {
        processes.push_back(Start("set " + camera + " Exposure=1000"));
        processes.push_back(Start("set " + camera + " Gain=100"));
    }
    for (const Process &process : processes) {
        const Outcome outcome = Wait(process);
        EXPECT_EQ(outcome.code, kDone) << outcome.err;
    }
    for (const std::string camera : {"sim:generic", "sim:8101", "sim:8102"})
        EXPECT_EQ(Get(camera + " Exposure Gain"), "Exposure=1000\nGain=100\n") << camera;
}

TEST_F(ControlsTest, Information) {
    const Outcome outcome = Run("info sim:8101 --json");
    ASSERT_EQ(outcome.code, kDone) << outcome.err;
    const json info = json::parse(outcome.out);
    EXPECT_EQ(info["vendorId"], 0xF055);
    EXPECT_EQ(info["productId"], 0x8101);
    EXPECT_EQ(info["product"], "Model 8101 Colour");
    EXPECT_EQ(info["serial"], "81010001");
    EXPECT_EQ(info["serialNumber"], 0x81010001);
    EXPECT_TRUE(info["firmware"].is_number());
    EXPECT_EQ(info["driverVersion"], "2.1.5.616");
    EXPECT_EQ(info["driverBuild"], "fre");
    std::map<unsigned, json> parameters;
    for (const json &parameter : info["parameters"])
        parameters[parameter["id"]] = parameter;
    EXPECT_EQ(parameters.at(10)["name"], "TransferCount");
    EXPECT_EQ(parameters.at(10)["value"], 6);
    EXPECT_EQ(parameters.at(4)["value"], info["firmware"]);
    EXPECT_TRUE(parameters.at(24)["value"].is_null()) << "it can only be set";
    EXPECT_FALSE(parameters.contains(27)) << "it has no registers";
    EXPECT_TRUE(json::parse(Run("info sim:generic --json").out)["firmware"].is_null());
    const Outcome text = Run("info sim:8101");
    EXPECT_NE(text.out.find("ver=2.1.5.616 build (fre)"), std::string::npos) << text.out;
}

TEST_F(ControlsTest, MonitorTellsOneLineAFrame) {
    const Outcome outcome =
        Run("monitor sim:8101 --size 320x240 --free-run --frames 6 --json --set Exposure=40 --set Gain=128");
    ASSERT_EQ(outcome.code, kDone) << outcome.err;
    std::istringstream lines(outcome.out);
    std::string line;
    unsigned count = 0;
    for (long long previous = 0; std::getline(lines, line);) {
        const json frame = json::parse(line);
        EXPECT_GT(frame.at("frame"), previous);
        previous = frame["frame"];
        EXPECT_EQ(frame.at("delivered"), ++count);
        EXPECT_GE(frame.at("mean"), 1);
        EXPECT_LE(frame["mean"], 255);
        EXPECT_EQ(frame.at("exposure"), 40);
        EXPECT_EQ(frame.at("gain"), 128);
        EXPECT_EQ(frame.at("wb"), json::parse("[256, null, 256]")) << "a camera without a gain for green";
        EXPECT_TRUE(frame.at("focus").is_null());
        EXPECT_GT(frame.at("score"), 0);
        EXPECT_EQ(frame.at("dropped"), 0);
    }
    EXPECT_EQ(count, 6u);
    const Outcome balance = Run(
        "monitor sim:8201,kelvin=3000 --size 320x240 --free-run --frames 60 --json --set AutoExposureMaxValueAuto=on");
    const json settled = json::parse(balance.out.substr(balance.out.rfind('\n', balance.out.size() - 2) + 1));
    EXPECT_EQ(settled["wb"][0], 64) << "there is plenty of red";
    EXPECT_GT(settled["wb"][2], settled["wb"][1]);
    EXPECT_NEAR(settled["mean"].get<int>(), 128, 10) << settled;
    EXPECT_EQ(Run("monitor sim:8101 --frames 1 --set Gian=1").code, kUsage);
    const Outcome white = Run("monitor sim:8201,light=100,scene=flat --size 320x240 --free-run --frames 1 --json --set "
                              "Exposure=manual Gain=manual");
    EXPECT_EQ(json::parse(white.out)["mean"], 255) << white.err;
    const Outcome text = Run("monitor sim:8202 --size 320x240 --free-run --frames 2");
    EXPECT_EQ(std::count(text.out.begin(), text.out.end(), '\n'), 2) << text.out << text.err;
}

} // namespace
} // namespace uvcam_test
