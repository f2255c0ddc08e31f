// A sensor image into the client's frame: the choice of the path by destination format.
//
// The source has 8 bits a pixel. Its rows are taken for packed, as wide as the destination's, but on the way from grey
// to "RGB3", which goes by the source's stride. An image whose rows are not inside both buffers is left alone; only the
// formats that get the bytes of the source take what there is.
#pragma once

#include "imaging/demosaic.h"
#include "imaging/image.h"

namespace imaging {

// Bayer mosaic to "RGB3" or "RGB4" by demosaicing; to "BY8 ", "Y800", "YUY2" and the Bayer codes by copying rows; any
// other format gets the bytes of the source, as many as both buffers hold. Widths that the mosaic path takes are even.
void ConvertColourFrame(const ImageDescriptor &destination, const ImageDescriptor &source,
                        const std::int16_t (&matrix)[kMatrixCoefficients], const GainRecords &gains,
                        std::uint32_t flags);

// Grey to "Y800", with kSmooth smoothed; to "RGB3"; to "BY8 ", "YUY2" and the Bayer codes by copying rows; any other
// format, "RGB4" too, gets the bytes of the source, as many as both buffers hold.
void ConvertMonoFrame(const ImageDescriptor &destination, const ImageDescriptor &source, std::uint32_t flags);

// Copies destination.height packed rows of destination.width bytes, upside down if told to. The formats copied this way
// have one byte a pixel, or are treated so.
void CopyRows(const ImageDescriptor &destination, const std::uint8_t *source, bool flip);

} // namespace imaging
