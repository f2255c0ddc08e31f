#include "camera/colour_correction.h"

#include "imaging/conversion.h"
#include "imaging/processor_features.h"

#include <iterator>

namespace uvc {

namespace {

// What of a flag word is no processor feature.
constexpr ULONG kOptionFlags = (ULONG{1} << imaging::kFeatureShift) - 1;

} // namespace

void LabelSource(const imaging::ImageDescriptor &destination, ULONG pattern, imaging::ImageDescriptor &source) {
    static constexpr ULONG kMosaics[] = {imaging::kFourCcBayerBg, imaging::kFourCcBayerGb, imaging::kFourCcBayerGr,
                                         imaging::kFourCcBayerRg};
    if (destination.fourcc == imaging::kFourCcGrey8 || destination.fourcc == imaging::kFourCcBayer8)
        source.fourcc = imaging::kFourCcGrey8;
    else if (source.fourcc == imaging::kFourCcGrey8 || source.fourcc == imaging::kFourCcBayer8)
        source.fourcc = pattern < std::size(kMosaics) ? kMosaics[pattern] : 0;
}

void ConvertImage(const imaging::ImageDescriptor &destination, const imaging::ImageDescriptor &source, bool colour,
                  const ColourCorrection &correction, ULONG flags) {
    // A client chooses the instruction set by number, whatever the processor has.
    flags &= imaging::DetectProcessorFeatures() << imaging::kFeatureShift | kOptionFlags;
    if (correction.matrixEnabled)
        flags |= imaging::kApplyMatrix;
    if (correction.gainsEnabled)
        flags |= imaging::kApplyGains;
    if (correction.smoothing)
        flags |= imaging::kSmooth;
    if (!colour) {
        imaging::ConvertMonoFrame(destination, source, flags);
        return;
    }
    imaging::ConvertColourFrame(destination, source, correction.matrix, correction.gains, flags);
}

} // namespace uvc
