#include "camera/banner.h"

#include <gtest/gtest.h>

#include <string>

namespace uvc::camera_test {
namespace {

const std::u16string kBanner = u"uvc_drv, ver=2.1.5.616 build (fre) Tue May  3 11:48:55 2011";

TEST(Banner, IsAppendedAndCutAtTheEndOfTheBuffer) {
    WCHAR characters[100];
    for (USHORT room = 0; room <= 100; ++room) {
        std::u16string before = room >= 3 ? u"<- " : u"";
        for (std::size_t i = 0; i < 100; ++i)
            characters[i] = i < before.size() ? before[i] : u'~';
        UNICODE_STRING text{.Length = static_cast<USHORT>(2 * before.size()),
                            .MaximumLength = static_cast<USHORT>(2 * room),
                            .Buffer = characters};
        NTSTATUS status = AppendVersionBanner(&text);

        std::u16string expected = (before + kBanner).substr(0, room);
        bool fits = before.size() + kBanner.size() <= room;
        EXPECT_EQ(status, fits ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW) << room;
        ASSERT_EQ(text.Length, 2 * expected.size());
        for (std::size_t i = 0; i < 100; ++i)
            ASSERT_EQ(characters[i], i < expected.size() ? expected[i] : u'~') << room << ' ' << i;
    }
    UNICODE_STRING odd{.Length = 1, .MaximumLength = 200, .Buffer = characters};
    EXPECT_EQ(AppendVersionBanner(&odd), STATUS_INVALID_PARAMETER);
}

} // namespace
} // namespace uvc::camera_test
