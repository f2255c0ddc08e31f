#include "camera/conversion_provider.h"

#include "camera/control_id.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

ConversionProvider &ProviderOf(const ControlRequest &request) {
    return *static_cast<ConversionProvider *>(request.provider);
}

} // namespace

const ControlItem ConversionProvider::kItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kSmoothingId,
     .get = Get,
     .set = Set,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kGainsEnableId,
     .get = Get,
     .set = Set,
     .modeCount = 0,
     .mappings = {}},
};

ConversionProvider::ConversionProvider() : PropertyProvider(kItems) {}

NTSTATUS ConversionProvider::Attach(UvcCamera &) {
    SharedStore(smooths_, false);
    SharedStore(appliesGains_, true);
    return STATUS_SUCCESS;
}

bool ConversionProvider::Smooths() const {
    return SharedLoad(smooths_);
}

bool ConversionProvider::AppliesGains() const {
    return SharedLoad(appliesGains_);
}

bool &ConversionProvider::SwitchOf(const ControlRequest &request) {
    return request.item.propertyId == kSmoothingId ? smooths_ : appliesGains_;
}

NTSTATUS ConversionProvider::Get(const ControlRequest &request) {
    return AnswerControl(request, {.value = SharedLoad(ProviderOf(request).SwitchOf(request)),
                                   .maximum = 1,
                                   .defaultValue = request.item.propertyId == kGainsEnableId,
                                   .resolution = 1});
}

NTSTATUS ConversionProvider::Set(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (NT_SUCCESS(status))
        SharedStore(ProviderOf(request).SwitchOf(request), setting.value != 0);
    return status;
}

} // namespace uvc
