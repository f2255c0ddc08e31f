// Records of the offered video formats, built from UVC descriptor values.
#pragma once

#include "platform/platform.h"

namespace uvc {

struct FormatRecord {
    ULONG formatIndex; // bFormatIndex
    ULONG frameIndex;  // bFrameIndex
    KS_DATARANGE_VIDEO range;
};
static_assert(sizeof(FormatRecord) == 304);

// Subtypes by which the camera classes compare, and those that records are derived for.
extern const GUID kSubtypeY800;
extern const GUID kSubtypeBy8;
extern const GUID kSubtypeYuy2;
extern const GUID kSubtypeRgb24;
extern const GUID kSubtypeRgb32;

// The compression code of a subtype: its first 32 bits, 0 for 24- and 32-bit RGB.
ULONG CompressionOf(const GUID &subtype);

// Fills a range of fixed size. Intervals in 100 ns; an interval of 0 counts as 1.
void BuildVideoRange(const GUID &subtype, LONG width, LONG height, USHORT bitsPerPixel, LONGLONG defaultInterval,
                     LONGLONG minimumInterval, LONGLONG maximumInterval, KS_DATARANGE_VIDEO &range);

// A record of the same UVC format and frame for another output subtype; size limits and steps survive.
void DeriveFormatRecord(FormatRecord &record, const FormatRecord &source, const GUID &subtype, USHORT bitsPerPixel);

// The sensor's image parameters during a stream.
void BuildSensorHeader(const GUID &subtype, LONG width, LONG height, USHORT bitsPerPixel, LONGLONG defaultInterval,
                       KS_VIDEOINFOHEADER &header);

// Whether a format lies in a range: compression and bit count, width and absolute height with their steps, and a
// source rectangle equal to the target rectangle. The frame interval is not looked at.
bool FormatMatchesRange(const KS_VIDEOINFOHEADER &format, const KS_DATARANGE_VIDEO &range);

} // namespace uvc
