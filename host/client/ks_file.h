// What filters, pins and clocks have in common from an application's side: a handle that takes property requests.
#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace host::client {

using Bytes = std::span<std::uint8_t>;
using ConstBytes = std::span<const std::uint8_t>;

// The bytes of a structure.
template <class T> Bytes BytesOf(T &value) {
    return {reinterpret_cast<std::uint8_t *>(&value), sizeof(value)};
}
template <class T> ConstBytes BytesOf(const T &value) {
    return {reinterpret_cast<const std::uint8_t *>(&value), sizeof(value)};
}

// What basic support tells about a property whose value is a LONG.
struct PropertyRange {
    ULONG access = 0; // KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET
    bool hasRange = false;
    LONG minimum = 0;
    LONG maximum = 0;
    LONG step = 0;
    bool hasDefault = false;
    LONG defaultValue = 0;
};

// Owns a handle. IRQL of all: PASSIVE_LEVEL. Every request is made as a user's, from user mode.
class KsFile {
  public:
    KsFile() = default;
    ~KsFile() { Close(); }
    KsFile(const KsFile &) = delete;
    KsFile &operator=(const KsFile &) = delete;

    bool IsOpen() const { return handle_ != nullptr; }
    HANDLE Handle() const { return handle_; }
    void Close();

    // One IOCTL_KS_PROPERTY with exactly these buffers, right or wrong. `returned` is the request's information, which
    // a warning such as STATUS_BUFFER_OVERFLOW gives too.
    NTSTATUS RawProperty(const void *input, ULONG inputLength, void *output, ULONG outputLength,
                         ULONG *returned = nullptr);

    // A KSPROPERTY followed by `instance`, and `data` in the direction that `flags` (KSPROPERTY_TYPE_...) say.
    NTSTATUS Property(const GUID &set, ULONG id, ULONG flags, ConstBytes instance, Bytes data,
                      ULONG *returned = nullptr);

    // For properties whose block begins with the KSPROPERTY itself (KSPROPERTY_VIDEOPROCAMP_S and its like): the block
    // is both input and output.
    NTSTATUS GetBlock(const GUID &set, ULONG id, Bytes block, ULONG *returned = nullptr);
    NTSTATUS SetBlock(const GUID &set, ULONG id, Bytes block);

    // A property whose answer has a size of its own: asked for the size first, then for the bytes.
    NTSTATUS GetSized(const GUID &set, ULONG id, ConstBytes instance, std::vector<std::uint8_t> &data);

    NTSTATUS BasicSupport(const GUID &set, ULONG id, PropertyRange &range);

  protected:
    // `root` null: an absolute name. The name may carry bytes that are no text.
    NTSTATUS OpenFile(HANDLE root, std::u16string_view name, ULONG options);

    HANDLE handle_ = nullptr;
};

} // namespace host::client
