// Two threads make property requests while a third streams: no frame is lost, and every control ends as it was set
// last.
#include "host/client/control.h"
#include "tests/driver/capture_rig.h"
#include "tests/driver/property_oracle.h"

#include <algorithm>

namespace uvc::driver_test {

namespace {

constexpr int kFrames = 60;
constexpr int kRounds = 40;
constexpr unsigned kParameterSet = 7; // as FilterItems counts them

struct Control {
    unsigned set; // as FilterItems counts them
    ULONG id;
    LONG values[2]; // set in turn, the last one last
};

// The two threads share no control, so each knows what it set last.
struct ThreadsCase {
    const char *name;
    const char *camera;
    std::vector<Control> controls[2];
};
void PrintTo(const ThreadsCase &test, std::ostream *out) {
    *out << test.name;
}

const GUID &SetOf(unsigned number) {
    auto items = FilterItems();
    return *std::find_if(items.begin(), items.end(), [&](const FilterItem &item) {
                return item.number == number;
            })->set;
}

// A thread's requests, all of which must succeed.
class Requests {
  public:
    Requests(host::client::Filter &filter, const std::vector<Control> &controls)
        : filter_(filter), controls_(controls) {}

    void Make() {
        for (int round = 0; round < kRounds; ++round) {
            for (const Control &control : controls_) {
                failures_ += !NT_SUCCESS(Set(control, control.values[round % 2]));
                LONG value = 0;
                failures_ += !NT_SUCCESS(Get(control, value)) || value != control.values[round % 2];
                host::client::PropertyRange range;
                failures_ += !NT_SUCCESS(filter_.BasicSupport(SetOf(control.set), control.id, range));
            }
        }
    }

    void ExpectLastValues() {
        EXPECT_EQ(failures_, 0u);
        for (const Control &control : controls_) {
            LONG value = 0;
            EXPECT_EQ(Get(control, value), STATUS_SUCCESS);
            EXPECT_EQ(value, control.values[(kRounds - 1) % 2]) << "set " << control.set << " id " << control.id;
        }
    }

  private:
    NTSTATUS Set(const Control &control, LONG value) {
        if (control.set == kParameterSet)
            return filter_.Property(SetOf(control.set), control.id, KSPROPERTY_TYPE_SET, {}, BytesOf(value));
        return host::client::SetControl(filter_, {SetOf(control.set), control.id},
                                        {.value = value, .flags = UVC_CONTROL_MANUAL});
    }

    NTSTATUS Get(const Control &control, LONG &value) {
        if (control.set == kParameterSet)
            return filter_.Property(SetOf(control.set), control.id, KSPROPERTY_TYPE_GET, {}, BytesOf(value));
        host::client::ControlSetting setting;
        const NTSTATUS status = host::client::GetControl(filter_, {SetOf(control.set), control.id}, setting);
        value = setting.value;
        return status;
    }

    host::client::Filter &filter_;
    const std::vector<Control> &controls_;
    unsigned failures_ = 0;
};

class ControlThreads : public testing::TestWithParam<ThreadsCase> {};

TEST_P(ControlThreads, LoseNoFrame) {
    Rig rig(GetParam().camera);
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    Application &app = rig.app;
    const auto range = FindRange(app.Ranges(), FourCc("Y800"), 320);
    ASSERT_TRUE(range);
    ASSERT_EQ(app.OpenPin(*range), STATUS_SUCCESS);
    ASSERT_EQ(app.Run(), STATUS_SUCCESS);

    std::vector<std::u16string> links;
    ASSERT_EQ(host::client::FindCaptureFilters(links), STATUS_SUCCESS);
    // One thread through the stream's filter, one through a filter of its own.
    host::client::Filter other;
    ASSERT_EQ(other.Open(links.front()), STATUS_SUCCESS);
    Requests first(app.filter, GetParam().controls[0]), second(other, GetParam().controls[1]);
    {
        host::AttachedThread threads[] = {{"first client", [&] { first.Make(); }},
                                          {"second client", [&] { second.Make(); }}};
        for (int i = 1; i <= kFrames; ++i) {
            host::client::Frame *frame = app.Next();
            ASSERT_TRUE(frame) << "no frame " << i;
            ASSERT_EQ(frame->Status(), STATUS_SUCCESS);
            EXPECT_EQ(frame->Info().PictureNumber, i);
            EXPECT_EQ(frame->Info().DropCount, 0);
            app.Return(*frame, *rig.camera);
        }
        for (host::AttachedThread &thread : threads)
            thread.Join();
    }
    first.ExpectLastValues();
    second.ExpectLastValues();
    EXPECT_EQ(rig.camera->Counters().framesAbandoned, 0u);
    other.Close();
}

INSTANTIATE_TEST_SUITE_P(
    Capture, ControlThreads,
    testing::Values(
        ThreadsCase{"Generic",
                    "sim:generic",
                    {{{3, KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS, {-3, 40}},
                      {3, KSPROPERTY_VIDEOPROCAMP_GAIN, {10, 200}},
                      {5, 101, {100, 300}},
                      {7, 12, {1000, 2000}},
                      {7, 18, {1, 0}}},
                     {{3, KSPROPERTY_VIDEOPROCAMP_HUE, {-100, 1000}},
                      {4, KSPROPERTY_CAMERACONTROL_ZOOM, {150, 350}},
                      {5, 109, {20, 400}},
                      {7, 1, {1, 0}},
                      {7, 26, {3, 5}}}}},
        ThreadsCase{"FamilyC",
                    "sim:8201,payload=32768",
                    {{{3, KSPROPERTY_VIDEOPROCAMP_GAIN, {100, 200}}, {7, 1, {1, 0}}, {7, 14, {1, 2}}, {7, 18, {1, 0}}},
                     {{5, 109, {20, 400}},
                      {5, 214, {7, 8}},
                      {5, 212, {0, 1}},
                      {9, 10, {2, 4}},
                      {9, 12, {1, 3}},
                      {7, 17, {0, 1}},
                      {7, 26, {6, 5}}}}}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace

} // namespace uvc::driver_test
