#include "platform/byte_cursor.h"

#include <gtest/gtest.h>

#include <array>

TEST(ByteCursor, ReadsLittleEndianAndStaysFailedBeyondTheEnd) {
    const std::array<std::uint8_t, 8> bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    ByteCursor cursor(bytes);
    EXPECT_EQ(cursor.U8(), 0x01);
    EXPECT_EQ(cursor.U16(), 0x0302);
    EXPECT_EQ(cursor.U32(), 0x07060504u);
    EXPECT_TRUE(cursor.Ok());
    EXPECT_EQ(cursor.U16(), 0);
    EXPECT_FALSE(cursor.Ok());
    // The one byte that was left is not handed out after the failure.
    EXPECT_EQ(cursor.U8(), 0);
    EXPECT_EQ(cursor.Remaining(), 0u);
}

TEST(ByteCursor, CarvesPartsThatCannotReachBeyondThemselves) {
    const std::array<std::uint8_t, 4> bytes{1, 2, 3, 4};
    ByteCursor cursor(bytes);
    ByteCursor part = cursor.Carve(2);
    EXPECT_EQ(part.U32(), 0u);
    EXPECT_FALSE(part.Ok());
    EXPECT_TRUE(cursor.Ok());
    EXPECT_EQ(cursor.U8(), 3);
    EXPECT_FALSE(cursor.Carve(2).Ok());
}
