#include "host/cameras/simulated_camera.h"

#include <algorithm>
#include <utility>

namespace host::cameras {
namespace {

using usb::Ticks;
using usb::TransferResult;
using usb::TransferStatus;

constexpr std::uint64_t kFirstCredits = 2;
constexpr Ticks kCreditTimeout = 2'500'000;
constexpr std::size_t kLongestLog = 4096;
constexpr Ticks kFallbackInterval = 333'333; // for descriptors that give none
constexpr std::size_t kMostNotes = 8192;     // of settings and of focus positions

// Selectors, by entity.
constexpr std::uint8_t kExposureTime = 4, kFocus = 6, kTerminalTrigger = 17; // camera terminal
constexpr std::uint8_t kGain = 4;                                            // processing unit
constexpr std::uint8_t kUnitTrigger = 5;                                     // extension unit of families A and B
constexpr std::uint8_t kOffsetX = 1, kOffsetY = 2, kBinning = 3;             // extension unit of family C

// The exposure time, in 100 us, at which the sensor shows the scene as bright as it is.
constexpr double kNeutralExposure = 333;

// The latest of the notes, each with the exposure `from` which it holds, that holds for exposure `number`.
template <typename Note> const Note &NoteFor(const std::vector<Note> &notes, std::uint64_t number) {
    const auto later = std::upper_bound(notes.begin(), notes.end(), number,
                                        [](std::uint64_t n, const Note &note) { return n < note.from; });
    return later == notes.begin() ? *later : *std::prev(later);
}

template <typename Note> void AddNote(std::vector<Note> &notes, const Note &note) {
    if (notes.size() == kMostNotes)
        notes.erase(notes.begin(), notes.begin() + kMostNotes / 2);
    notes.push_back(note);
}

} // namespace

SimulatedCamera::SimulatedCamera(CameraBody body, const CameraOptions &options)
    : body_(std::move(body)), options_(options), function_(ParseVideoFunction(body_.configuration)),
      negotiator_(function_, options.payloadSize.value_or(body_.model.payloadSize), options.headerLength),
      controls_(function_, body_.rule, body_.model), sensor_(body_.model, options.sensor) {
    if (options.highSpeed)
        body_.highSpeed = *options.highSpeed;
    for (const auto &[entity, selector] : options.brokenControls)
        controls_.Break(entity, selector);
    if (body_.model.userData && !sensor_.Defects().empty())
        store_.Assign(EncodeDefectLists(sensor_.DefectLists()));
    PowerUp();
}

void SimulatedCamera::PowerUp() {
    configuration_ = 0;
    alternates_.clear();
    halted_ = false;
    probe_ = function_.formats.empty() ? StreamControl{} : negotiator_.Default();
    committed_ = probe_;
    codedInterval_ = 0;
    userRegister_ = 0;
    registers_ = {};
    controls_.Reset();
    if (const CameraControl *focus = controls_.Find(EntityKind::CameraTerminal, kFocus))
        motor_.RestAt(static_cast<int>(focus->defaultValue));
    externalTrigger_ = false;
    ChooseRegion();
    StopStream();
}

void SimulatedCamera::StopStream() {
    streaming_ = false;
    nextNumber_ = 0;
    epochNumber_ = 0;
    payloads_.Abandon();
    triggers_.clear();
    settings_.assign(1, {0, CurrentSettings()});
    focus_.clear();
}

void SimulatedCamera::StartStream(Ticks now) {
    // The state that was probed last is in force even if nobody committed it: a host that finds the camera in the state
    // it wants need not negotiate.
    committed_ = probe_;
    if (const Raster raster = RasterOf(committed_); regionFrame_ != raster.Size())
        ChooseRegion();
    payloads_.Restart({.headerLength = options_.headerLength,
                       .endOfFrameBit = options_.endOfFrameBit,
                       .toggleFid = options_.toggleFid,
                       .maxPayloadSize = committed_.maxPayloadSize,
                       .packetSize = function_.packetSize});
    streaming_ = true;
    nextNumber_ = 0;
    epochTime_ = now;
    epochNumber_ = 0;
    credits_ = std::max(credits_, kFirstCredits);
    settings_.assign(1, {0, CurrentSettings()});
    focus_.clear();
}

Ticks SimulatedCamera::Interval() const {
    const std::uint32_t interval = codedInterval_ != 0 ? codedInterval_ : committed_.interval;
    return interval != 0 ? interval : kFallbackInterval;
}

// Where a frame of that size lies on the sensor when nobody asks for something else: binned as far as it can be. The
// offsets stay as the host set them as far as the sensor goes; a camera without offsets shows its middle.
Region SimulatedCamera::UsualRegion(Extent frame) const {
    const Extent sensor = sensor_.Size();
    const std::uint32_t binning = LargestBinning(sensor, frame, body_.model.binning ? 4 : 1);
    const Extent used{frame.width * binning, frame.height * binning};
    Region wanted{binning, (std::max(sensor.width, used.width) - used.width) / 2,
                  (std::max(sensor.height, used.height) - used.height) / 2};
    if (body_.model.regionOfInterest)
        wanted = {binning, region_.x, region_.y};
    return {binning, FitOffset(sensor.width, frame.width, binning, wanted.x),
            FitOffset(sensor.height, frame.height, binning, wanted.y)};
}

// For a newly committed frame.
void SimulatedCamera::ChooseRegion() {
    if (function_.formats.empty())
        return;
    regionFrame_ = RasterOf(committed_).Size();
    region_ = UsualRegion(regionFrame_);
    if (CameraControl *binning = RegionControl(kBinning))
        binning->current[0] = region_.binning;
    SettleRegion();
}

// Brings what the host asked for onto the sensor and tells it what became of it.
void SimulatedCamera::SettleRegion() {
    const Extent sensor = sensor_.Size();
    if (CameraControl *binning = RegionControl(kBinning)) {
        region_.binning = LargestBinning(sensor, regionFrame_, static_cast<std::uint32_t>(binning->current[0]));
        binning->current[0] = region_.binning;
    }
    const auto settle = [&](std::uint8_t selector, std::uint32_t side, std::uint32_t length, std::uint32_t &offset) {
        CameraControl *control = RegionControl(selector);
        if (control == nullptr)
            return;
        const std::uint32_t binning = region_.binning;
        offset = FitOffset(side, length, binning, static_cast<std::uint32_t>(control->current[0]));
        control->current[0] = offset;
        control->maximum = FitOffset(side, length, binning, side);
        control->resolution = 2 * binning;
    };
    settle(kOffsetX, sensor.width, regionFrame_.width, region_.x);
    settle(kOffsetY, sensor.height, regionFrame_.height, region_.y);
}

CameraControl *SimulatedCamera::RegionControl(std::uint8_t selector) {
    return body_.model.family == Family::C ? controls_.Find(EntityKind::ExtensionUnit, selector) : nullptr;
}

SensorSettings SimulatedCamera::CurrentSettings() const {
    SensorSettings settings{.region = region_};
    for (const CameraControl &control : controls_.Controls()) {
        const auto current = static_cast<double>(std::max<std::int64_t>(control.current[0], 1));
        if (control.kind == EntityKind::CameraTerminal && control.selector == kExposureTime)
            settings.exposure = current / kNeutralExposure;
        else if (control.kind == EntityKind::ProcessingUnit && control.selector == kGain)
            settings.gain = current / static_cast<double>(std::max<std::int64_t>(control.defaultValue, 1));
    }
    return settings;
}

// After a SET_CUR.
void SimulatedCamera::ControlsChanged(Ticks now) {
    SettleRegion();
    if (const CameraControl *focus = controls_.Find(EntityKind::CameraTerminal, kFocus))
        motor_.MoveTo(static_cast<int>(focus->current[0]), now);
    const CameraControl *trigger = nullptr;
    if (body_.model.family == Family::C)
        trigger = controls_.Find(EntityKind::CameraTerminal, kTerminalTrigger);
    else if (body_.model.family != Family::Generic)
        trigger = controls_.Find(EntityKind::ExtensionUnit, kUnitTrigger);
    if (trigger != nullptr)
        SwitchTrigger(trigger->current[0] != 0, now);
    NoteSettings();
}

void SimulatedCamera::SwitchTrigger(bool external, Ticks now) {
    if (external == externalTrigger_)
        return;
    externalTrigger_ = external;
    triggers_.clear();
    // Exposures at the sensor's own pace begin again at once.
    epochTime_ = now;
    epochNumber_ = nextNumber_;
    wakeHost_ = true;
}

void SimulatedCamera::Trigger(Ticks now) {
    if (!externalTrigger_)
        return;
    triggers_.push_back(now);
    wakeHost_ = true;
}

void SimulatedCamera::NoteSettings() {
    const SensorSettings settings = CurrentSettings();
    if (!streaming_) {
        settings_.assign(1, {0, settings});
        return;
    }
    if (settings == settings_.back().settings)
        return;
    const std::uint64_t from = nextNumber_ + options_.latency;
    if (settings_.back().from >= from && settings_.size() > 1)
        settings_.back().settings = settings;
    else
        AddNote(settings_, {from, settings});
}

SensorSettings SimulatedCamera::SettingsOf(const Raster &raster, std::uint64_t number) const {
    SensorSettings settings = NoteFor(settings_, number).settings;
    settings.focus = number >= nextNumber_ || focus_.empty() ? motor_.Target() : NoteFor(focus_, number).position;
    if (raster.Size() != regionFrame_)
        settings.region = UsualRegion(raster.Size());
    return settings;
}

Raster SimulatedCamera::RasterOf(const StreamControl &control) const {
    const StreamFormat &format = negotiator_.Format(control);
    const StreamFrame &frame = negotiator_.Frame(control);
    Raster raster{format.pixels, frame.width, frame.height, frame.bytes};
    // A descriptor may announce a known layout with a size that does not fit it.
    if (raster.pixels != PixelFormat::Opaque &&
        std::uint64_t{frame.width} * frame.height * Describe(raster.pixels).bitsPerPixel / 8 != frame.bytes)
        raster.pixels = PixelFormat::Opaque;
    return raster;
}

void SimulatedCamera::BeginFrame(std::uint64_t number, Ticks exposed) {
    const int position = motor_.PositionAt(exposed);
    if (focus_.empty() || focus_.back().position != position)
        AddNote(focus_, {number, position});
    nextNumber_ = number + 1;
    const Raster raster = RasterOf(committed_);
    payloads_.Begin(sensor_.Expose(raster, SettingsOf(raster, number), number), exposed);
    ++counters_.framesStarted;
}

TransferResult SimulatedCamera::BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> buffer, Ticks now) {
    const std::lock_guard lock(mutex_);
    const auto alternate = std::find_if(alternates_.begin(), alternates_.end(),
                                        [](const InterfaceSetting &setting) { return setting.number == 1; });
    if (configuration_ == 0 || endpoint != function_.bulkEndpoint || endpoint == 0 || function_.formats.empty() ||
        halted_ || alternate != alternates_.end())
        return {TransferStatus::Stall};
    if (buffer.empty())
        return {};
    if (!streaming_)
        StartStream(now);

    if (payloads_.Idle()) {
        if (externalTrigger_) {
            if (triggers_.empty())
                return {TransferStatus::NotYet};
            if (credits_ != 0)
                --credits_;
            lastStart_ = now;
            BeginFrame(nextNumber_, triggers_.front());
            triggers_.pop_front();
        } else if (freeRun_) {
            if (credits_ == 0 && now < lastStart_ + kCreditTimeout)
                return {TransferStatus::NotYet, 0, lastStart_ + kCreditTimeout};
            if (credits_ != 0)
                --credits_;
            lastStart_ = now;
            BeginFrame(nextNumber_, now);
        } else {
            const Ticks interval = Interval();
            const Ticks due = epochTime_ + static_cast<Ticks>(nextNumber_ - epochNumber_) * interval;
            if (now < due)
                return {TransferStatus::NotYet, 0, due};
            const std::uint64_t newest = epochNumber_ + static_cast<std::uint64_t>((now - epochTime_) / interval);
            counters_.framesDropped += newest - nextNumber_;
            lastStart_ = now;
            BeginFrame(newest, epochTime_ + static_cast<Ticks>(newest - epochNumber_) * interval);
        }
    }
    return payloads_.Next(buffer, now);
}

void SimulatedCamera::ResetEndpoint(std::uint8_t endpoint) {
    const std::lock_guard lock(mutex_);
    if (endpoint == function_.bulkEndpoint)
        ClearPipe();
}

void SimulatedCamera::ClearPipe() {
    halted_ = false;
    if (!payloads_.Idle())
        ++counters_.framesAbandoned;
    payloads_.Abandon();
    credits_ = std::max(credits_, kFirstCredits);
    if (probe_ != committed_)
        StopStream();
}

void SimulatedCamera::ResetPort() {
    const std::lock_guard lock(mutex_);
    PowerUp();
}

TransferResult SimulatedCamera::Control(const usb::Setup &setup, std::span<std::uint8_t> data, Ticks now) {
    data = data.first(std::min<std::size_t>(data.size(), setup.length));
    const bool in = (setup.requestType & 0x80) != 0;
    TransferResult result;
    bool wake = false;
    {
        const std::lock_guard lock(mutex_);
        ++counters_.controlRequests;
        result = Dispatch(setup, data, now);
        const bool accepted = result.status == TransferStatus::Ok;
        if (log_.size() == kLongestLog)
            log_.pop_front();
        const auto kept = in ? data.first(accepted ? result.length : 0) : data;
        log_.push_back({setup, {kept.begin(), kept.end()}, accepted});
        wake = std::exchange(wakeHost_, false);
    }
    if (wake)
        Wake();
    return result;
}

bool SimulatedCamera::SetScene(const std::string &scene, std::string &reason) {
    const std::lock_guard lock(mutex_);
    return sensor_.SetScene(scene, reason);
}

void SimulatedCamera::SetSurroundings(const Surroundings &surroundings) {
    const std::lock_guard lock(mutex_);
    sensor_.SetSurroundings(surroundings);
}

void SimulatedCamera::SetFreeRun(bool on) {
    {
        const std::lock_guard lock(mutex_);
        if (freeRun_ && !on && nextNumber_ != 0) {
            epochTime_ = lastStart_;
            epochNumber_ = nextNumber_ - 1;
        }
        freeRun_ = on;
    }
    Wake();
}

void SimulatedCamera::GrantFrame() {
    {
        const std::lock_guard lock(mutex_);
        ++credits_;
    }
    Wake();
}

std::vector<std::uint8_t> SimulatedCamera::ExpectedFrame(std::uint8_t formatIndex, std::uint8_t frameIndex,
                                                         std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    if (function_.formats.empty())
        return {};
    const StreamControl wanted{.formatIndex = formatIndex, .frameIndex = frameIndex};
    const StreamControl settled = negotiator_.Settle(wanted);
    if (settled.formatIndex != formatIndex || settled.frameIndex != frameIndex)
        return {};
    const Raster raster = RasterOf(settled);
    return *sensor_.Expose(raster, SettingsOf(raster, number), number);
}

StreamState SimulatedCamera::CommittedFormat() const {
    const std::lock_guard lock(mutex_);
    if (function_.formats.empty())
        return {};
    const StreamControl &control = streaming_ ? committed_ : probe_;
    return {control.formatIndex, control.frameIndex, RasterOf(control),
            codedInterval_ != 0 ? codedInterval_ : control.interval, control.maxPayloadSize};
}

std::vector<CameraControl> SimulatedCamera::Controls() const {
    const std::lock_guard lock(mutex_);
    return {controls_.Controls().begin(), controls_.Controls().end()};
}

std::vector<Defect> SimulatedCamera::Defects() const {
    const std::lock_guard lock(mutex_);
    return sensor_.Defects();
}

std::vector<DefectList> SimulatedCamera::DefectLists() const {
    const std::lock_guard lock(mutex_);
    return sensor_.DefectLists();
}

std::vector<std::uint8_t> SimulatedCamera::UserData() const {
    const std::lock_guard lock(mutex_);
    return store_.Bytes();
}

void SimulatedCamera::SetUserData(std::span<const std::uint8_t> data) {
    const std::lock_guard lock(mutex_);
    store_.Assign(data);
}

int SimulatedCamera::FocusAt(Ticks now) const {
    const std::lock_guard lock(mutex_);
    return motor_.PositionAt(now);
}

CameraCounters SimulatedCamera::Counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

std::vector<ControlRecord> SimulatedCamera::ControlLog() const {
    const std::lock_guard lock(mutex_);
    return {log_.begin(), log_.end()};
}

void SimulatedCamera::ClearControlLog() {
    const std::lock_guard lock(mutex_);
    log_.clear();
}

} // namespace host::cameras
