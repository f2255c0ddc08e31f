#include "host/cameras/simulated_camera.h"

#include <algorithm>

namespace host::cameras {
namespace {

using usb::Ticks;
using usb::TransferResult;
using usb::TransferStatus;

constexpr std::uint64_t kFirstCredits = 2;
constexpr Ticks kCreditTimeout = 2'500'000;
constexpr std::size_t kLongestLog = 4096;
constexpr Ticks kFallbackInterval = 333'333; // for descriptors that give none

} // namespace

SimulatedCamera::SimulatedCamera(CameraBody body, const CameraOptions &options)
    : body_(std::move(body)), options_(options), function_(ParseVideoFunction(body_.configuration)),
      negotiator_(function_, options.payloadSize.value_or(body_.model.payloadSize), options.headerLength),
      controls_(function_, body_.rule, body_.model.family), sensor_(body_.model, options.sensor) {
    if (options.highSpeed)
        body_.highSpeed = *options.highSpeed;
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
    controls_.Reset();
    StopStream();
}

void SimulatedCamera::StopStream() {
    streaming_ = false;
    nextNumber_ = 0;
    epochNumber_ = 0;
    payloads_.Abandon();
    settings_.assign(1, {0, CurrentSettings()});
}

void SimulatedCamera::StartStream(Ticks now) {
    // The state that was probed last is in force even if nobody committed it: a host that finds the camera in the state
    // it wants need not negotiate.
    committed_ = probe_;
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
}

Ticks SimulatedCamera::Interval() const {
    const std::uint32_t interval = codedInterval_ != 0 ? codedInterval_ : committed_.interval;
    return interval != 0 ? interval : kFallbackInterval;
}

SensorSettings SimulatedCamera::CurrentSettings() const {
    SensorSettings settings;
    for (const CameraControl &control : controls_.Controls()) {
        const auto current = static_cast<double>(std::max<std::int64_t>(control.current[0], 1));
        const auto usual = static_cast<double>(std::max<std::int64_t>(control.defaultValue, 1));
        if (control.kind == EntityKind::CameraTerminal && control.selector == 4)
            settings.exposure = current / usual;
        else if (control.kind == EntityKind::CameraTerminal && control.selector == 6)
            settings.focus = static_cast<int>(control.current[0]);
        else if (control.kind == EntityKind::ProcessingUnit && control.selector == 4)
            settings.gain = current / usual;
    }
    return settings;
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
        settings_.push_back({from, settings});
}

SensorSettings SimulatedCamera::SettingsAt(std::uint64_t number) const {
    for (auto change = settings_.rbegin(); change != settings_.rend(); ++change)
        if (change->from <= number)
            return change->settings;
    return settings_.front().settings;
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
    payloads_.Begin(sensor_.Expose(RasterOf(committed_), SettingsAt(number), number), exposed);
    nextNumber_ = number + 1;
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
        if (freeRun_) {
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

TransferResult SimulatedCamera::Control(const usb::Setup &setup, std::span<std::uint8_t> data, Ticks) {
    const std::lock_guard lock(mutex_);
    ++counters_.controlRequests;
    data = data.first(std::min<std::size_t>(data.size(), setup.length));
    const bool in = (setup.requestType & 0x80) != 0;
    const TransferResult result = Dispatch(setup, data);
    const bool accepted = result.status == TransferStatus::Ok;
    if (log_.size() == kLongestLog)
        log_.pop_front();
    const auto kept = in ? data.first(accepted ? result.length : 0) : data;
    log_.push_back({setup, {kept.begin(), kept.end()}, accepted});
    return result;
}

bool SimulatedCamera::SetScene(const std::string &path, std::string &reason) {
    const std::lock_guard lock(mutex_);
    return sensor_.SetScene(path, reason);
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
    return *sensor_.Expose(RasterOf(settled), SettingsAt(number), number);
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
