// One day in the life of every model: plugged in, captured from in every format, set, left to its automatics, stopped,
// pulled out and plugged in again.
#include "camera/control.h"
#include "camera/control_id.h"
#include "host/client/control.h"
#include "tests/driver/capture_rig.h"

#include <algorithm>
#include <cstdlib>
#include <map>

namespace uvc::driver_test {

namespace {

using host::client::ControlId;
using host::client::ControlRange;
using host::client::ControlSetting;

constexpr ControlId kExposure{PROPSETID_PRIVATE_IMAGE, kCameraExposureId};
constexpr ControlId kGain{host::client::kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_GAIN};
constexpr ControlId kLimitFollows{PROPSETID_PRIVATE_IMAGE, kExposureLimitFollowsCameraId};
constexpr ControlId kWhiteBalance{host::client::kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE};
constexpr ControlId kBlue{PROPSETID_PRIVATE_IMAGE, kWhiteBalanceBlueId};
constexpr ControlId kFocus{host::client::kCameraControlSet, KSPROPERTY_CAMERACONTROL_FOCUS};
constexpr ControlId kOnePushFocus{PROPSETID_PRIVATE_IMAGE, kAutofocusId};

class EveryModelEndToEnd : public testing::TestWithParam<std::string> {
  protected:
    EveryModelEndToEnd() : rig_(GetParam()) { EXPECT_EQ(rig_.started, STATUS_SUCCESS); }

    const host::cameras::Model &Model() const { return rig_.camera->model(); }
    bool IsFamilyC() const { return Model().family == host::cameras::Family::C; }

    LONG Get(const ControlId &control) {
        ControlSetting setting;
        EXPECT_EQ(host::client::GetControl(rig_.app.filter, control, setting), STATUS_SUCCESS);
        return setting.value;
    }
    void Set(const ControlId &control, LONG value, ULONG flags = kControlManual) {
        EXPECT_EQ(host::client::SetControl(rig_.app.filter, control, {.value = value, .flags = flags}), STATUS_SUCCESS);
    }
    bool Has(const ControlId &control) {
        ControlRange range;
        EXPECT_EQ(host::client::GetControlRange(rig_.app.filter, control, range), STATUS_SUCCESS);
        return range.access != 0;
    }

    // The smallest frame of each output format.
    std::vector<KS_DATARANGE_VIDEO> SmallestOfEach() {
        std::map<std::pair<ULONG, int>, KS_DATARANGE_VIDEO> smallest;
        for (const KS_DATARANGE_VIDEO &range : rig_.app.Ranges()) {
            const KS_BITMAPINFOHEADER &bitmap = range.VideoInfoHeader.bmiHeader;
            auto [entry, isNew] = smallest.try_emplace({bitmap.biCompression, bitmap.biBitCount}, range);
            if (!isNew && bitmap.biWidth < entry->second.VideoInfoHeader.bmiHeader.biWidth)
                entry->second = range;
        }
        std::vector<KS_DATARANGE_VIDEO> ranges;
        for (const auto &[format, range] : smallest)
            ranges.push_back(range);
        return ranges;
    }

    // Captures `count` frames, the last of which must show something.
    void Capture(const KS_DATARANGE_VIDEO &range, unsigned count) {
        ASSERT_EQ(rig_.app.OpenPin(range), STATUS_SUCCESS);
        ASSERT_EQ(rig_.app.Run(), STATUS_SUCCESS);
        for (unsigned i = 0; i < count; ++i) {
            host::client::Frame *frame = rig_.app.Next();
            ASSERT_TRUE(frame) << "no frame after " << i;
            ASSERT_EQ(frame->Status(), STATUS_SUCCESS);
            if (i + 1 == count) {
                const auto [darkest, brightest] = std::ranges::minmax_element(frame->Data());
                EXPECT_GE(*brightest - *darkest, 32);
            }
            rig_.app.Return(*frame, *rig_.camera);
        }
        rig_.app.pin.Close();
        rig_.app.frames.clear();
    }

    Rig rig_;
};

TEST_P(EveryModelEndToEnd, CapturesSetsAdjustsStopsAndComesBack) {
    const std::vector<KS_DATARANGE_VIDEO> outputs = SmallestOfEach();
    ASSERT_FALSE(outputs.empty());
    for (const KS_DATARANGE_VIDEO &range : outputs)
        ASSERT_NO_FATAL_FAILURE(Capture(range, 2));

    // Left to itself in the dusk, under a lamp.
    rig_.camera->SetSurroundings({.light = 0.5, .kelvin = 3200});
    const KS_DATARANGE_VIDEO &output = outputs.front();
    if (IsFamilyC()) {
        Set(kLimitFollows, 1);
        const LONG before = Get(kExposure);
        ASSERT_NO_FATAL_FAILURE(Capture(output, 40));
        EXPECT_GT(Get(kExposure), before);
    }
    if (Model().colour && (IsFamilyC() || Model().family == host::cameras::Family::B)) {
        // Raw images are not balanced: the first output whose pixels have colours is.
        const auto colours = std::ranges::find_if(outputs, [](const KS_DATARANGE_VIDEO &range) {
            return range.VideoInfoHeader.bmiHeader.biCompression == KS_BI_RGB;
        });
        ASSERT_NE(colours, outputs.end());
        Set(kWhiteBalance, 0, kControlAutomatic);
        ASSERT_NO_FATAL_FAILURE(Capture(*colours, 40));
        EXPECT_GT(Get(kBlue), 64);
    }
    if (Model().motorisedFocus) {
        const LONG before = Get(kFocus);
        Set(kOnePushFocus, 1);
        ASSERT_NO_FATAL_FAILURE(Capture(output, 8));
        EXPECT_NE(Get(kFocus), before);
    }

    // Set by hand, and pulled out in the middle of a stream. By daylight: a picture as dark as it is now could begin
    // the second piece of a large payload with a pixel that looks like a payload header.
    rig_.camera->SetSurroundings({});
    Set(kExposure, 200);
    const bool hasGain = Has(kGain);
    if (hasGain)
        Set(kGain, 100);
    EXPECT_EQ(Get(kExposure), 200);
    ASSERT_EQ(rig_.app.OpenPin(output), STATUS_SUCCESS);
    ASSERT_EQ(rig_.app.Run(), STATUS_SUCCESS);
    ASSERT_TRUE(rig_.app.Next());
    rig_.computer.Unplug();
    rig_.app.pin.Close();
    rig_.app.frames.clear();
    rig_.app.filter.Close();

    ASSERT_EQ(rig_.computer.PlugIn(rig_.camera), STATUS_SUCCESS);
    ASSERT_EQ(rig_.app.OpenFilter(), STATUS_SUCCESS);
    EXPECT_EQ(Get(kExposure), 200);
    if (hasGain)
        EXPECT_EQ(Get(kGain), 100);
    ASSERT_NO_FATAL_FAILURE(Capture(output, 3));
}

INSTANTIATE_TEST_SUITE_P(Capture, EveryModelEndToEnd, testing::ValuesIn(ModelNames()),
                         [](const auto &info) { return info.param.substr(info.param.find(':') + 1); });

} // namespace

} // namespace uvc::driver_test
