// The pin's data ranges as people name them.
#pragma once

#include "platform/platform.h"

#include <string>

namespace uvcam {

// "YUY2", "Y800", "BY8 ", "RGB3", "RGB4", ... from the compression code and the bit count.
std::string FourCcOf(const KS_BITMAPINFOHEADER &bitmap);

// Whether a person's text ("by8", "BY8 ", "rgb3") means this FOURCC.
bool NamesFormat(const std::string &text, const std::string &fourCc);

} // namespace uvcam
