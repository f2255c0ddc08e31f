#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/session.h"

#include "host/client/property_set.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>
#include <optional>
#include <span>

namespace uvcam {

namespace {

using host::client::BytesOf;
using host::client::Filter;

// The blocks of the two information sets.
struct TextBlock {
    KSPROPERTY property;
    ULONG number;
    char text[256];
};
static_assert(sizeof(TextBlock) == 288);

struct SerialBlock {
    KSPROPERTY property;
    ULONGLONG serial;
    char product[256];
};
static_assert(sizeof(SerialBlock) == 288);

struct ModelBlock {
    KSPROPERTY property;
    ULONG constants[2];
    ULONG productId;
    char version[256];
};
static_assert(sizeof(ModelBlock) == 296);

struct VersionBlock {
    ULONG kind;
    ULONG reserved;
    USHORT words[4]; // last, third, second and first number
    char16_t buildKind[64];
};
static_assert(sizeof(VersionBlock) == 144);

struct CameraBlock {
    char product[128];
    char manufacturer[128];
    char serialText[128];
    ULONG kind;
    ULONG vendorId;
    ULONG productId;
    ULONG sensorCode;
    ULONGLONG serial;
    ULONG version;
    ULONG firmware;
    ULONG reserved[2];
};
static_assert(sizeof(CameraBlock) == 424);

struct ParameterRow {
    ULONG id;
    const char *name;
    ULONG size; // of its value; 0: it cannot be read
};

constexpr ParameterRow kParameters[] = {
    {1, "StatisticsOverlay", 4},  {2, "DiscardIncompleteFrames", 4},
    {3, "RestartLoader", 0},      {4, "FirmwareRevision", 4},
    {5, "DeviceStatus", 4},       {6, "PassThrough", 0},
    {10, "TransferCount", 4},     {11, "UserRegister", 0},
    {12, "ControlTimeoutMs", 4},  {14, "StreamingMode", 4},
    {15, "CameraDescription", 8}, {16, "FamilySwitch", 4},
    {17, "MeasureFrameRate", 4},  {18, "ZeroBuffers", 4},
    {19, "SensorColours", 8},     {20, "WriteUserData", 0},
    {21, "ReloadUserData", 0},    {22, "DumpUserData", 0},
    {23, "ClearUserData", 0},     {24, "CyclePort", 0},
    {25, "Ignored", 4},           {26, "InstructionSet", 4},
    {27, "VendorRegister", 4},
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

std::string Describe(const VersionBlock &version) {
    std::string text;
    for (const int i : {3, 2, 1, 0})
        text += std::to_string(version.words[i]) + (i != 0 ? "." : "");
    return text;
}

std::string BuildKind(const VersionBlock &version) {
    std::string text;
    for (const char16_t *at = version.buildKind; at != std::end(version.buildKind) && *at != 0; ++at)
        text += static_cast<char>(*at);
    return text;
}

// Null for what cannot be read, bytes in hexadecimal for what is no number.
nlohmann::json ReadParameter(Filter &filter, const ParameterRow &row) {
    std::uint8_t bytes[8]{};
    const std::span value(bytes, row.size);
    if (row.size == 0 ||
        !NT_SUCCESS(filter.Property(host::client::kDriverParameterSet, row.id, KSPROPERTY_TYPE_GET, value, value)))
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
        if (NT_SUCCESS(filter.Property(host::client::kDriverParameterSet, row.id, KSPROPERTY_TYPE_BASICSUPPORT,
                                       instance, BytesOf(access))) &&
            access != 0)
            parameters.push_back({{"id", row.id}, {"name", row.name}, {"value", ReadParameter(filter, row)}});
    }
    return parameters;
}

} // namespace

void Info(const InfoOptions &options) {
    Session session({.camera = options.camera, .settings = options.settings});
    const auto vendor = Ask<TextBlock>(session, host::client::kDeviceInformationSet, 100);
    const auto serial = Ask<SerialBlock>(session, host::client::kDeviceInformationSet, 101);
    const auto model = Ask<ModelBlock>(session, host::client::kDeviceInformationSet, 102);
    const auto version = Ask<VersionBlock>(session, host::client::kDriverInformationSet, 0);
    const auto camera = Ask<CameraBlock>(session, host::client::kDriverInformationSet, 1);
    const auto parameters = ReadParameters(session.Filter());

    if (options.json) {
        const nlohmann::ordered_json info{
            {"camera", options.camera},
            {"vendorId", vendor.number},
            {"vendor", Text(vendor.text)},
            {"productId", model.productId},
            {"product", Text(serial.product)},
            {"serial", Text(camera.serialText)},
            {"serialNumber", serial.serial},
            {"firmware", camera.firmware != 0 ? nlohmann::ordered_json(camera.firmware) : nlohmann::ordered_json()},
            {"driverVersion", Describe(version)},
            {"driverBuild", BuildKind(version)},
            {"parameters", parameters}};
        std::printf("%s\n", info.dump(2).c_str());
        return;
    }
    std::printf("vendor    %04x  %s\n", static_cast<unsigned>(vendor.number), Text(vendor.text).c_str());
    std::printf("product   %04x  %s\n", static_cast<unsigned>(model.productId), Text(serial.product).c_str());
    std::printf("serial    %s\n", Text(camera.serialText).c_str());
    std::printf("firmware  %s\n", camera.firmware != 0 ? std::to_string(camera.firmware).c_str() : "not told");
    std::printf("driver    uvc_drv, ver=%s build (%s)\n", Describe(version).c_str(), BuildKind(version).c_str());
    std::printf("parameters\n");
    for (const auto &parameter : parameters)
        std::printf("  %2u  %-24s  %s\n", parameter["id"].get<unsigned>(), parameter["name"].get<std::string>().c_str(),
                    parameter["value"].is_null() ? "-" : parameter["value"].dump().c_str());
}

} // namespace uvcam
