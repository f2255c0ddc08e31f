#include "host/client/ks_file.h"

#include "host/executive/file.h"
#include "platform/byte_cursor.h"

#include <cstring>

namespace host::client {

void KsFile::Close() {
    if (handle_ == nullptr)
        return;
    ZwClose(handle_);
    handle_ = nullptr;
}

NTSTATUS KsFile::OpenFile(HANDLE root, std::u16string_view name, ULONG options) {
    UNICODE_STRING counted{.Length = static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                           .MaximumLength = static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                           .Buffer = const_cast<WCHAR *>(reinterpret_cast<const WCHAR *>(name.data()))};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &counted, OBJ_CASE_INSENSITIVE, root, nullptr);
    IO_STATUS_BLOCK ioStatus{};
    UserMode application;
    return ZwCreateFile(&handle_, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0, 0,
                        FILE_OPEN, options, nullptr, 0);
}

NTSTATUS KsFile::RawProperty(const void *input, ULONG inputLength, void *output, ULONG outputLength, ULONG *returned) {
    IO_STATUS_BLOCK ioStatus{};
    NTSTATUS status;
    {
        UserMode application;
        status = ZwDeviceIoControlFile(handle_, nullptr, nullptr, nullptr, &ioStatus, IOCTL_KS_PROPERTY,
                                       const_cast<void *>(input), inputLength, output, outputLength);
    }
    if (status == STATUS_PENDING)
        Violation("application", "ZwDeviceIoControlFile", "a property request was left pending");
    if (returned != nullptr)
        *returned = NT_ERROR(status) ? 0 : static_cast<ULONG>(ioStatus.Information);
    return status;
}

NTSTATUS KsFile::Property(const GUID &set, ULONG id, ULONG flags, ConstBytes instance, Bytes data, ULONG *returned) {
    std::vector<std::uint8_t> input(sizeof(KSPROPERTY) + instance.size());
    KSPROPERTY property{.Set = set, .Id = id, .Flags = flags};
    std::memcpy(input.data(), &property, sizeof(property));
    if (!instance.empty())
        std::memcpy(input.data() + sizeof(property), instance.data(), instance.size());
    return RawProperty(input.data(), static_cast<ULONG>(input.size()), data.data(), static_cast<ULONG>(data.size()),
                       returned);
}

NTSTATUS KsFile::GetBlock(const GUID &set, ULONG id, Bytes block, ULONG *returned) {
    KSPROPERTY property{.Set = set, .Id = id, .Flags = KSPROPERTY_TYPE_GET};
    std::vector<std::uint8_t> input(block.begin(), block.end());
    std::memcpy(input.data(), &property, sizeof(property));
    return RawProperty(input.data(), static_cast<ULONG>(input.size()), block.data(), static_cast<ULONG>(block.size()),
                       returned);
}

NTSTATUS KsFile::SetBlock(const GUID &set, ULONG id, Bytes block) {
    KSPROPERTY property{.Set = set, .Id = id, .Flags = KSPROPERTY_TYPE_SET};
    std::memcpy(block.data(), &property, sizeof(property));
    return RawProperty(block.data(), static_cast<ULONG>(block.size()), block.data(), static_cast<ULONG>(block.size()));
}

NTSTATUS KsFile::GetSized(const GUID &set, ULONG id, ConstBytes instance, std::vector<std::uint8_t> &data) {
    ULONG size = 0;
    NTSTATUS status = Property(set, id, KSPROPERTY_TYPE_GET, instance, {}, &size);
    if (status != STATUS_BUFFER_OVERFLOW && !NT_SUCCESS(status))
        return status;
    data.assign(size, 0);
    status = Property(set, id, KSPROPERTY_TYPE_GET, instance, data, &size);
    data.resize(NT_SUCCESS(status) ? size : 0);
    return status;
}

NTSTATUS KsFile::BasicSupport(const GUID &set, ULONG id, PropertyRange &range) {
    range = {};
    KSPROPERTY_DESCRIPTION description{};
    NTSTATUS status = Property(set, id, KSPROPERTY_TYPE_BASICSUPPORT, {}, BytesOf(description));
    if (!NT_SUCCESS(status))
        return status;
    range.access = description.AccessFlags;
    std::vector<std::uint8_t> data(description.DescriptionSize);
    status = Property(set, id, KSPROPERTY_TYPE_BASICSUPPORT, {}, data);
    if (!NT_SUCCESS(status))
        return status;

    ByteCursor cursor(data);
    cursor.Skip(sizeof(description));
    for (ULONG list = 0; list < description.MembersListCount && cursor.Ok(); ++list) {
        ULONG kind = cursor.U32();
        ULONG size = cursor.U32();
        ULONG count = cursor.U32();
        ULONG flags = cursor.U32();
        for (ULONG member = 0; member < count && cursor.Ok(); ++member) {
            ByteCursor value = cursor.Carve(size);
            if (kind == KSPROPERTY_MEMBER_STEPPEDRANGES) {
                range.step = static_cast<LONG>(value.U32());
                value.Skip(sizeof(ULONG));
                range.minimum = static_cast<LONG>(value.U32());
                range.maximum = static_cast<LONG>(value.U32());
                range.hasRange = value.Ok();
            } else if (kind == KSPROPERTY_MEMBER_VALUES && (flags & KSPROPERTY_MEMBER_FLAG_DEFAULT) != 0) {
                range.defaultValue = static_cast<LONG>(value.U32());
                range.hasDefault = value.Ok();
            }
        }
    }
    return cursor.Ok() ? STATUS_SUCCESS : STATUS_DATA_ERROR;
}

} // namespace host::client
