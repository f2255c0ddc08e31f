// The descriptors of real products, as they are and damaged: the driver starts or says why not, and never comes to
// harm.
#include "tests/driver/capture_rig.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

namespace uvc::driver_test {

namespace {

struct Product {
    std::string name;
    bool bulk; // a bulk pipe on interface 1, alternate setting 0
};

std::vector<Product> Products() {
    std::ifstream index(UVC_TEST_DATA "/cameras/index.tsv");
    std::vector<Product> products;
    std::string line;
    std::getline(index, line); // heading
    while (std::getline(index, line)) {
        const std::size_t tab = line.find('\t');
        if (tab != std::string::npos)
            products.push_back({line.substr(0, tab), line.substr(tab + 1) == "yes"});
    }
    return products;
}

std::vector<std::uint8_t> ReadFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string PathOf(const std::string &name, const char *part) {
    return UVC_TEST_DATA "/cameras/" + name + part;
}

// The pin's stand-in ranges for a camera without usable formats.
bool IsTemplate(const KS_DATARANGE_VIDEO &range) {
    return range.ConfigCaps.OutputGranularityX == 8;
}

class RealCamera : public testing::TestWithParam<Product> {};

TEST_P(RealCamera, StreamsOrSaysWhyNot) {
    const Product &product = GetParam();
    Rig rig("file:" + PathOf(product.name, ".dev.bin") + "," + PathOf(product.name, ".cfg.bin"));
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    const auto ranges = rig.app.Ranges();
    ASSERT_FALSE(ranges.empty());
    ASSERT_EQ(rig.app.OpenPin(ranges.front()), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Pause(), STATUS_SUCCESS);
    const NTSTATUS status = rig.app.pin.SetState(KSSTATE_RUN);
    if (!product.bulk) {
        EXPECT_EQ(status, STATUS_DEVICE_NOT_CONNECTED);
    } else if (IsTemplate(ranges.front())) {
        EXPECT_EQ(status, STATUS_INVALID_PARAMETER); // compressed formats only
        EXPECT_EQ(ranges.size(), 2u);
    } else {
        ASSERT_EQ(status, STATUS_SUCCESS);
        host::client::Frame *frame = rig.app.Next();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->Status(), STATUS_SUCCESS);
    }
}

INSTANTIATE_TEST_SUITE_P(Products, RealCamera, testing::ValuesIn(Products()), [](const auto &info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

// Bytes changed, cut off or repeated at random: whatever comes of it, the computer shuts down with nothing left.
TEST(RealCameras, DamagedDescriptorsDoNoHarm) {
    constexpr int kRounds = 400;
    const std::vector<Product> products = Products();
    ASSERT_FALSE(products.empty());
    std::mt19937 random(20110503);
    auto below = [&](std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random); };
    host::client::Computer computer(DriverEntry);
    const auto before = computer.Machine().OutstandingPool();
    unsigned started = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round);
        const Product &product = products[below(products.size())];
        const auto device = ReadFile(PathOf(product.name, ".dev.bin"));
        auto configuration = ReadFile(PathOf(product.name, ".cfg.bin"));
        for (std::size_t changes = 1 + below(6); changes > 0; --changes)
            configuration[9 + below(configuration.size() - 9)] = static_cast<std::uint8_t>(random());
        if (below(4) == 0)
            configuration.resize(9 + below(configuration.size() - 9));
        std::string reason;
        std::shared_ptr<host::cameras::SimulatedCamera> camera =
            host::cameras::MakeCamera(device, configuration, {}, reason);
        if (!camera)
            continue; // nothing that a bus would report
        if (NT_SUCCESS(computer.PlugIn(camera))) {
            ++started;
            Application app;
            ASSERT_EQ(app.OpenFilter(), STATUS_SUCCESS);
            const auto ranges = app.Ranges();
            if (!ranges.empty() && NT_SUCCESS(app.OpenPin(ranges[below(ranges.size())])) &&
                app.Info().bmiHeader.biSizeImage < 64u << 20)
                app.Run(); // may fail; frames need not come
        }
        computer.Unplug();
        const auto after = computer.Machine().OutstandingPool();
        ASSERT_EQ(after.blocks, before.blocks);
    }
    EXPECT_GT(started, kRounds / 4u);
}

} // namespace

} // namespace uvc::driver_test
