#include "apps/uvcam/byte_file.h"
#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"

#include "imaging/conversion.h"
#include "imaging/processor_features.h"

#include <algorithm>
#include <cctype>
#include <limits>

namespace uvcam {

namespace {

using namespace imaging;

struct FormatRow {
    const char *name;
    std::uint32_t bytesPerPixel;
    bool source;
};

constexpr FormatRow kFormats[] = {
    {"B1BG", 1, true}, {"B1GB", 1, true},  {"B1GR", 1, true},  {"B1RG", 1, true},  {"BY8 ", 1, true},
    {"Y800", 1, true}, {"RGB3", 3, false}, {"RGB4", 4, false}, {"YUY2", 2, false},
};

struct SetRow {
    const char *name;
    std::uint32_t features;
};

constexpr SetRow kSets[] = {
    {"scalar", 0},
    {"sse2", kFeatureMmx | kFeatureSse | kFeatureSse2},
    {"sse4.1", kFeatureMmx | kFeatureSse | kFeatureSse2 | kFeatureSse3 | kFeatureSsse3 | kFeatureSse41},
};

std::uint32_t FourCcOf(const FormatRow &format) {
    std::uint32_t code = 0;
    for (int i = 3; i >= 0; --i)
        code = code << 8 | static_cast<unsigned char>(format.name[i]);
    return code;
}

const FormatRow &FindFormat(const char *option, std::string text, bool asSource) {
    for (char &character : text)
        character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    if (text == "BY8")
        text += ' ';
    std::string known;
    for (const FormatRow &format : kFormats) {
        if (asSource && !format.source)
            continue;
        if (text == format.name)
            return format;
        known += std::string(known.empty() ? "" : ", ") + format.name;
    }
    throw Failure(ExitCode::Usage, std::string(option) + " " + text + ": expected one of " + known);
}

// As detected, or the set that was asked for.
std::uint32_t ChooseFeatures(const std::string &isa) {
    const std::uint32_t detected = DetectProcessorFeatures();
    if (isa.empty())
        return detected;
    for (const SetRow &set : kSets) {
        if (isa != set.name)
            continue;
        if ((detected & set.features) != set.features)
            throw Failure(ExitCode::Failed, "--isa " + isa + ": this processor does not have it");
        return set.features;
    }
    throw Failure(ExitCode::Usage, "--isa " + isa + ": expected scalar, sse2 or sse4.1");
}

void CheckSize(const Size &size) {
    const auto pixels = static_cast<std::uint64_t>(size.width) * static_cast<std::uint64_t>(size.height);
    if (size.width % 2 != 0 || static_cast<std::uint32_t>(size.width) < kMinimumRowWidth || size.height < 2)
        throw Failure(ExitCode::Usage, "--size: expected an even width of at least " +
                                           std::to_string(kMinimumRowWidth) + " and a height of at least 2");
    if (4 * pixels > std::numeric_limits<std::uint32_t>::max())
        throw Failure(ExitCode::Usage, "--size: an image has at most 4 GB");
}

} // namespace

void Convert(const ConvertOptions &options) {
    const FormatRow &from = FindFormat("--from", options.from, true);
    const FormatRow &to = FindFormat("--to", options.to, false);
    CheckSize(options.size);
    std::uint32_t flags = (ChooseFeatures(options.isa) & kFeatureMask) << kFeatureShift;
    flags |= options.smooth ? kSmooth : 0;
    flags |= options.topDown ? kOrientation : 0;
    GainRecords gains{};
    if (options.gains) {
        flags |= kApplyGains;
        gains.red.current = (*options.gains)[0];
        gains.green.current = (*options.gains)[1];
        gains.blue.current = (*options.gains)[2];
    }
    std::int16_t matrix[kMatrixCoefficients]{};
    if (options.matrix) {
        flags |= kApplyMatrix;
        std::copy(options.matrix->begin(), options.matrix->end(), matrix);
    }

    const auto width = static_cast<std::uint32_t>(options.size.width);
    const auto height = static_cast<std::uint32_t>(options.size.height);
    const std::size_t pixels = std::size_t{width} * height;
    std::vector<std::uint8_t> input = ReadBytes(options.input, pixels + 1);
    if (input.size() != pixels)
        throw Failure(ExitCode::Failed, (options.input == "-" ? "stdin" : options.input) + " has " +
                                            (input.size() < pixels ? std::to_string(input.size()) + " bytes"
                                                                   : "more than " + std::to_string(pixels) + " bytes") +
                                            "; an image of this size has " + std::to_string(pixels));
    std::vector<std::uint8_t> output(pixels * to.bytesPerPixel);
    const ImageDescriptor source{input.data(), static_cast<std::uint32_t>(input.size()), FourCcOf(from), width, height,
                                 width};
    const ImageDescriptor destination{output.data(), static_cast<std::uint32_t>(output.size()),
                                      FourCcOf(to),  width,
                                      height,        width * to.bytesPerPixel};
    if (source.fourcc == kFourCcGrey8)
        ConvertMonoFrame(destination, source, flags);
    else
        ConvertColourFrame(destination, source, matrix, gains, flags);
    WriteBytes(options.output, "", output);
}

} // namespace uvcam
