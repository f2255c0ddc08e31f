#include "camera/colour_correction.h"

#include "imaging/conversion.h"

#include <iterator>

namespace uvc {

void LabelSource(const imaging::ImageDescriptor &destination, ULONG pattern, imaging::ImageDescriptor &source) {
    static constexpr ULONG kMosaics[] = {imaging::kFourCcBayerBg, imaging::kFourCcBayerGb, imaging::kFourCcBayerGr,
                                         imaging::kFourCcBayerRg};
    if (destination.fourcc == imaging::kFourCcGrey8 || destination.fourcc == imaging::kFourCcBayer8)
        source.fourcc = imaging::kFourCcGrey8;
    else if (source.fourcc == imaging::kFourCcGrey8 || source.fourcc == imaging::kFourCcBayer8)
        source.fourcc = pattern < std::size(kMosaics) ? kMosaics[pattern] : 0;
}

void ConvertImage(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, bool colour,
                  const ColourCorrection &correction, ULONG flags) {
    if (correction.matrixEnabled)
        flags |= imaging::kApplyMatrix;
    if (correction.gainsEnabled)
        flags |= imaging::kApplyGains;
    if (correction.smoothing)
        flags |= imaging::kSmooth;
    if (colour)
        imaging::ConvertColourFrame(destination, source, correction.matrix, correction.gains, flags);
    else
        imaging::ConvertMonoFrame(destination, source, flags);
}

} // namespace uvc
