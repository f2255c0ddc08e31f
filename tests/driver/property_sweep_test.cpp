// Every item of the filter's property sets on every model, with every length of its buffers: status and information are
// those that the tables say.
#include "tests/driver/capture_rig.h"
#include "tests/driver/property_oracle.h"

#include <algorithm>
#include <cstring>

namespace uvc::driver_test {

namespace {

constexpr ULONG kExtra = 4; // how far lengths go beyond the block
constexpr UCHAR kCanary = 0xA5;

class PropertySweep : public testing::TestWithParam<std::string> {
  protected:
    PropertySweep() : rig_(GetParam()), oracle_(*rig_.camera) {}

    // What stands behind the property header of every request for the item.
    std::vector<std::uint8_t> Instance(const FilterItem &item) {
        std::vector<std::uint8_t> bytes;
        auto append = [&](const auto &value) {
            const auto *first = reinterpret_cast<const std::uint8_t *>(&value);
            bytes.insert(bytes.end(), first, first + sizeof(value));
        };
        if (item.number == 6 && item.id == KSPROPERTY_VIDEOCONTROL_FRAME_RATES) {
            const KS_BITMAPINFOHEADER bitmap = rig_.app.Ranges().front().VideoInfoHeader.bmiHeader;
            append(ULONG{0}); // stream
            append(ULONG{0}); // range
            append(SIZE{bitmap.biWidth, bitmap.biHeight});
        } else if (item.number == 7 && item.id == 6) {
            bytes = {1, 0, 0, 0x16, 0, 0, 0, 0, 2, 0}; // vendor request, device, in: the firmware's revision
        }
        return bytes;
    }

    // The block that a set carries: what a get answers, so that the camera takes it; 1 for a parameter without get.
    std::vector<std::uint8_t> Setting(const FilterItem &item, const std::vector<std::uint8_t> &instance) {
        std::vector<std::uint8_t> data(item.minData + kExtra);
        data[0] = item.number == 7;
        if (item.number == 7 && item.id == 6)
            return {1, 0, 1, 0x7F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}; // a vendor request that no camera knows
        std::vector<std::uint8_t> input(std::max<std::size_t>(item.minProperty, sizeof(KSPROPERTY) + instance.size()));
        Fill(item, KSPROPERTY_TYPE_GET, instance, input);
        rig_.app.filter.RawProperty(input.data(), static_cast<ULONG>(input.size()), data.data(),
                                    static_cast<ULONG>(data.size()));
        return data;
    }

    static void Fill(const FilterItem &item, ULONG flags, const std::vector<std::uint8_t> &instance,
                     std::vector<std::uint8_t> &input) {
        const KSPROPERTY property{.Set = *item.set, .Id = item.id, .Flags = flags};
        std::vector<std::uint8_t> bytes(BytesOf(property).begin(), BytesOf(property).end());
        bytes.insert(bytes.end(), instance.begin(), instance.end());
        std::copy_n(bytes.begin(), std::min(bytes.size(), input.size()), input.begin());
    }

    // False after a first difference, of which one is enough for an item.
    bool Check(const FilterItem &item, ULONG flags, ULONG inputLength, ULONG outputLength) {
        if (oracle_.Disconnects(item, flags, inputLength, outputLength))
            return true;
        std::vector<std::uint8_t> input(inputLength), output(outputLength + kExtra, kCanary);
        Fill(item, flags, instance_, input);
        if (flags == KSPROPERTY_TYPE_SET)
            std::copy_n(setting_.begin(), std::min<std::size_t>(outputLength, setting_.size()), output.begin());
        ULONG information = 0;
        const PropertyAnswer expected = oracle_.Answer(item, flags, inputLength, outputLength);
        const PropertyAnswer got{
            rig_.app.filter.RawProperty(input.data(), inputLength, output.data(), outputLength, &information),
            information};
        const ULONG written = flags == KSPROPERTY_TYPE_SET ? outputLength : std::min(information, outputLength);
        const bool untouched =
            std::all_of(output.begin() + written, output.end(), [](std::uint8_t byte) { return byte == kCanary; });
        bool access = true;
        if (flags != KSPROPERTY_TYPE_GET && flags != KSPROPERTY_TYPE_SET && information == sizeof(ULONG) &&
            outputLength == sizeof(ULONG)) {
            ULONG word;
            std::memcpy(&word, output.data(), sizeof(word));
            EXPECT_EQ(word, oracle_.AccessWord(item));
            access = word == oracle_.AccessWord(item);
        }
        if (got == expected && untouched && access)
            return true;
        ADD_FAILURE() << "set " << item.number << " id " << item.id << " flags " << std::hex << flags << std::dec
                      << " input " << inputLength << " output " << outputLength << ": status " << std::hex << got.status
                      << " for " << expected.status << std::dec << ", information " << got.information << " for "
                      << expected.information << (untouched ? "" : ", wrote too much");
        return false;
    }

    void Sweep(const FilterItem &item) {
        instance_ = Instance(item);
        setting_ = Setting(item, instance_);
        const ULONG input =
            std::max(item.minProperty, static_cast<ULONG>(sizeof(KSPROPERTY) + instance_.size())) + kExtra;
        // Frame intervals have no length of their own: up to a list of them.
        const ULONG output =
            std::max<ULONG>({item.minData, item.support ? 40u : 0u, item.minData == 0 ? 96u : 92u}) + kExtra;
        for (ULONG flags :
             {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT, KSPROPERTY_TYPE_SETSUPPORT}) {
            for (ULONG length = 0; length <= input; ++length)
                if (!Check(item, flags, length, output))
                    return;
            for (ULONG length = 0; length <= output; ++length)
                if (!Check(item, flags, input, length))
                    return;
        }
    }

    Rig rig_;
    PropertyOracle oracle_;
    std::vector<std::uint8_t> instance_;
    std::vector<std::uint8_t> setting_;
};

TEST_P(PropertySweep, StatusesAndInformation) {
    ASSERT_EQ(rig_.started, STATUS_SUCCESS);
    ASSERT_EQ(FilterItems().size(), 107u);
    for (const FilterItem &item : FilterItems())
        Sweep(item);
}

// The two parameters that the sweep leaves out, with the least that is enough.
TEST_P(PropertySweep, ParametersThatDisconnect) {
    ASSERT_EQ(rig_.started, STATUS_SUCCESS);
    for (const FilterItem &item : FilterItems()) {
        if (!oracle_.Disconnects(item, KSPROPERTY_TYPE_SET, sizeof(KSPROPERTY), sizeof(ULONG)))
            continue;
        KSPROPERTY property{.Set = *item.set, .Id = item.id, .Flags = KSPROPERTY_TYPE_SET};
        ULONG value = 1, returned = 0;
        EXPECT_EQ(rig_.app.filter.RawProperty(&property, sizeof(property), &value, sizeof(value), &returned),
                  STATUS_SUCCESS)
            << item.id;
        EXPECT_EQ(returned, 0u);
    }
    rig_.app.filter.Close();
}

INSTANTIATE_TEST_SUITE_P(Model, PropertySweep, testing::ValuesIn(ModelNames()),
                         [](const auto &info) { return info.param.substr(info.param.find(':') + 1); });

} // namespace

} // namespace uvc::driver_test
