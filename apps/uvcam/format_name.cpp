#include "apps/uvcam/format_name.h"

#include <cctype>
#include <cstdio>

namespace uvcam {

std::string FourCcOf(const KS_BITMAPINFOHEADER &bitmap) {
    if (bitmap.biCompression == 0)
        return bitmap.biBitCount == 32 ? "RGB4" : bitmap.biBitCount == 24 ? "RGB3" : "RGB";
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const int character = static_cast<int>(bitmap.biCompression >> shift & 0xFF);
        if (std::isprint(character) == 0) {
            char number[16];
            std::snprintf(number, sizeof(number), "%08X", static_cast<unsigned>(bitmap.biCompression));
            return number;
        }
        text += static_cast<char>(character);
    }
    return text;
}

bool NamesFormat(const std::string &text, const std::string &fourCc) {
    std::string upper;
    for (char character : text)
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    if (upper.size() < fourCc.size())
        upper.resize(fourCc.size(), ' ');
    return upper == fourCc;
}

} // namespace uvcam
