#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/session.h"

#include "uvc_drv/properties.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>
#include <optional>
#include <span>

namespace uvcam {

namespace {

using host::client::BytesOf;
using host::client::Filter;

struct ParameterRow {
    ULONG id;
    const char *name;
    ULONG size; // of its value; 0: it cannot be read
};

constexpr ParameterRow kParameters[] = {
    {UVC_PARAMETER_STATISTICS_OVERLAY, "StatisticsOverlay", 4},
    {UVC_PARAMETER_DISCARD_INCOMPLETE, "DiscardIncompleteFrames", 4},
    {UVC_PARAMETER_RESTART_LOADER, "RestartLoader", 0},
    {UVC_PARAMETER_FIRMWARE_REVISION, "FirmwareRevision", 4},
    {UVC_PARAMETER_DEVICE_STATUS, "DeviceStatus", 4},
    {UVC_PARAMETER_PASS_THROUGH, "PassThrough", 0},
    {UVC_PARAMETER_TRANSFER_COUNT, "TransferCount", 4},
    {UVC_PARAMETER_USER_REGISTER, "UserRegister", 0},
    {UVC_PARAMETER_CONTROL_TIMEOUT, "ControlTimeoutMs", 4},
    {UVC_PARAMETER_STREAMING_MODE, "StreamingMode", 4},
    {UVC_PARAMETER_CAMERA_DESCRIPTION, "CameraDescription", 8},
    {UVC_PARAMETER_FAMILY_SWITCH, "FamilySwitch", 4},
    {UVC_PARAMETER_MEASURE_FRAME_RATE, "MeasureFrameRate", 4},
    {UVC_PARAMETER_ZERO_BUFFERS, "ZeroBuffers", 4},
    {UVC_PARAMETER_SENSOR_COLOURS, "SensorColours", 8},
    {UVC_PARAMETER_WRITE_USER_DATA, "WriteUserData", 0},
    {UVC_PARAMETER_LOAD_USER_DATA, "ReloadUserData", 0},
    {UVC_PARAMETER_DUMP_USER_DATA, "DumpUserData", 0},
    {UVC_PARAMETER_CLEAR_USER_DATA, "ClearUserData", 0},
    {UVC_PARAMETER_CYCLE_PORT, "CyclePort", 0},
    {UVC_PARAMETER_IGNORED, "Ignored", 4},
    {UVC_PARAMETER_INSTRUCTION_SET, "InstructionSet", 4},
    {UVC_PARAMETER_VENDOR_REGISTER, "VendorRegister", 4},
};
static_assert(std::size(kParameters) == 23);

template <std::size_t size> std::string Text(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

template <class Block> Block Ask(Session &session, const GUID &set, ULONG id) {
    Block block{};
    session.Require(session.Filter().GetBlock(set, id, BytesOf(block)), "cannot ask for its information");
    return block;
}

std::string Describe(const UVC_DRIVER_VERSION_S &version) {
    std::string text;
    for (const int i : {3, 2, 1, 0})
        text += std::to_string(version.Version[i]) + (i != 0 ? "." : "");
    return text;
}

std::string BuildKind(const UVC_DRIVER_VERSION_S &version) {
    std::string text;
    for (const USHORT *at = version.BuildKind; at != std::end(version.BuildKind) && *at != 0; ++at)
        text += static_cast<char>(*at);
    return text;
}

// Null for what cannot be read, bytes in hexadecimal for what is no number.
nlohmann::json ReadParameter(Filter &filter, const ParameterRow &row) {
    std::uint8_t bytes[8]{};
    const std::span value(bytes, row.size);
    if (row.size == 0 ||
        !NT_SUCCESS(filter.Property(PROPSETID_DRIVER_PARAMETER, row.id, KSPROPERTY_TYPE_GET, value, value)))
        return {};
    if (row.size == sizeof(ULONG)) {
        ULONG number;
        std::memcpy(&number, bytes, sizeof(number));
        return number;
    }
    std::string hexadecimal;
    for (const std::uint8_t byte : value) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        hexadecimal += digits;
    }
    return hexadecimal;
}

nlohmann::ordered_json ReadParameters(Filter &filter) {
    auto parameters = nlohmann::ordered_json::array();
    for (const ParameterRow &row : kParameters) {
        ULONG access = 0;
        const std::uint8_t instance[16]{}; // the longest value, for the check of the property's length
        if (NT_SUCCESS(filter.Property(PROPSETID_DRIVER_PARAMETER, row.id, KSPROPERTY_TYPE_BASICSUPPORT, instance,
                                       BytesOf(access))) &&
            access != 0)
            parameters.push_back({{"id", row.id}, {"name", row.name}, {"value", ReadParameter(filter, row)}});
    }
    return parameters;
}

} // namespace

void Info(const InfoOptions &options) {
    Session session({.camera = options.camera, .settings = options.settings});
    const auto vendor = Ask<UVC_DEVICE_TEXT_S>(session, PROPSETID_DEVICE_INFO, UVC_DEVICE_INFO_VENDOR);
    const auto serial = Ask<UVC_DEVICE_SERIAL_S>(session, PROPSETID_DEVICE_INFO, UVC_DEVICE_INFO_SERIAL);
    const auto model = Ask<UVC_DEVICE_MODEL_S>(session, PROPSETID_DEVICE_INFO, UVC_DEVICE_INFO_MODEL);
    const auto version = Ask<UVC_DRIVER_VERSION_S>(session, PROPSETID_DRIVER_INFO, UVC_DRIVER_INFO_VERSION);
    const auto camera = Ask<UVC_CAMERA_INFO_S>(session, PROPSETID_DRIVER_INFO, UVC_DRIVER_INFO_CAMERA);
    const auto parameters = ReadParameters(session.Filter());

    if (options.json) {
        const nlohmann::ordered_json info{{"camera", options.camera},
                                          {"vendorId", vendor.Number},
                                          {"vendor", Text(vendor.Text)},
                                          {"productId", model.ProductId},
                                          {"product", Text(serial.Product)},
                                          {"serial", Text(camera.SerialText)},
                                          {"serialNumber", serial.Serial},
                                          {"firmware", camera.FirmwareRevision != 0
                                                           ? nlohmann::ordered_json(camera.FirmwareRevision)
                                                           : nlohmann::ordered_json()},
                                          {"driverVersion", Describe(version)},
                                          {"driverBuild", BuildKind(version)},
                                          {"parameters", parameters}};
        std::printf("%s\n", info.dump(2).c_str());
        return;
    }
    std::printf("vendor    %04x  %s\n", static_cast<unsigned>(vendor.Number), Text(vendor.Text).c_str());
    std::printf("product   %04x  %s\n", static_cast<unsigned>(model.ProductId), Text(serial.Product).c_str());
    std::printf("serial    %s\n", Text(camera.SerialText).c_str());
    std::printf("firmware  %s\n",
                camera.FirmwareRevision != 0 ? std::to_string(camera.FirmwareRevision).c_str() : "not told");
    std::printf("driver    uvc_drv, ver=%s build (%s)\n", Describe(version).c_str(), BuildKind(version).c_str());
    std::printf("parameters\n");
    for (const auto &parameter : parameters)
        std::printf("  %2u  %-24s  %s\n", parameter["id"].get<unsigned>(), parameter["name"].get<std::string>().c_str(),
                    parameter["value"].is_null() ? "-" : parameter["value"].dump().c_str());
}

} // namespace uvcam
