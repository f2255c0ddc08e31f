// A UVC camera on the bus model: descriptors, control requests, and a bulk pipe that speaks UVC payloads.
#pragma once

#include "host/cameras/control_store.h"
#include "host/cameras/focus_motor.h"
#include "host/cameras/model.h"
#include "host/cameras/negotiation.h"
#include "host/cameras/payload_stream.h"
#include "host/cameras/region.h"
#include "host/cameras/sensor.h"
#include "host/cameras/user_data.h"
#include "host/cameras/video_function.h"
#include "host/usb/usb_device.h"

#include <array>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace host::cameras {

// What a camera text may change (catalogue.h).
struct CameraOptions {
    std::optional<std::uint32_t> payloadSize; // nothing: the model's own
    std::uint8_t headerLength = 12;
    std::optional<bool> highSpeed; // nothing: as the descriptors say
    bool endOfFrameBit = true;
    bool toggleFid = true;
    std::uint32_t latency = 1; // exposures between the next one and the first that shows a new setting
    std::vector<std::pair<std::uint8_t, std::uint8_t>> brokenControls; // entity and selector
    std::string scene;                                                 // as SetScene takes it; nothing: the chart
    std::string store; // of the user-data store: "empty", "corrupt" or a file's path; nothing: as shipped
    SensorOptions sensor;
};

// Descriptors and what stands behind them. The model's texts may point into `strings`.
struct CameraBody {
    Model model{};
    std::vector<std::uint8_t> device;
    std::vector<std::uint8_t> configuration;
    std::vector<std::string> strings; // by string index - 1
    std::uint8_t lastString = 0;      // indexes up to here answer, with a made-up text where there is none
    SelectorRule rule = SelectorRule::BitPlusOne;
    bool highSpeed = true;
};

struct ControlRecord {
    usb::Setup setup;
    std::vector<std::uint8_t> data; // sent by the host, or answered by the camera
    bool accepted;
};

struct StreamState {
    std::uint8_t formatIndex = 0;
    std::uint8_t frameIndex = 0;
    Raster raster;
    std::uint32_t interval = 0; // 100 ns
    std::uint32_t maxPayloadSize = 0;
};

struct CameraCounters {
    std::uint64_t framesStarted = 0;
    std::uint64_t framesDropped = 0;   // exposed, but never asked for in time
    std::uint64_t framesAbandoned = 0; // begun, then forgotten by a reset of the pipe
    std::uint64_t controlRequests = 0;
    std::uint64_t commits = 0; // SET_CUR of the commit control
};

// The bus calls the UsbDevice part from one thread at a time; everything may be called from any thread.
class SimulatedCamera final : public usb::UsbDevice {
  public:
    SimulatedCamera(CameraBody body, const CameraOptions &options);

    // UsbDevice
    bool IsHighSpeed() const override { return body_.highSpeed; }
    usb::TransferResult Control(const usb::Setup &setup, std::span<std::uint8_t> data, usb::Ticks now) override;
    usb::TransferResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> buffer, usb::Ticks now) override;
    void ResetEndpoint(std::uint8_t endpoint) override;
    void ResetPort() override;

    // For tests and programs.

    const Model &model() const { return body_.model; }
    const VideoFunction &Function() const { return function_; }
    std::vector<CameraControl> Controls() const;

    // Puts a scene in front of the camera: "chart", "flat", "grey" or the path of a PNG.
    bool SetScene(const std::string &scene, std::string &reason);
    void SetSurroundings(const Surroundings &surroundings);

    // Paced (the default): exposure n can be had from start + n x interval on; one that is not asked for before the
    // next is ready is lost, and its number with it. Free running: an exposure starts as soon as the host asks and a
    // credit is there; without a credit for 250 ms it starts anyway, as frames may have been lost on the way. While the
    // external trigger is on neither happens: each software trigger makes one exposure.
    void SetFreeRun(bool on);

    // One more credit. A stream starts with two; whoever takes the frames gives one back for each.
    void GrantFrame();

    // The exact bytes of exposure `number` since the last commit; empty for indexes that the camera does not have. An
    // exposure to come is taken with the settings as they are now and the focus motor where it is going. Settings are
    // remembered for a few thousand changes.
    std::vector<std::uint8_t> ExpectedFrame(std::uint8_t formatIndex, std::uint8_t frameIndex, std::uint64_t number);

    // What streams, or would stream now.
    StreamState CommittedFormat() const;

    // Of the full sensor, whatever the frame size.
    std::vector<Defect> Defects() const;

    // The pixels that they spoil at binning 1, 2 and 4, as the store is shipped with them.
    std::vector<DefectList> DefectLists() const;

    // The user-data store. What is set replaces all of it, the rest is erased.
    std::vector<std::uint8_t> UserData() const;
    void SetUserData(std::span<const std::uint8_t> data);

    // Where the focus motor is.
    int FocusAt(usb::Ticks now) const;

    CameraCounters Counters() const;
    std::vector<ControlRecord> ControlLog() const; // the latest few thousand
    void ClearControlLog();

  private:
    struct SettingsChange {
        std::uint64_t from; // first exposure that shows it
        SensorSettings settings;
    };
    struct FocusNote {
        std::uint64_t from;
        int position;
    };

    // All below: the mutex is held.
    usb::TransferResult Dispatch(const usb::Setup &setup, std::span<std::uint8_t> data, usb::Ticks now);
    usb::TransferResult StandardRequest(const usb::Setup &setup, std::span<std::uint8_t> data);
    usb::TransferResult GetDescriptor(const usb::Setup &setup, std::span<std::uint8_t> data) const;
    usb::TransferResult GetStatus(const usb::Setup &setup, std::span<std::uint8_t> data) const;
    usb::TransferResult EndpointFeature(const usb::Setup &setup);
    usb::TransferResult SetConfiguration(std::uint8_t value);
    usb::TransferResult SetInterface(std::uint8_t number, std::uint8_t alternate);
    usb::TransferResult ClassRequest(const usb::Setup &setup, std::span<std::uint8_t> data, usb::Ticks now);
    usb::TransferResult StreamingRequest(const usb::Setup &setup, std::span<std::uint8_t> data);
    usb::TransferResult VendorRequest(const usb::Setup &setup, std::span<std::uint8_t> data, usb::Ticks now);
    usb::TransferResult SetFrameRateCode(std::uint16_t code);

    void PowerUp();
    void ClearPipe();
    void StopStream();
    void StartStream(usb::Ticks now);
    void BeginFrame(std::uint64_t number, usb::Ticks exposed);
    void ControlsChanged(usb::Ticks now);
    void NoteSettings();
    void SwitchTrigger(bool external, usb::Ticks now);
    void Trigger(usb::Ticks now);
    CameraControl *RegionControl(std::uint8_t selector);
    void ChooseRegion();
    void SettleRegion();
    Region UsualRegion(Extent frame) const;
    SensorSettings CurrentSettings() const;
    SensorSettings SettingsOf(const Raster &raster, std::uint64_t number) const;
    Raster RasterOf(const StreamControl &control) const;
    usb::Ticks Interval() const;

    CameraBody body_;
    CameraOptions options_;
    VideoFunction function_;
    Negotiator negotiator_;

    mutable std::mutex mutex_;
    ControlStore controls_;
    Sensor sensor_;
    PayloadStream payloads_;

    std::uint8_t configuration_ = 0;
    std::vector<InterfaceSetting> alternates_; // other than 0
    bool halted_ = false;
    StreamControl probe_;
    StreamControl committed_;
    std::uint32_t codedInterval_ = 0; // by vendor request 0x22; 0: the committed one
    std::uint32_t userRegister_ = 0;
    std::array<std::uint32_t, 16> registers_{};
    UserDataStore store_;
    FocusMotor motor_;

    bool streaming_ = false;
    bool freeRun_ = false;
    std::uint64_t credits_ = 0;
    usb::Ticks lastStart_ = 0;
    // Exposure `epochNumber_` is ready at `epochTime_`, the following ones an interval apart.
    usb::Ticks epochTime_ = 0;
    std::uint64_t epochNumber_ = 0;
    std::uint64_t nextNumber_ = 0;
    std::vector<SettingsChange> settings_; // by rising `from`
    std::vector<FocusNote> focus_;         // by rising `from`: where exposures found the motor
    Extent regionFrame_;                   // the frame size that the region was chosen for
    Region region_;

    bool externalTrigger_ = false;
    std::deque<usb::Ticks> triggers_; // exposures that were asked for and not begun
    bool wakeHost_ = false;           // once the mutex is free

    CameraCounters counters_;
    std::deque<ControlRecord> log_;
};

} // namespace host::cameras
