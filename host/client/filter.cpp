#include "host/client/filter.h"

#include "host/streaming/guids.h"

#include <cstring>

namespace host::client {

namespace {

constexpr GUID kCategoryCapture = streaming::MakeGuid(STATIC_KSCATEGORY_CAPTURE);
constexpr GUID kSpecifierVideoInfo = streaming::MakeGuid(STATIC_KSDATAFORMAT_SPECIFIER_VIDEOINFO);

struct PinInstance { // what follows the KSPROPERTY in a KSP_PIN
    ULONG pinId;
    ULONG reserved;
};

} // namespace

NTSTATUS FindCaptureFilters(std::vector<std::u16string> &links) {
    links.clear();
    PWSTR list = nullptr;
    NTSTATUS status = IoGetDeviceInterfaces(&kCategoryCapture, nullptr, 0, &list);
    if (!NT_SUCCESS(status))
        return status;
    // Zero-terminated texts, ended by an empty one.
    for (const auto *text = reinterpret_cast<const char16_t *>(list); *text != 0; text += links.back().size() + 1)
        links.emplace_back(text);
    ExFreePool(list);
    return STATUS_SUCCESS;
}

NTSTATUS Filter::Open(const std::u16string &link) {
    return OpenFile(nullptr, link, FILE_SYNCHRONOUS_IO_NONALERT);
}

NTSTATUS Filter::DataRanges(ULONG pinId, std::vector<KS_DATARANGE_VIDEO> &ranges) {
    ranges.clear();
    PinInstance pin{.pinId = pinId, .reserved = 0};
    std::vector<std::uint8_t> data;
    NTSTATUS status = GetSized(streaming::kPropSetPin, KSPROPERTY_PIN_DATARANGES, BytesOf(pin), data);
    if (!NT_SUCCESS(status))
        return status;
    KSMULTIPLE_ITEM list{};
    if (data.size() < sizeof(list))
        return STATUS_DATA_ERROR;
    std::memcpy(&list, data.data(), sizeof(list));
    std::size_t offset = sizeof(list);
    for (ULONG i = 0; i < list.Count; ++i) {
        KSDATARANGE head;
        if (data.size() - offset < sizeof(head))
            return STATUS_DATA_ERROR;
        std::memcpy(&head, data.data() + offset, sizeof(head));
        if (head.FormatSize < sizeof(head) || head.FormatSize > data.size() - offset)
            return STATUS_DATA_ERROR;
        if (streaming::SameGuid(head.Specifier, kSpecifierVideoInfo) && head.FormatSize >= sizeof(KS_DATARANGE_VIDEO))
            std::memcpy(&ranges.emplace_back(), data.data() + offset, sizeof(KS_DATARANGE_VIDEO));
        offset = std::min<std::size_t>(data.size(), offset + ((head.FormatSize + 7) & ~7u));
    }
    return STATUS_SUCCESS;
}

NTSTATUS Filter::Intersect(ULONG pinId, ConstBytes range, std::vector<std::uint8_t> &format) {
    PinInstance pin{.pinId = pinId, .reserved = 0};
    KSMULTIPLE_ITEM list{.Size = static_cast<ULONG>(sizeof(list) + range.size()), .Count = 1};
    std::vector<std::uint8_t> instance;
    auto append = [&](ConstBytes bytes) { instance.insert(instance.end(), bytes.begin(), bytes.end()); };
    append(BytesOf(pin));
    append(BytesOf(list));
    append(range);
    return GetSized(streaming::kPropSetPin, KSPROPERTY_PIN_DATAINTERSECTION, instance, format);
}

} // namespace host::client
