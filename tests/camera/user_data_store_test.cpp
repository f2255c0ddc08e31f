#include "camera/user_data_store.h"
#include "host/executive/runtime.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace uvc {
namespace {

using imaging::DefectPixelList;
using imaging::DefectPixelLists;
using Bytes = std::vector<std::uint8_t>;

std::unique_ptr<DefectPixelLists> Lists(ULONG full, ULONG binned2, ULONG binned4) {
    auto lists = std::make_unique<DefectPixelLists>();
    std::uint16_t next = 1;
    for (auto [list, count] : {std::pair{&lists->full, full}, {&lists->binned2, binned2}, {&lists->binned4, binned4}}) {
        list->count = count;
        for (ULONG i = 0; i < count; ++i, next = static_cast<std::uint16_t>(next + 771))
            list->pixels[i] = {.x = next, .y = static_cast<std::uint16_t>(next ^ 0x5A5A)};
    }
    return lists;
}

Bytes Encoded(const DefectPixelLists &lists) {
    auto buffer = std::make_unique<std::array<std::uint8_t, kUserDataMaximumBytes>>();
    const ULONG length = EncodeUserData(lists, *buffer);
    return {buffer->begin(), buffer->begin() + length};
}

void PutU16(Bytes &bytes, std::size_t at, unsigned value) {
    bytes[at] = static_cast<std::uint8_t>(value);
    bytes[at + 1] = static_cast<std::uint8_t>(value >> 8);
}

// Makes the checksum that of what stands behind the header, so that what follows it is looked at.
void Seal(Bytes &bytes) {
    ULONG crc = ~ULONG{0};
    for (std::size_t i = kUserDataHeaderBytes; i < bytes.size(); ++i)
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ (((crc ^ bytes[i] >> bit) & 1) != 0 ? 0xEDB88320 : 0);
    PutU16(bytes, 8, static_cast<unsigned>(bytes.size() - kUserDataHeaderBytes));
    PutU16(bytes, 12, ~crc);
    PutU16(bytes, 14, ~crc >> 16);
}

class UserDataStore : public testing::Test {
  protected:
    host::Runtime runtime;
};

TEST_F(UserDataStore, KeepsItsLayout) {
    auto lists = std::make_unique<DefectPixelLists>();
    lists->full.count = 1;
    lists->full.pixels[0] = {.x = 0x0102, .y = 0x0304};
    lists->binned4.count = 2;
    lists->binned4.pixels[0] = {.x = 5, .y = 6};
    lists->binned4.pixels[1] = {.x = 7, .y = 8};
    // The checksum was made with another program.
    EXPECT_EQ(Encoded(*lists),
              (Bytes{'U', 'D', 'S', 'T', 1, 0, 2, 0, 20, 0, 0, 0, 0xFE, 0xBF, 0x99, 0xD3, //
                     1,   0,   1,   0,   2, 1, 4, 3, 4,  0, 2, 0, 5,    0,    6,    0,    7, 0, 8, 0}));
}

TEST_F(UserDataStore, BringsBackWhatWasStored) {
    for (auto [full, binned2, binned4] :
         {std::array<ULONG, 3>{0, 0, 0}, {1, 0, 0}, {0, 3, 0}, {2, 0, 255}, {256, 256, 256}}) {
        const auto lists = Lists(full, binned2, binned4);
        Bytes stored = Encoded(*lists);
        stored.resize(stored.size() + 100, 0xFF); // what lies behind in the store
        auto read = Lists(7, 7, 7);
        EXPECT_EQ(DecodeUserData(stored, *read), STATUS_SUCCESS);
        EXPECT_EQ(std::memcmp(read.get(), lists.get(), sizeof(*read)), 0) << full << " " << binned2 << " " << binned4;
    }
    const auto tooLong = Lists(0, 0, 256);
    Bytes whole = Encoded(*tooLong);
    tooLong->binned4.count = 1000;
    EXPECT_EQ(Encoded(*tooLong), whole);
    EXPECT_EQ(runtime.DebugLog(), "");
}

TEST_F(UserDataStore, AnEmptyStoreHasNoLists) {
    for (const Bytes &bytes : {Bytes(16, 0xFF), Bytes(3000, 0xFF), Bytes(16, 0), Bytes{}, Bytes{'U', 'D', 'S'},
                               Bytes{'u', 'd', 's', 't', 1, 0, 9, 9}}) {
        auto lists = Lists(3, 3, 3);
        EXPECT_EQ(DecodeUserData(bytes, *lists), STATUS_SUCCESS);
        EXPECT_EQ(lists->full.count | lists->binned2.count | lists->binned4.count, 0u);
    }
    EXPECT_EQ(runtime.DebugLog(), "");
}

// Lists of 2 and 3 pixels: the first begins at byte 16, the second at 28.
TEST_F(UserDataStore, RefusesWhatIsNotAsItShouldBe) {
    struct Case {
        const char *name;
        std::function<void(Bytes &)> damage;
        bool seal = true;
    };
    const Case cases[] = {
        {"version 0", [](Bytes &b) { PutU16(b, 4, 0); }},
        {"version 2", [](Bytes &b) { PutU16(b, 4, 2); }},
        {"four lists", [](Bytes &b) { PutU16(b, 6, 4); }},
        {"more lists than there are", [](Bytes &b) { PutU16(b, 6, 3); }},
        {"fewer lists than there are", [](Bytes &b) { PutU16(b, 6, 1); }},
        {"longer than the store", [](Bytes &b) { PutU16(b, 10, 1); }, false},
        {"longer than what follows", [](Bytes &b) { PutU16(b, 8, 29); }, false},
        {"shorter than the lists", [](Bytes &b) { PutU16(b, 8, 27); }, false},
        {"a bit of the checksum", [](Bytes &b) { b[15] ^= 0x80; }, false},
        {"a bit of a pixel", [](Bytes &b) { b[40] ^= 1; }, false},
        {"binning 0", [](Bytes &b) { PutU16(b, 16, 0); }},
        {"binning 3", [](Bytes &b) { PutU16(b, 28, 3); }},
        {"binning 8", [](Bytes &b) { PutU16(b, 28, 8); }},
        {"one binning twice", [](Bytes &b) { PutU16(b, 28, 1); }},
        {"257 pixels",
         [](Bytes &b) {
             b.resize(28 + 4 + 257 * 4);
             PutU16(b, 30, 257);
         }},
        {"a pixel too many", [](Bytes &b) { PutU16(b, 30, 4); }},
        {"a pixel too few", [](Bytes &b) { PutU16(b, 30, 2); }},
        {"a byte behind the lists", [](Bytes &b) { b.push_back(0); }},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        Bytes bytes = Encoded(*Lists(2, 3, 0));
        ASSERT_EQ(bytes.size(), 44u);
        test.damage(bytes);
        if (test.seal)
            Seal(bytes);
        auto lists = Lists(3, 3, 3);
        const std::size_t told = runtime.DebugLog().size();
        EXPECT_EQ(DecodeUserData(bytes, *lists), STATUS_DATA_ERROR);
        const DefectPixelLists empty{};
        EXPECT_EQ(std::memcmp(lists.get(), &empty, sizeof(empty)), 0);
        EXPECT_EQ(runtime.DebugLog().compare(told, 29, "[uvc_drv] user data refused: "), 0);
    }
}

// Cut off anywhere, with a checksum that fits what is left: never a read behind the end, never a list.
TEST_F(UserDataStore, RefusesEveryTruncation) {
    const Bytes whole = Encoded(*Lists(2, 3, 1));
    for (std::size_t length = 4; length < whole.size(); ++length) {
        for (bool seal : {false, true}) {
            Bytes bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
            if (seal && length >= kUserDataHeaderBytes)
                Seal(bytes);
            bytes.shrink_to_fit();
            auto lists = Lists(1, 1, 1);
            EXPECT_EQ(DecodeUserData(bytes, *lists), STATUS_DATA_ERROR) << length;
            EXPECT_EQ(lists->full.count | lists->binned2.count | lists->binned4.count, 0u) << length;
        }
    }
}

} // namespace
} // namespace uvc
