#include "camera/colour_correction.h"

#include "imaging/conversion.h"
#include "imaging/processor_features.h"
#include "platform/shared_field.h"

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
    if (SharedLoad(correction.matrixEnabled))
        flags |= imaging::kApplyMatrix;
    if (SharedLoad(correction.gainsEnabled))
        flags |= imaging::kApplyGains;
    if (SharedLoad(correction.smoothing))
        flags |= imaging::kSmooth;
    if (!colour) {
        imaging::ConvertMonoFrame(destination, source, flags);
        return;
    }
    SHORT matrix[imaging::kMatrixCoefficients];
    for (ULONG k = 0; k < imaging::kMatrixCoefficients; ++k)
        matrix[k] = SharedLoad(correction.matrix[k]);
    const imaging::GainRecords gains{.blue = {.current = SharedLoad(correction.gains.blue.current)},
                                     .red = {.current = SharedLoad(correction.gains.red.current)},
                                     .green = {.current = SharedLoad(correction.gains.green.current)}};
    imaging::ConvertColourFrame(destination, source, matrix, gains, flags);
}

} // namespace uvc
