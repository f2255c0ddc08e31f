#include "camera/user_data_store.h"

#include "camera/vendor_protocol.h"
#include "platform/byte_cursor.h"
#include "platform/pool.h"

#include <algorithm>
#include <cstddef>

namespace uvc {

using imaging::DefectPixel;
using imaging::DefectPixelList;
using imaging::DefectPixelLists;

namespace {

constexpr ULONG kStoreBytes = 16384;
constexpr ULONG kPieceBytes = 1024; // the most that one request moves

constexpr ULONG kMagic = 0x54534455; // "UDST"
constexpr USHORT kVersion = 1;

// The factors in the order in which their lists are written.
struct BinnedList {
    USHORT factor;
    DefectPixelList DefectPixelLists::*list;
};
constexpr BinnedList kBinnedLists[] = {
    {1, &DefectPixelLists::full}, {2, &DefectPixelLists::binned2}, {4, &DefectPixelLists::binned4}};

struct Header {
    ULONG magic = kMagic;
    USHORT version = kVersion;
    USHORT listCount = 0;
    ULONG length = 0; // of all lists
    ULONG checksum = 0;
};

// The CRC-32 of IEEE 802.3. A bit at a time: a store has 3 KB at the most and is read once.
ULONG Crc32(std::span<const std::uint8_t> bytes) {
    constexpr ULONG kPolynomial = 0xEDB88320;
    ULONG crc = ~ULONG{0};
    for (std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ ((crc & 1) != 0 ? kPolynomial : 0);
    }
    return ~crc;
}

// Appends little-endian numbers to a buffer that is known to hold them.
class ByteWriter {
  public:
    explicit ByteWriter(std::span<std::uint8_t> bytes) : bytes_(bytes) {}

    void U16(USHORT value) { Little(value, 2); }
    void U32(ULONG value) { Little(value, 4); }
    ULONG Written() const { return written_; }

  private:
    void Little(ULONG value, ULONG width) {
        for (; width != 0; --width, value >>= 8)
            bytes_[written_++] = static_cast<std::uint8_t>(value);
    }

    std::span<std::uint8_t> bytes_;
    ULONG written_ = 0;
};

ULONG CountOf(const DefectPixelList &list) {
    return std::min<ULONG>(list.count, imaging::kMaximumDefectPixels);
}

Header ReadHeader(std::span<const std::uint8_t> bytes) {
    ByteCursor cursor(bytes);
    Header header;
    header.magic = cursor.U32();
    header.version = cursor.U16();
    header.listCount = cursor.U16();
    header.length = cursor.U32();
    header.checksum = cursor.U32();
    return header;
}

// Null for a list that is as it should be, else what is wrong with it.
const char *ReadList(ByteCursor &cursor, DefectPixelLists &lists, ULONG &seenFactors) {
    const USHORT factor = cursor.U16();
    const USHORT count = cursor.U16();
    if (!cursor.Ok())
        return "a list is cut off";
    const auto *known = std::find_if(std::begin(kBinnedLists), std::end(kBinnedLists),
                                     [factor](const BinnedList &binned) { return binned.factor == factor; });
    if (known == std::end(kBinnedLists))
        return "unknown binning factor";
    if ((seenFactors & factor) != 0)
        return "two lists for one binning factor";
    seenFactors |= factor;
    if (count > imaging::kMaximumDefectPixels)
        return "a list is too long";
    DefectPixelList &list = lists.*known->list;
    for (list.count = 0; list.count < count; ++list.count) {
        DefectPixel &pixel = list.pixels[list.count];
        pixel.x = cursor.U16();
        pixel.y = cursor.U16();
    }
    return cursor.Ok() ? nullptr : "a list is cut off";
}

// Null when the lists are what the header says, else what is wrong.
const char *ReadLists(const Header &header, std::span<const std::uint8_t> bytes, DefectPixelLists &lists) {
    if (header.version != kVersion)
        return "unknown version";
    if (header.listCount > std::size(kBinnedLists))
        return "too many lists";
    if (bytes.size() < kUserDataHeaderBytes || header.length > bytes.size() - kUserDataHeaderBytes)
        return "wrong length";
    const auto content = bytes.subspan(kUserDataHeaderBytes, header.length);
    if (Crc32(content) != header.checksum)
        return "wrong checksum";
    ByteCursor cursor(content);
    ULONG seenFactors = 0;
    for (ULONG i = 0; i < header.listCount; ++i)
        if (const char *fault = ReadList(cursor, lists, seenFactors))
            return fault;
    return cursor.Remaining() == 0 ? nullptr : "wrong length";
}

using Buffer = PoolPointer<UCHAR, pool_tag::UserData>;

// One transfer for every piece of the store from `offset` on.
template <class Transfer> NTSTATUS InPieces(ULONG offset, UCHAR *data, ULONG length, Transfer transfer) {
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG done = 0; done < length && NT_SUCCESS(status); done += kPieceBytes) {
        const ULONG piece = std::min(length - done, kPieceBytes);
        status = transfer(static_cast<USHORT>(offset + done), data + done, piece);
    }
    return status;
}

NTSTATUS ReadStore(UvcCamera &camera, ULONG offset, UCHAR *data, ULONG length) {
    return InPieces(offset, data, length, [&camera](USHORT at, UCHAR *bytes, ULONG count) {
        return VendorRead(camera, kReadUserData, at, 0, bytes, count);
    });
}

NTSTATUS WriteStore(UvcCamera &camera, ULONG offset, UCHAR *data, ULONG length) {
    return InPieces(offset, data, length, [&camera](USHORT at, UCHAR *bytes, ULONG count) {
        return VendorSend(camera, kWriteUserData, at, 0, bytes, count);
    });
}

void PrintLine(ULONG offset, std::span<const UCHAR> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    char text[3 * 32 + 1];
    ULONG length = 0;
    for (UCHAR byte : bytes) {
        text[length++] = ' ';
        text[length++] = kDigits[byte >> 4];
        text[length++] = kDigits[byte & 15];
    }
    text[length] = 0;
    DbgPrint("[uvc_drv] %04x:%s\n", offset, text);
}

} // namespace

ULONG EncodeUserData(const DefectPixelLists &lists, std::span<std::uint8_t, kUserDataMaximumBytes> bytes) {
    Header header;
    ByteWriter content(bytes.subspan(kUserDataHeaderBytes));
    for (const BinnedList &binned : kBinnedLists) {
        const DefectPixelList &list = lists.*binned.list;
        const ULONG count = CountOf(list);
        if (count == 0)
            continue;
        ++header.listCount;
        content.U16(binned.factor);
        content.U16(static_cast<USHORT>(count));
        for (const DefectPixel &pixel : std::span(list.pixels, count)) {
            content.U16(pixel.x);
            content.U16(pixel.y);
        }
    }
    header.length = content.Written();
    header.checksum = Crc32(bytes.subspan(kUserDataHeaderBytes, header.length));

    ByteWriter head(bytes);
    head.U32(header.magic);
    head.U16(header.version);
    head.U16(header.listCount);
    head.U32(header.length);
    head.U32(header.checksum);
    return kUserDataHeaderBytes + header.length;
}

NTSTATUS DecodeUserData(std::span<const std::uint8_t> bytes, DefectPixelLists &lists) {
    RtlZeroMemory(&lists, sizeof(lists));
    const Header header = ReadHeader(bytes);
    if (header.magic != kMagic)
        return STATUS_SUCCESS;
    const char *fault = ReadLists(header, bytes, lists);
    if (fault == nullptr)
        return STATUS_SUCCESS;
    RtlZeroMemory(&lists, sizeof(lists));
    DbgPrint("[uvc_drv] user data refused: %s\n", fault);
    return STATUS_DATA_ERROR;
}

NTSTATUS LoadUserData(UvcCamera &camera, DefectPixelLists &lists) {
    auto buffer = Buffer::AllocateArray(NonPagedPool, kUserDataMaximumBytes);
    if (!buffer)
        return STATUS_INSUFFICIENT_RESOURCES;
    ULONG length = kUserDataHeaderBytes;
    NTSTATUS status = ReadStore(camera, 0, buffer.Get(), length);
    if (!NT_SUCCESS(status))
        return status;
    const Header header = ReadHeader({buffer.Get(), length});
    if (header.magic == kMagic) {
        length += std::min(header.length, kUserDataMaximumBytes - kUserDataHeaderBytes);
        status =
            ReadStore(camera, kUserDataHeaderBytes, buffer.Get() + kUserDataHeaderBytes, length - kUserDataHeaderBytes);
    }
    return NT_SUCCESS(status) ? DecodeUserData({buffer.Get(), length}, lists) : status;
}

NTSTATUS SaveUserData(UvcCamera &camera, const DefectPixelLists &lists) {
    auto buffer = Buffer::AllocateArray(NonPagedPool, kUserDataMaximumBytes);
    if (!buffer)
        return STATUS_INSUFFICIENT_RESOURCES;
    const ULONG length =
        EncodeUserData(lists, std::span<std::uint8_t, kUserDataMaximumBytes>(buffer.Get(), kUserDataMaximumBytes));
    NTSTATUS status = ClearUserData(camera);
    if (NT_SUCCESS(status))
        status = WriteStore(camera, kUserDataHeaderBytes, buffer.Get() + kUserDataHeaderBytes,
                            length - kUserDataHeaderBytes);
    if (NT_SUCCESS(status))
        status = WriteStore(camera, 0, buffer.Get(), kUserDataHeaderBytes);
    return status;
}

NTSTATUS ClearUserData(UvcCamera &camera) {
    return VendorSend(camera, kClearUserData, 0, 0, nullptr, 0);
}

NTSTATUS DumpUserData(UvcCamera &camera) {
    constexpr ULONG kLineBytes = 32;
    auto buffer = Buffer::AllocateArray(NonPagedPool, kStoreBytes);
    if (!buffer)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = ReadStore(camera, 0, buffer.Get(), kStoreBytes);
    if (!NT_SUCCESS(status))
        return status;
    for (ULONG offset = 0; offset < kStoreBytes; offset += kLineBytes)
        PrintLine(offset, {buffer.Get() + offset, kLineBytes});
    return status;
}

} // namespace uvc
