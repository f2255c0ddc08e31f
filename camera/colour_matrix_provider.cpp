#include "camera/colour_matrix_provider.h"

#include "camera/control_id.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

constexpr LONG kAlgorithmDefault = 2;
constexpr LONG kAlgorithmMaximum = 32;
constexpr LONG kPatternMaximum = 3;

// Saturates colours and keeps grey: every row adds up to 64.
constexpr SHORT kDiagonalDefault = 90;
constexpr SHORT kOtherDefault = -13;
static_assert(kDiagonalDefault + 2 * kOtherDefault == imaging::kUnity);

constexpr SHORT DefaultOf(ULONG coefficient) {
    return coefficient % 4 == 0 ? kDiagonalDefault : kOtherDefault;
}

ColourMatrixProvider &ProviderOf(const ControlRequest &request) {
    return *static_cast<ColourMatrixProvider *>(request.provider);
}

bool IsExtended(const ControlRequest &request) {
    return request.kind == kControlExtendedValue && CanAnswerControl(request);
}

constexpr ControlItem Item(ULONG id, ControlHandler get, ControlHandler set) {
    return {.propertySet = kPrivateColourMatrixSet,
            .propertyId = id,
            .get = get,
            .set = set,
            .modeCount = 0,
            .mappings = {}};
}

} // namespace

const ControlItem ColourMatrixProvider::kItems[] = {
    Item(kMatrixEnableId, GetMatrix, SetMatrix),         Item(kFirstCoefficientId, GetMatrix, SetMatrix),
    Item(kFirstCoefficientId + 1, GetMatrix, SetMatrix), Item(kFirstCoefficientId + 2, GetMatrix, SetMatrix),
    Item(kFirstCoefficientId + 3, GetMatrix, SetMatrix), Item(kFirstCoefficientId + 4, GetMatrix, SetMatrix),
    Item(kFirstCoefficientId + 5, GetMatrix, SetMatrix), Item(kFirstCoefficientId + 6, GetMatrix, SetMatrix),
    Item(kFirstCoefficientId + 7, GetMatrix, SetMatrix), Item(kFirstCoefficientId + 8, GetMatrix, SetMatrix),
    Item(kConversionAlgorithmId, GetMatrix, SetMatrix),  Item(kMatrixDefaultsId, GetColours, SetColours),
    Item(kBayerPatternId, GetColours, SetColours),
};

ColourMatrixProvider::ColourMatrixProvider(const CameraDescription &description)
    : PropertyProvider(kItems), description_(description) {
    SetDefaults();
}

NTSTATUS ColourMatrixProvider::Attach(UvcCamera &) {
    SetDefaults();
    SharedStore(pattern_, description_.pattern);
    return STATUS_SUCCESS;
}

void ColourMatrixProvider::SetDefaults() {
    SharedStore(enabled_, true);
    for (ULONG i = 0; i < imaging::kMatrixCoefficients; ++i)
        SharedStore(coefficients_[i], DefaultOf(i));
    SharedStore(algorithm_, kAlgorithmDefault);
}

bool ColourMatrixProvider::Enabled() const {
    return SharedLoad(enabled_);
}

void ColourMatrixProvider::ReadMatrix(SHORT (&matrix)[imaging::kMatrixCoefficients]) const {
    for (ULONG i = 0; i < imaging::kMatrixCoefficients; ++i)
        matrix[i] = SharedLoad(coefficients_[i]);
}

ULONG ColourMatrixProvider::Pattern() const {
    return SharedLoad(pattern_);
}

NTSTATUS ColourMatrixProvider::GetMatrix(const ControlRequest &request) {
    const ColourMatrixProvider &provider = ProviderOf(request);
    const ULONG id = request.item.propertyId;
    if (!IsExtended(request) || (!provider.description_.colour && id != kConversionAlgorithmId))
        return STATUS_NOT_IMPLEMENTED;
    switch (id) {
    case kMatrixEnableId:
        return AnswerControl(
            request, {.value = SharedLoad(provider.enabled_), .maximum = 1, .defaultValue = 1, .resolution = 1});
    case kConversionAlgorithmId:
        return AnswerControl(request, {.value = SharedLoad(provider.algorithm_),
                                       .maximum = kAlgorithmMaximum,
                                       .defaultValue = kAlgorithmDefault,
                                       .resolution = 1});
    default: {
        const ULONG coefficient = id - kFirstCoefficientId;
        return AnswerControl(request, {.value = SharedLoad(provider.coefficients_[coefficient]),
                                       .minimum = -128,
                                       .maximum = 127,
                                       .defaultValue = DefaultOf(coefficient),
                                       .resolution = 1});
    }
    }
}

// The ranges advise; any value is stored.
NTSTATUS ColourMatrixProvider::SetMatrix(const ControlRequest &request) {
    ColourMatrixProvider &provider = ProviderOf(request);
    const ULONG id = request.item.propertyId;
    ControlSetting setting;
    if (!IsExtended(request) || (!provider.description_.colour && id != kConversionAlgorithmId) ||
        !NT_SUCCESS(ReadControlSetting(request, setting)))
        return STATUS_NOT_IMPLEMENTED;
    switch (id) {
    case kMatrixEnableId:
        SharedStore(provider.enabled_, setting.value != 0);
        break;
    case kConversionAlgorithmId:
        SharedStore(provider.algorithm_, setting.value);
        break;
    default:
        SharedStore(provider.coefficients_[id - kFirstCoefficientId], static_cast<SHORT>(setting.value));
        break;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ColourMatrixProvider::GetColours(const ControlRequest &request) {
    const ColourMatrixProvider &provider = ProviderOf(request);
    if (!IsExtended(request) || !provider.description_.colour)
        return STATUS_NOT_IMPLEMENTED;
    if (request.item.propertyId == kMatrixDefaultsId)
        return AnswerControl(request, {.maximum = 1, .resolution = 1});
    return AnswerControl(request, {.value = static_cast<LONG>(provider.Pattern()),
                                   .maximum = kPatternMaximum,
                                   .defaultValue = static_cast<LONG>(provider.description_.pattern),
                                   .resolution = 1});
}

NTSTATUS ColourMatrixProvider::SetColours(const ControlRequest &request) {
    ColourMatrixProvider &provider = ProviderOf(request);
    ControlSetting setting;
    if (!IsExtended(request) || !provider.description_.colour || !NT_SUCCESS(ReadControlSetting(request, setting)))
        return STATUS_NOT_IMPLEMENTED;
    if (request.item.propertyId == kMatrixDefaultsId) {
        if (setting.value != 0)
            provider.SetDefaults();
        return STATUS_SUCCESS;
    }
    if (setting.value < 0 || setting.value > kPatternMaximum)
        return STATUS_INVALID_PARAMETER;
    SharedStore(provider.pattern_, static_cast<ULONG>(setting.value));
    return STATUS_SUCCESS;
}

} // namespace uvc
