#include "camera/focus_search.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

constexpr LONG kEnoughPositions = 5;    // a narrower interval ends the run
constexpr LONG kFramesAfterTarget = 2;  // exposed before the motor moved, or while
constexpr LONGLONG kUnitsPerMs = 10000; // of system time

LONGLONG Distance(LONG a, LONG b) {
    const LONGLONG difference = LONGLONG{a} - b;
    return difference < 0 ? -difference : difference;
}

// The scene may have changed by now, or only have come into focus enough to be told from its surroundings.
bool IsTimeToChooseAgain(LONG step) {
    return step == 4 || step == 8;
}

} // namespace

void FocusSearch::Trigger() {
    SharedStore(startAsked_, true);
}

LONG FocusSearch::Position() const {
    return SharedLoad(position_);
}

void FocusSearch::SetPosition(LONG position) {
    SharedStore(position_, position);
}

void FocusSearch::MoveTo(LONG position, ULONGLONG now) {
    SharedStore(arrival_, now + SettleTime(Distance(position, Position())));
    SetPosition(position);
}

bool FocusSearch::Running() const {
    return SharedLoad(startAsked_) || SharedLoad(running_);
}

bool FocusSearch::Step(const imaging::ImageDescriptor &image, ULONGLONG now, LONG &target) {
    if (now < SharedLoad(arrival_))
        return false;
    if (SharedLoad(startAsked_)) {
        SharedStore(running_, true);
        SharedStore(startAsked_, false); // before the start: a trigger from now on is another one
        steps_ = 0;
        imaging::Region region;
        return ChooseRegion(image, region) ? Start(region, image, now, target) : End();
    }
    if (!SharedLoad(running_))
        return false;
    if (framesToSkip_ > 0) {
        --framesToSkip_;
        return false;
    }
    return now >= settled_ && Search(image, now, target);
}

bool FocusSearch::Start(const imaging::Region &region, const imaging::ImageDescriptor &image, ULONGLONG now,
                        LONG &target) {
    region_ = region;
    lower_ = motor_.minimum;
    upper_ = motor_.maximum;
    bestScore_ = SharpnessScore(image, region);
    bestPosition_ = SharedLoad(position_);
    return GoToNextTarget(now, target);
}

bool FocusSearch::Search(const imaging::ImageDescriptor &image, ULONGLONG now, LONG &target) {
    ++steps_;
    if (IsTimeToChooseAgain(steps_)) {
        imaging::Region region;
        if (!ChooseRegion(image, region))
            return End();
        if (region.x != region_.x || region.y != region_.y)
            return Start(region, image, now, target);
    }
    Judge(SharedLoad(position_), SharpnessScore(image, region_));
    return LONGLONG{upper_} - lower_ < kEnoughPositions ? End() : GoToNextTarget(now, target);
}

// The less sharp of two positions becomes the bound on its side of the other; of two equally sharp ones that is the
// earlier. Where both are the same place, which a noisy image scores differently, a better score makes it the lower
// bound and a worse one the upper, so that the interval always shrinks.
void FocusSearch::Judge(LONG position, LONG score) {
    if (score >= bestScore_) {
        (bestPosition_ <= position ? lower_ : upper_) = bestPosition_;
        bestPosition_ = position;
        bestScore_ = score;
    } else {
        (bestPosition_ <= position ? upper_ : lower_) = position;
    }
}

// A quarter of the way from the best position to the farther bound.
bool FocusSearch::GoToNextTarget(ULONGLONG now, LONG &target) {
    const LONGLONG below = Distance(lower_, bestPosition_);
    const LONGLONG above = Distance(upper_, bestPosition_);
    const LONGLONG travel = below <= above ? above / 4 : below / 4;
    target = static_cast<LONG>(below <= above ? bestPosition_ + travel : bestPosition_ - travel);

    settled_ = now + SettleTime(travel);
    framesToSkip_ = kFramesAfterTarget;
    SharedStore(position_, target);
    return true;
}

// In 100 ns.
ULONGLONG FocusSearch::SettleTime(LONGLONG travel) const {
    const LONGLONG range = LONGLONG{motor_.maximum} - motor_.minimum;
    LONGLONG milliseconds = range > 0 ? motor_.fullTravelTime * travel / range : 0;
    if (milliseconds < motor_.minimumSettleTime)
        milliseconds = motor_.minimumSettleTime;
    return static_cast<ULONGLONG>(milliseconds * kUnitsPerMs);
}

bool FocusSearch::End() {
    SharedStore(running_, false);
    return false;
}

} // namespace uvc
