#include "apps/uvcam/control_table.h"

#include "apps/uvcam/exit_code.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <vector>

namespace uvcam {

namespace {

using host::client::kCameraControlSet;
using host::client::kVideoProcAmpSet;

constexpr Inactivity kBalanced = {.other = "WhiteBalance", .state = Inactivity::Automatic};
constexpr Inactivity kNoMatrix = {.other = "ColorMatrixEnable", .state = Inactivity::Off};
constexpr const char *kMatrixUnit = "1/64";
constexpr const char *kExposureUnit = "100 us";
constexpr const char *kPixels = "px";

constexpr ControlRow VideoProcAmp(const char *name, ULONG id, const char *unit = "",
                                  ControlKind kind = ControlKind::Number) {
    return {.name = name,
            .control = {kVideoProcAmpSet, id},
            .kind = kind,
            .unit = unit,
            .kept = id <= KSPROPERTY_VIDEOPROCAMP_GAIN};
}

constexpr ControlRow Camera(const char *name, ULONG id, const char *unit = "") {
    return {.name = name,
            .control = {kCameraControlSet, id},
            .unit = unit,
            .kept = id <= KSPROPERTY_CAMERACONTROL_FOCUS && id != KSPROPERTY_CAMERACONTROL_EXPOSURE};
}

constexpr ControlRow Image(const char *name, ULONG id, const char *unit = "", ControlKind kind = ControlKind::Number,
                           Inactivity inactive = {}, Inactivity alsoInactive = {}) {
    return {.name = name,
            .control = {PROPSETID_PRIVATE_IMAGE, id},
            .kind = kind,
            .unit = unit,
            .inactive = {inactive, alsoInactive}};
}

constexpr ControlRow Kept(ControlRow row) {
    row.kept = true;
    return row;
}

constexpr ControlRow InDriver(ControlRow row) {
    row.inDriver = true;
    return row;
}

constexpr ControlRow StreamOnly(ControlRow row) {
    row.streamOnly = true;
    return row;
}

constexpr ControlRow RegisterOfPair(const char *name, ULONG part) {
    return {.name = name, .control = {PROPSETID_PRIVATE_IMAGE, UVC_IMAGE_REGISTER_PAIR, part}};
}

constexpr ControlRow Matrix(const char *name, ULONG id, const char *unit = "", ControlKind kind = ControlKind::Number,
                            Inactivity inactive = {}) {
    return {.name = name,
            .control = {PROPSETID_PRIVATE_COLORMATRIX, id},
            .kind = kind,
            .unit = unit,
            .inactive = {inactive},
            .kept = id <= UVC_COLORMATRIX_CONVERSION_ALGORITHM,
            .inDriver = true};
}

// Units are those of UVC 1.1. Gain, zoom and focus have none there that our cameras keep to.
constexpr ControlRow kRows[] = {
    VideoProcAmp("Brightness", KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS),
    VideoProcAmp("Contrast", KSPROPERTY_VIDEOPROCAMP_CONTRAST),
    VideoProcAmp("Hue", KSPROPERTY_VIDEOPROCAMP_HUE, "0.01 degree"),
    VideoProcAmp("Saturation", KSPROPERTY_VIDEOPROCAMP_SATURATION),
    VideoProcAmp("Sharpness", KSPROPERTY_VIDEOPROCAMP_SHARPNESS),
    VideoProcAmp("Gamma", KSPROPERTY_VIDEOPROCAMP_GAMMA, "0.01"),
    VideoProcAmp("ColorEnable", KSPROPERTY_VIDEOPROCAMP_COLORENABLE, "", ControlKind::Switch),
    VideoProcAmp("WhiteBalance", KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE, "K"),
    VideoProcAmp("BacklightCompensation", KSPROPERTY_VIDEOPROCAMP_BACKLIGHT_COMPENSATION),
    VideoProcAmp("Gain", KSPROPERTY_VIDEOPROCAMP_GAIN),
    VideoProcAmp("DigitalMultiplier", KSPROPERTY_VIDEOPROCAMP_DIGITAL_MULTIPLIER),
    VideoProcAmp("DigitalMultiplierLimit", KSPROPERTY_VIDEOPROCAMP_DIGITAL_MULTIPLIER_LIMIT),
    VideoProcAmp("PowerLineFrequency", KSPROPERTY_VIDEOPROCAMP_POWERLINE_FREQUENCY),

    Camera("Pan", KSPROPERTY_CAMERACONTROL_PAN, "arc second"),
    Camera("Tilt", KSPROPERTY_CAMERACONTROL_TILT, "arc second"),
    Camera("Roll", KSPROPERTY_CAMERACONTROL_ROLL, "degree"),
    Camera("Zoom", KSPROPERTY_CAMERACONTROL_ZOOM),
    Camera("ExposureLog2", KSPROPERTY_CAMERACONTROL_EXPOSURE, "log2 s"),
    Camera("Iris", KSPROPERTY_CAMERACONTROL_IRIS, "0.01 f-stop"),
    Camera("Focus", KSPROPERTY_CAMERACONTROL_FOCUS),
    Camera("ScanMode", KSPROPERTY_CAMERACONTROL_SCANMODE),
    Camera("Privacy", KSPROPERTY_CAMERACONTROL_PRIVACY),
    Camera("PanRelative", KSPROPERTY_CAMERACONTROL_PAN_RELATIVE),
    Camera("TiltRelative", KSPROPERTY_CAMERACONTROL_TILT_RELATIVE),
    Camera("RollRelative", KSPROPERTY_CAMERACONTROL_ROLL_RELATIVE),
    Camera("ZoomRelative", KSPROPERTY_CAMERACONTROL_ZOOM_RELATIVE),
    Camera("ExposureRelative", KSPROPERTY_CAMERACONTROL_EXPOSURE_RELATIVE),
    Camera("IrisRelative", KSPROPERTY_CAMERACONTROL_IRIS_RELATIVE),
    Camera("FocusRelative", KSPROPERTY_CAMERACONTROL_FOCUS_RELATIVE),

    // The registry keeps 101, the gain of blue, under "WhiteBalance Green" as well; people get what the names say.
    Kept(Image("WhiteBalance Blue", UVC_IMAGE_WHITE_BALANCE_BLUE, "", ControlKind::Number, kBalanced)),
    Kept(Image("WhiteBalance Red", UVC_IMAGE_WHITE_BALANCE_RED, "", ControlKind::Number, kBalanced)),
    InDriver(Image("WhiteBalance Green", UVC_IMAGE_WHITE_BALANCE_GREEN, "", ControlKind::Number, kBalanced)),
    {.name = "WhiteBalanceOnePush",
     .control = {PROPSETID_PRIVATE_IMAGE, UVC_IMAGE_WHITE_BALANCE_ONE_PUSH},
     .kind = ControlKind::Action,
     .writeOnly = true},
    InDriver(Image("WhiteBalanceGainsEnable", UVC_IMAGE_GAINS_ENABLE, "", ControlKind::Switch)),
    Kept(Image("AutoExposureReference", UVC_IMAGE_EXPOSURE_REFERENCE)),
    Kept(Image("AutoExposureMaxValue", UVC_IMAGE_EXPOSURE_LIMIT, kExposureUnit, ControlKind::Number,
               {.other = "AutoExposureMaxValueAuto", .state = Inactivity::On},
               {.other = "Exposure", .state = Inactivity::Manual})),
    Kept(Image("AutoExposureMaxValueAuto", UVC_IMAGE_EXPOSURE_LIMIT_FOLLOWS, "", ControlKind::Switch)),
    {.name = "Exposure",
     .control = {PROPSETID_PRIVATE_IMAGE, UVC_IMAGE_EXPOSURE},
     .unit = kExposureUnit,
     .twin = "ExposureLog2",
     .kept = true},
    Image("ExternalTrigger", UVC_IMAGE_EXTERNAL_TRIGGER, "", ControlKind::Trigger),
    Image("SoftwareTrigger", UVC_IMAGE_SOFTWARE_TRIGGER, "", ControlKind::Pulse,
          {.other = "ExternalTrigger", .state = Inactivity::Off}),
    Image("FocusOnePush", UVC_IMAGE_AUTOFOCUS, "", ControlKind::Action),
    StreamOnly(Image("HorizontalOffset", UVC_IMAGE_OFFSET_X, kPixels)),
    StreamOnly(Image("VerticalOffset", UVC_IMAGE_OFFSET_Y, kPixels)),
    StreamOnly(Image("Binning", UVC_IMAGE_BINNING)),
    InDriver(Image("GreenSmoothing", UVC_IMAGE_SMOOTHING, "", ControlKind::Switch)),
    Image("GeneralRegister", UVC_IMAGE_REGISTER),
    RegisterOfPair("GeneralRegister1", 0),
    RegisterOfPair("GeneralRegister2", 1),
    Image("GeneralValue1", UVC_IMAGE_GENERAL_VALUE_1),
    Image("GeneralValue2", UVC_IMAGE_GENERAL_VALUE_2),
    Image("GeneralValue3", UVC_IMAGE_GENERAL_VALUE_3),
    Image("Register1", UVC_IMAGE_REGISTER_1),
    Image("Register2", UVC_IMAGE_REGISTER_2),
    Image("Register3", UVC_IMAGE_REGISTER_3),
    Image("Register4", UVC_IMAGE_REGISTER_4),
    Image("Register5", UVC_IMAGE_REGISTER_5),
    Image("Register6", UVC_IMAGE_REGISTER_6),
    Image("Register7", UVC_IMAGE_REGISTER_7),

    Matrix("ColorMatrixEnable", UVC_COLORMATRIX_ENABLE, "", ControlKind::Switch),
    Matrix("ColorMatrix_R_R", UVC_COLORMATRIX_R_R, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_R_G", UVC_COLORMATRIX_R_G, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_R_B", UVC_COLORMATRIX_R_B, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_G_R", UVC_COLORMATRIX_G_R, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_G_G", UVC_COLORMATRIX_G_G, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_G_B", UVC_COLORMATRIX_G_B, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_B_R", UVC_COLORMATRIX_B_R, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_B_G", UVC_COLORMATRIX_B_G, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrix_B_B", UVC_COLORMATRIX_B_B, kMatrixUnit, ControlKind::Number, kNoMatrix),
    Matrix("ColorMatrixConvAlg", UVC_COLORMATRIX_CONVERSION_ALGORITHM),
    Matrix("ColorMatrixReset", UVC_COLORMATRIX_RESET, "", ControlKind::Action),
    Matrix("BayerPattern", UVC_COLORMATRIX_BAYER_PATTERN),
    Matrix("DefectCorrection", UVC_COLORMATRIX_DEFECT_CORRECTION, "", ControlKind::Switch),
};
// All items of the four sets but the three lists of defective pixels (33 to 35 of the colour matrix); 125 has two rows.
static_assert(std::size(kRows) == 13 + 16 + 28 + 1 + 17 - 3);
// The registry has 34 names, two of them for 101.
static_assert(std::ranges::count(kRows, true, &ControlRow::kept) == 34 - 1);

std::string Plain(std::string_view name) {
    std::string plain;
    for (const char character : name) {
        if (std::isalnum(static_cast<unsigned char>(character)) != 0)
            plain += static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return plain;
}

// How many letters to change, add or leave out to make one text of the other.
std::size_t Distance(const std::string &from, const std::string &to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0u);
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t changed = diagonal + (from[i] != to[j] ? 1 : 0);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

std::span<const ControlRow> ControlTable() {
    return kRows;
}

const ControlRow *FindControl(std::string_view name) {
    const std::string plain = Plain(name);
    const auto found = std::ranges::find_if(kRows, [&](const ControlRow &row) { return Plain(row.name) == plain; });
    return found != std::end(kRows) ? found : nullptr;
}

const ControlRow &RequireControl(std::string_view name) {
    if (const ControlRow *row = FindControl(name))
        return *row;
    const std::string plain = Plain(name);
    const auto nearest =
        std::ranges::min_element(kRows, {}, [&](const ControlRow &row) { return Distance(plain, Plain(row.name)); });
    std::string message = "no control is named \"" + std::string(name) + "\"";
    if (Distance(plain, Plain(nearest->name)) <= std::max<std::size_t>(2, plain.size() / 3))
        message += "; did you mean " + std::string(nearest->name) + "?";
    throw Failure(ExitCode::Usage, message);
}

const char *SetNameOf(const ControlRow &row) {
    const GUID &set = row.control.set;
    return IsEqualGUID(set, kVideoProcAmpSet)          ? "PROPSETID_VIDCAP_VIDEOPROCAMP"
           : IsEqualGUID(set, kCameraControlSet)       ? "PROPSETID_VIDCAP_CAMERACONTROL"
           : IsEqualGUID(set, PROPSETID_PRIVATE_IMAGE) ? "PROPSETID_PRIVATE_IMAGE"
                                                       : "PROPSETID_PRIVATE_COLORMATRIX";
}

} // namespace uvcam
