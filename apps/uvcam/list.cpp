#include "apps/uvcam/commands.h"

#include "host/cameras/catalogue.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace uvcam {

void List(const ListOptions &options) {
    auto cameras = nlohmann::ordered_json::array();
    for (const host::cameras::CameraListing &camera : host::cameras::ListCameras()) {
        if (options.json)
            cameras.push_back({{"name", camera.name},
                               {"vendor", camera.vendorId},
                               {"product", camera.productId},
                               {"title", camera.product}});
        else
            std::printf("%-12s  %04x:%04x  %s\n", camera.name.c_str(), camera.vendorId, camera.productId,
                        camera.product.c_str());
    }
    if (options.json)
        std::printf("%s\n", cameras.dump(2).c_str());
}

} // namespace uvcam
