#include "camera/focus_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <thread>
#include <vector>

using namespace uvc;

namespace {

constexpr ULONGLONG kMs = 10000;
constexpr LONG kSharpest = 1600; // half the score of a tile in focus

// A camera with tiles in which a stripe gets fainter as the motor leaves the place where it is sharp. The stripe's
// contrast differs by row so that the score of its tile is exactly twice the sharpness and 2.
class Scene {
  public:
    explicit Scene(ULONG width = 128, ULONG height = 128) : pixels_(width * height) {
        image = {.data = pixels_.data(),
                 .size = width * height,
                 .fourcc = imaging::kFourCcGrey8,
                 .width = width,
                 .height = height,
                 .stride = width};
    }

    void Clear() { std::ranges::fill(pixels_, UCHAR{10}); }

    void Draw(ULONG tile, LONG sharpness) {
        for (ULONG y = 0; y < 128; ++y) {
            for (ULONG x = 56; x < 64; ++x)
                pixels_[y * image.width + tile * 128 + x] += (sharpness + static_cast<LONG>(y) / 17) / 7;
        }
    }

    imaging::ImageDescriptor image;

  private:
    std::vector<UCHAR> pixels_;
};

// A frame each 10 ms until there is a target, for at most `frames`.
std::optional<LONG> NextTarget(FocusSearch &search, Scene &scene, ULONGLONG &now, int frames = 3) {
    LONG target = -1;
    for (int frame = 0; frame < frames; ++frame) {
        now += 10 * kMs;
        if (search.Step(scene.image, now, target))
            return target;
    }
    return std::nullopt;
}

// Where a run leaves a motor that is sharp at `peak`; the frames it takes, one without its end.
struct Result {
    LONG position;
    int frames;
};

Result RunOnce(LONG start, LONG peak) {
    FocusSearch search;
    search.SetMotor({.minimum = 0, .maximum = 1000});
    search.SetPosition(start);
    search.Trigger();
    Scene scene;
    LONG target = 0;
    Result run{};
    while (search.Running() && run.frames < 1000) {
        scene.Clear();
        scene.Draw(0, kSharpest - std::abs(search.Position() - peak));
        if (search.Step(scene.image, 0, target)) {
            EXPECT_EQ(target, search.Position());
        }
        ++run.frames;
    }
    run.position = search.Position();
    return run;
}

} // namespace

TEST(FocusSearch, FindsThePeakOfAFallingScore) {
    for (LONG peak = 0; peak <= 1000; peak += 37) {
        for (const LONG start : {0, 1, 250, 500, 777, 1000}) {
            const Result run = RunOnce(start, peak);
            EXPECT_LE(std::abs(run.position - peak), 5) << "from " << start << " to " << peak;
            EXPECT_LE(run.frames, 67) << "from " << start << " to " << peak;
        }
    }
}

// Equal scores take the later position, so it climbs by a quarter of what is left above.
TEST(FocusSearch, ClimbsOnAFlatSceneAndEnds) {
    FocusSearch search;
    Scene scene;
    search.SetMotor({.minimum = 0, .maximum = 1000});
    search.SetPosition(500);
    search.Trigger();
    ULONGLONG now = 0;
    for (const LONG want :
         {625, 718, 788, 841, 880, 910, 932, 949, 961, 970, 977, 982, 986, 989, 991, 993, 994, 995, 996, 997})
        EXPECT_EQ(NextTarget(search, scene, now), want);
    EXPECT_FALSE(NextTarget(search, scene, now, 100));
    EXPECT_FALSE(search.Running());
    EXPECT_EQ(search.Position(), 997);
    search.Trigger(); // the next run begins where the motor is
    EXPECT_EQ(NextTarget(search, scene, now, 1), 997 - 997 / 4);
}

TEST(FocusSearch, WaitsForTheMotorAndForItsFrames) {
    struct Case {
        FocusMotor motor;
        int frames; // of 10 ms, until the second target
    };
    // The first target is 125 of 1000 positions away.
    for (const auto &[motor, frames] : {Case{{0, 1000, 0, 0}, 3},
                                        {{0, 1000, 800, 50}, 10},
                                        {{0, 1000, 800, 110}, 11},
                                        {{0, 1000, 80, 30}, 3},
                                        {{0, 1000, 0x7FFFFFFF, 0}, 26843546}}) {
        FocusSearch search;
        Scene scene;
        search.SetMotor(motor);
        search.SetPosition(500);
        LONG target = 0;
        EXPECT_FALSE(search.Step(scene.image, 0, target)); // not triggered
        search.Trigger();
        ASSERT_TRUE(search.Step(scene.image, 0, target));
        EXPECT_EQ(target, 625);
        for (int frame = std::max(1, frames - 20); frame < frames; ++frame)
            ASSERT_FALSE(search.Step(scene.image, frame * 10 * kMs, target)) << frame << " of " << frames;
        EXPECT_TRUE(search.Step(scene.image, frames * 10 * kMs, target)) << frames;
    }
}

TEST(FocusSearch, EndsWithoutARangeAndWithoutATile) {
    for (const LONG maximum : {500, 499, 504}) {
        FocusSearch search;
        Scene scene;
        ULONGLONG now = 0;
        search.SetMotor({.minimum = 500, .maximum = maximum, .fullTravelTime = 1000, .minimumSettleTime = 0});
        search.SetPosition(500);
        search.Trigger();
        EXPECT_TRUE(NextTarget(search, scene, now, 1));
        EXPECT_FALSE(NextTarget(search, scene, now, 100));
        EXPECT_FALSE(search.Running());
    }
    FocusSearch search;
    Scene small(127, 128);
    Scene scene;
    ULONGLONG now = 0;
    search.SetMotor({.minimum = 0, .maximum = 1000});
    search.Trigger();
    EXPECT_FALSE(NextTarget(search, small, now, 1));
    EXPECT_FALSE(search.Running());
    // The format may change in the middle of a run: the tile is gone at once, the run ends at step 4.
    search.Trigger();
    EXPECT_TRUE(NextTarget(search, scene, now, 1));
    for (int step = 1; step <= 3; ++step)
        EXPECT_TRUE(NextTarget(search, small, now)) << step;
    EXPECT_FALSE(NextTarget(search, small, now));
    EXPECT_FALSE(search.Running());
}

// Steps 4 and 8 look for the sharpest tile again; another one starts the search anew from where the motor is. Until
// then equal scores let it descend from the top, and with the full interval it turns upwards.
TEST(FocusSearch, ChoosesTheTileAgainAtStepsFourAndEight) {
    for (const int change : {1, 2, 4, 5, 8, 9}) {
        FocusSearch search;
        Scene scene(512, 128);
        scene.Draw(0, kSharpest / 2);
        ULONGLONG now = 0;
        search.SetMotor({.minimum = 0, .maximum = 1000});
        search.SetPosition(1000);
        search.Trigger();
        EXPECT_EQ(NextTarget(search, scene, now, 1), 750);
        int restarted = 0;
        for (int step = 1; step <= 12; ++step) {
            if (step == change)
                scene.Draw(3, kSharpest);
            const LONG before = search.Position();
            const std::optional<LONG> target = NextTarget(search, scene, now);
            ASSERT_TRUE(target);
            if (*target > before && restarted == 0) {
                restarted = step;
                EXPECT_EQ(*target, before + (1000 - before) / 4);
            }
        }
        EXPECT_EQ(restarted, change <= 4 ? 4 : change <= 8 ? 8 : 0) << change;
    }
}

TEST(FocusSearch, TriggerRestartsARunAndSetPositionIsWhereItGoesOn) {
    FocusSearch search;
    Scene scene;
    ULONGLONG now = 0;
    search.SetMotor({.minimum = 0, .maximum = 1000});
    search.SetPosition(500);
    search.Trigger();
    EXPECT_EQ(NextTarget(search, scene, now, 1), 625);
    EXPECT_EQ(NextTarget(search, scene, now), 718);
    search.SetPosition(200);
    search.Trigger();
    EXPECT_EQ(NextTarget(search, scene, now, 1), 400); // at the next frame, of the whole range
    search.SetPosition(300);
    EXPECT_EQ(NextTarget(search, scene, now), 475); // as sharp as 200 was: of 200 to 1000 now
}

TEST(FocusSearch, TakesTriggersAndPositionsFromOtherThreads) {
    FocusSearch search;
    search.SetMotor({.minimum = 0, .maximum = 1000});
    std::thread client([&search] {
        for (LONG i = 0; i < 1000; ++i) {
            search.SetPosition(i);
            if (i % 10 == 0)
                search.Trigger();
            EXPECT_LE(search.Position(), 1000);
        }
    });
    Scene scene;
    LONG target = 0;
    for (int frame = 0; frame < 200; ++frame)
        search.Step(scene.image, 0, target);
    client.join();
    for (int frame = 0; frame < 100; ++frame)
        search.Step(scene.image, 0, target);
    EXPECT_FALSE(search.Running());
    search.Trigger();
    EXPECT_TRUE(search.Step(scene.image, 0, target));
}
