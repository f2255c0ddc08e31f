#include "apps/uvcam/luminance.h"

namespace uvcam {

imaging::ImageDescriptor Luminance::Of(std::span<const std::uint8_t> frame) {
    Picture picture = MakePicture(layout_, frame);
    if (picture.channels == 1) {
        pixels_ = std::move(picture.pixels);
    } else {
        // BT.601, with the driver's own weights for its colour means; they add up to 255, so that white stays white.
        constexpr int kWhite = 76 + 150 + 29;
        pixels_.resize(picture.pixels.size() / 3);
        for (std::size_t i = 0; i < pixels_.size(); ++i) {
            const std::uint8_t *colour = picture.pixels.data() + 3 * i;
            pixels_[i] =
                static_cast<std::uint8_t>((76 * colour[0] + 150 * colour[1] + 29 * colour[2] + kWhite / 2) / kWhite);
        }
    }
    return {.data = pixels_.data(),
            .size = static_cast<std::uint32_t>(pixels_.size()),
            .fourcc = imaging::kFourCcGrey8,
            .width = static_cast<std::uint32_t>(picture.width),
            .height = static_cast<std::uint32_t>(picture.height),
            .stride = static_cast<std::uint32_t>(picture.width)};
}

} // namespace uvcam
