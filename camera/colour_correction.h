// What families B and C apply to an image beside the demosaic, and the conversion itself.
#pragma once

#include "imaging/image.h"
#include "platform/platform.h"

namespace uvc {

// What one frame is converted with. Fixed point, 64 is 1.0.
struct ColourCorrection {
    bool matrixEnabled;
    SHORT matrix[imaging::kMatrixCoefficients]; // row by row: red, green, blue from red, green, blue
    bool gainsEnabled;
    imaging::GainRecords gains; // only the current values count
    bool smoothing;
};

// Names the colours of a colour camera's image by its Bayer pattern (0 B-G, 1 G-B, 2 G-R, 3 R-G; any other names none).
// For an output of raw bytes it is named grey, since nobody will look at its colours.
void LabelSource(const imaging::ImageDescriptor &destination, ULONG pattern, imaging::ImageDescriptor &source);

// Converts with the enabled corrections; matrix and gains count only for colour images. IRQL: PASSIVE_LEVEL. Lock:
// none. `flags` may ask for vector sets that the processor does not have; those are not used.
void ConvertImage(const imaging::ImageDescriptor &destination, const imaging::ImageDescriptor &source, bool colour,
                  const ColourCorrection &correction, ULONG flags);

} // namespace uvc
