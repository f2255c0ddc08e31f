#include "camera/white_balance_provider.h"

#include "camera/balance_law.h"
#include "camera/control_id.h"
#include "imaging/brightness.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

constexpr imaging::GainRecord kUnityGain{
    .minimum = 0, .maximum = 255, .defaultValue = imaging::kUnity, .current = imaging::kUnity, .automatic = true};
constexpr imaging::GainRecords kUnityGains{.blue = kUnityGain, .red = kUnityGain, .green = kUnityGain};

WhiteBalanceProvider &ProviderOf(const ControlRequest &request) {
    return *static_cast<WhiteBalanceProvider *>(request.provider);
}

} // namespace

const ControlItem WhiteBalanceProvider::kItems[] = {
    {.propertySet = kVideoProcAmpSet,
     .propertyId = KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE,
     .get = GetBalance,
     .set = SetBalance,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kWhiteBalanceRedId,
     .get = GetGain,
     .set = SetGain,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kWhiteBalanceBlueId,
     .get = GetGain,
     .set = SetGain,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kWhiteBalanceGreenId,
     .get = GetGain,
     .set = SetGain,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kOnePushWhiteBalanceId,
     .get = GetOnePush,
     .set = SetOnePush,
     .modeCount = 0,
     .mappings = {}},
};

WhiteBalanceProvider::WhiteBalanceProvider(const CameraDescription &description)
    : PropertyProvider(kItems), description_(description), gains_(kUnityGains) {}

NTSTATUS WhiteBalanceProvider::Attach(UvcCamera &) {
    gains_ = kUnityGains;
    onePush_ = false;
    return description_.colour ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
}

imaging::GainRecords WhiteBalanceProvider::Gains() const {
    return {.blue = {.current = SharedLoad(gains_.blue.current)},
            .red = {.current = SharedLoad(gains_.red.current)},
            .green = {.current = SharedLoad(gains_.green.current)}};
}

bool WhiteBalanceProvider::Judge(const imaging::ImageDescriptor &source,
                                 const SHORT (*matrix)[imaging::kMatrixCoefficients], imaging::ColourSamples &samples,
                                 std::uint32_t &brightness) {
    if (source.fourcc == imaging::kFourCcGrey8)
        return imaging::MeasureBrightness(source, brightness);
    imaging::SampleColours(source, samples);
    if (samples.count == 0)
        return false;
    const imaging::ColourGains gains{.red = SharedLoad(gains_.red.current),
                                     .green = SharedLoad(gains_.green.current),
                                     .blue = SharedLoad(gains_.blue.current)};
    const bool onePush = SharedLoad(onePush_);
    if (!onePush && !SharedLoad(gains_.blue.automatic)) {
        brightness = ColourBrightness(samples, gains, matrix);
        return true;
    }
    const Balance balance = BalanceStep(samples, gains);
    // A gain that an application has set meanwhile stands.
    SharedReplace(gains_.red.current, gains.red, balance.gains.red);
    SharedReplace(gains_.green.current, gains.green, balance.gains.green);
    SharedReplace(gains_.blue.current, gains.blue, balance.gains.blue);
    if (onePush && balance.converged)
        SharedStore(onePush_, false);
    brightness = balance.brightness;
    return true;
}

imaging::GainRecord &WhiteBalanceProvider::GainOf(const ControlRequest &request) {
    switch (request.item.propertyId) {
    case kWhiteBalanceRedId:
        return gains_.red;
    case kWhiteBalanceBlueId:
        return gains_.blue;
    default:
        return gains_.green;
    }
}

NTSTATUS WhiteBalanceProvider::GetBalance(const ControlRequest &request) {
    const bool automatic = SharedLoad(ProviderOf(request).gains_.blue.automatic);
    return AnswerControl(request,
                         {.flags = automatic ? kControlAutomatic : kControlManual, .capabilities = kControlAutomatic});
}

NTSTATUS WhiteBalanceProvider::SetBalance(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status))
        return status;
    WhiteBalanceProvider &provider = ProviderOf(request);
    const bool automatic = (setting.flags & kControlAutomatic) != 0;
    for (imaging::GainRecord *record : {&provider.gains_.blue, &provider.gains_.red, &provider.gains_.green})
        SharedStore(record->automatic, automatic);
    if (!automatic)
        SharedStore(provider.onePush_, false); // it might never report that it is done
    return status;
}

NTSTATUS WhiteBalanceProvider::GetGain(const ControlRequest &request) {
    const imaging::GainRecord &record = ProviderOf(request).GainOf(request);
    return AnswerControl(request, {.value = SharedLoad(record.current),
                                   .flags = SharedLoad(record.automatic) ? kControlAutomatic : kControlManual,
                                   .minimum = record.minimum,
                                   .maximum = record.maximum,
                                   .defaultValue = record.defaultValue,
                                   .resolution = 1});
}

// Any value may be stored; it is clamped where it is used.
NTSTATUS WhiteBalanceProvider::SetGain(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (NT_SUCCESS(status))
        SharedStore(ProviderOf(request).GainOf(request).current, setting.value);
    return status;
}

NTSTATUS WhiteBalanceProvider::GetOnePush(const ControlRequest &request) {
    return AnswerControl(request, {.value = SharedLoad(ProviderOf(request).onePush_), .maximum = 1, .resolution = 1});
}

// A run is asked for whatever the value.
NTSTATUS WhiteBalanceProvider::SetOnePush(const ControlRequest &request) {
    ControlSetting setting;
    if (request.kind != kControlExtendedValue || !NT_SUCCESS(ReadControlSetting(request, setting)))
        return STATUS_INVALID_PARAMETER;
    SharedStore(ProviderOf(request).onePush_, true);
    return STATUS_SUCCESS;
}

} // namespace uvc
