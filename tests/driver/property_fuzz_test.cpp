// Property requests of all kinds, right and wrong, while the camera streams. Whatever they do to settings, they must
// not crash, hang, leak or write where they may not, and afterwards frames go on.
#include "host/streaming/guids.h"
#include "tests/driver/capture_rig.h"
#include "tests/driver/property_oracle.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <sys/mman.h>

namespace uvc::driver_test {

namespace {

constexpr int kRequests = 12'500; // of one test; eight of them make 100,000
constexpr std::size_t kGuard = 64;
constexpr ULONG kLongest = 1u << 20;
constexpr UCHAR kCanary = 0xA5;
constexpr ULONG kParameterSet = 7;

// Memory of the application: a page that it can write, one that it can only read, and more than any request is long
// that it cannot touch.
class Pages {
  public:
    static constexpr std::size_t kSize = 4096;
    static constexpr std::size_t kUntouchable = 2 * kLongest;

    Pages()
        : memory_(static_cast<std::uint8_t *>(
              mmap(nullptr, kWhole, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        mprotect(memory_ + kSize, kSize, PROT_READ);
        mprotect(memory_ + 2 * kSize, kUntouchable, PROT_NONE);
    }
    ~Pages() { munmap(memory_, kWhole); }
    Pages(const Pages &) = delete;
    Pages &operator=(const Pages &) = delete;

    std::uint8_t *ReadOnly() { return memory_ + kSize; }
    std::uint8_t *Untouchable() { return memory_ + 2 * kSize; }

  private:
    static constexpr std::size_t kWhole = 2 * kSize + kUntouchable;
    std::uint8_t *memory_;
};

class Fuzzer {
  public:
    Fuzzer(std::uint64_t seed, host::client::KsFile &filter, host::client::KsFile &pin)
        : random_(seed), filter_(filter), pin_(pin) {}

    // One request. False when it broke a rule.
    bool Step() {
        ChooseProperty();
        ChooseInput();
        ChooseOutput();
        // Pins take states and formats, which would end the stream.
        host::client::KsFile &file = !CarriesData() && Chance(8) ? pin_ : filter_;
        if (Disconnects())
            return true;
        const std::vector<std::uint8_t> before = output_;
        ULONG returned = 0;
        const NTSTATUS status = file.RawProperty(inputAt_, inputLength_, outputAt_, outputLength_, &returned);
        const bool handled = property_.Flags == KSPROPERTY_TYPE_GET || property_.Flags == KSPROPERTY_TYPE_SET;
        succeeded_ += handled && NT_SUCCESS(status);
        return Judge(before, status, returned);
    }

    int Succeeded() const { return succeeded_; } // gets and sets

    std::string Describe() const {
        char text[160];
        std::snprintf(text, sizeof text, "set %08x id %u flags %x, input %p + %u, output %p + %u",
                      static_cast<unsigned>(property_.Set.Data1), static_cast<unsigned>(property_.Id),
                      static_cast<unsigned>(property_.Flags), inputAt_, static_cast<unsigned>(inputLength_), outputAt_,
                      static_cast<unsigned>(outputLength_));
        return text;
    }

  private:
    ULONG Below(ULONG limit) { return static_cast<ULONG>(random_() % limit); }
    bool Chance(ULONG of) { return Below(of) == 0; }
    template <class Values> auto Pick(const Values &values) {
        return std::data(values)[Below(static_cast<ULONG>(std::size(values)))];
    }

    bool CarriesData() const {
        return property_.Flags == KSPROPERTY_TYPE_SET || property_.Flags == KSPROPERTY_TYPE_UNSERIALIZESET ||
               property_.Flags == KSPROPERTY_TYPE_UNSERIALIZERAW;
    }

    // Restarts of the camera are for other tests.
    bool Disconnects() const {
        return host::streaming::SameGuid(property_.Set, parameters_) && property_.Flags == KSPROPERTY_TYPE_SET &&
               (property_.Id == 3 || property_.Id == 24);
    }

    void ChooseProperty() {
        static constexpr ULONG kFlags[] = {
            KSPROPERTY_TYPE_BASICSUPPORT, KSPROPERTY_TYPE_SETSUPPORT,     KSPROPERTY_TYPE_DEFAULTVALUES,
            KSPROPERTY_TYPE_RELATIONS,    KSPROPERTY_TYPE_SERIALIZESET,   KSPROPERTY_TYPE_UNSERIALIZESET,
            KSPROPERTY_TYPE_SERIALIZERAW, KSPROPERTY_TYPE_UNSERIALIZERAW, KSPROPERTY_TYPE_SERIALIZESIZE};
        item_ = &FilterItems()[Below(static_cast<ULONG>(FilterItems().size()))];
        property_ = {.Set = *item_->set,
                     .Id = item_->id,
                     .Flags = Chance(3)   ? Pick(kFlags)
                              : Chance(2) ? KSPROPERTY_TYPE_GET
                                          : KSPROPERTY_TYPE_SET};
        if (Chance(10)) {
            property_.Id = Chance(2) ? Below(256) : static_cast<ULONG>(random_());
            item_ = nullptr;
        } else if (Chance(10)) {
            static const GUID kOthers[] = {host::streaming::kPropSetPin,
                                           host::streaming::kPropSetTopology,
                                           host::streaming::kPropSetConnection,
                                           {}};
            property_.Set = Pick(kOthers);
            property_.Id = Below(20);
            item_ = nullptr;
        }
        if (Chance(30))
            property_.Flags = 1u << Below(32) | 1u << Below(32);
    }

    ULONG Length(ULONG right) {
        switch (Below(16)) {
        case 0:
            return Below(right + 8);
        case 1:
            return Below(1200);
        case 2:
            return right + Below(9);
        case 3:
            return Chance(20) ? Below(kLongest) : 0;
        default:
            return right;
        }
    }

    // A plausible 32-bit word, or any.
    ULONG Word() {
        static constexpr ULONG kWords[] = {0, 1, 2, 3, 4, 8, 64, 100, 1000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
        return Chance(3) ? static_cast<ULONG>(random_()) : Pick(kWords);
    }

    void Fill(std::span<std::uint8_t> bytes) {
        for (std::size_t at = 0; at < bytes.size(); at += sizeof(ULONG)) {
            const ULONG word = Word();
            std::memcpy(&bytes[at], &word, std::min(sizeof(word), bytes.size() - at));
        }
    }

    // Addresses that are not the application's own good memory. Lengths stay as they are.
    void *BadAddress(bool readOnlyToo) {
        switch (Below(readOnlyToo ? 5 : 4)) {
        case 0:
            return nullptr;
        case 1:
            return pages_.Untouchable() + Below(Pages::kSize);
        case 2:
            return reinterpret_cast<void *>(static_cast<std::uintptr_t>(0xFFFF'8000'0000'0000 + Below(1u << 20)));
        case 3: // ends in the page that cannot be touched
            return pages_.Untouchable() - 1 - Below(16);
        default:
            return pages_.ReadOnly() + Below(Pages::kSize / 2);
        }
    }

    void ChooseInput() {
        inputLength_ = Length(item_ != nullptr ? std::max<ULONG>(item_->minProperty, sizeof(KSPROPERTY))
                                               : static_cast<ULONG>(sizeof(KSPROPERTY)) + Below(48));
        input_.assign(inputLength_ + 2 * kGuard, kCanary);
        const std::span<std::uint8_t> bytes(input_.data() + kGuard, inputLength_);
        Fill(bytes);
        std::memcpy(bytes.data(), &property_, std::min<std::size_t>(sizeof(property_), inputLength_));
        inputIsBad_ = Chance(40);
        inputAt_ = inputIsBad_ ? BadAddress(false) : bytes.data();
        // Only what lies before the untouchable page can be read there.
        inputIsBad_ = inputIsBad_ && inputLength_ > 16;
    }

    void ChooseOutput() {
        outputLength_ = Length(item_ != nullptr ? std::max<ULONG>(item_->minData, 4) : Below(64));
        output_.assign(outputLength_ + 2 * kGuard, kCanary);
        const std::span<std::uint8_t> bytes(output_.data() + kGuard, outputLength_);
        if (CarriesData())
            Fill(bytes);
        outputIsBad_ = Chance(40);
        outputAt_ = outputIsBad_ ? BadAddress(true) : bytes.data();
        if (!outputIsBad_ && inputLength_ != 0 && Chance(30) && !inputIsBad_) { // one buffer for both
            outputAt_ = inputAt_;
            outputLength_ = std::min(outputLength_, inputLength_);
            outputIsBad_ = true;
        }
    }

    bool Judge(const std::vector<std::uint8_t> &before, NTSTATUS status, ULONG returned) {
        bool good = true;
        auto expect = [&](bool rule, const char *text) {
            if (!rule)
                ADD_FAILURE() << text << ": " << Describe() << ": " << std::hex << status << ", " << returned;
            good = good && rule;
        };
        expect(status != STATUS_PENDING, "left pending");
        expect(!inputIsBad_ || NT_ERROR(status), "unreadable input was taken");
        if (outputIsBad_)
            return good;
        // An error carries nothing back, nor does what went in; an answer ends where it says.
        const bool answered = !NT_ERROR(status) && !CarriesData();
        const std::size_t end = kGuard + (answered ? std::min(returned, outputLength_) : 0);
        expect(std::equal(output_.begin(), output_.begin() + kGuard, before.begin()), "wrote in front of the output");
        expect(std::equal(output_.begin() + static_cast<std::ptrdiff_t>(end), output_.end(),
                          before.begin() + static_cast<std::ptrdiff_t>(end)),
               "wrote beyond the information");
        expect(outputLength_ == 0 || NT_ERROR(status) || returned <= outputLength_, "told more than there is");
        return good;
    }

    std::mt19937_64 random_;
    host::client::KsFile &filter_;
    host::client::KsFile &pin_;
    Pages pages_;
    const GUID parameters_ = *std::find_if(FilterItems().begin(), FilterItems().end(), [](const FilterItem &item) {
                                  return item.number == kParameterSet;
                              })->set;

    const FilterItem *item_ = nullptr; // null for a property that no table has
    KSPROPERTY property_{};
    std::vector<std::uint8_t> input_, output_;
    void *inputAt_ = nullptr, *outputAt_ = nullptr;
    ULONG inputLength_ = 0, outputLength_ = 0;
    bool inputIsBad_ = false, outputIsBad_ = false; // the latter: nothing to compare
    int succeeded_ = 0;
};

struct FuzzCase {
    const char *name;
    const char *camera;
    std::uint64_t seed;
};
void PrintTo(const FuzzCase &test, std::ostream *out) {
    *out << test.name << " seed " << test.seed;
}

class PropertyFuzz : public testing::TestWithParam<FuzzCase> {
  protected:
    void SetParameter(ULONG id, ULONG value) {
        for (const FilterItem &item : FilterItems()) {
            if (item.number != kParameterSet || item.id != id)
                continue;
            // Not every camera has every parameter.
            KSPROPERTY property{.Set = *item.set, .Id = id, .Flags = KSPROPERTY_TYPE_SET};
            rig_.app.filter.RawProperty(&property, sizeof(property), &value, sizeof(value));
        }
    }

    // What keeps a stream from running, as a client would put it right.
    void Restore() {
        constexpr std::pair<ULONG, ULONG> kDefaults[] = {{12, 1000}, {1, 0},  {2, 1},  {10, 6}, {14, 0},
                                                         {16, 1},    {17, 1}, {18, 0}, {26, 0}};
        for (const auto &[id, value] : kDefaults)
            SetParameter(id, value);
        KSPROPERTY_VIDEOCONTROL_MODE_S mode{};
        EXPECT_EQ(rig_.app.filter.SetBlock(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_MODE, BytesOf(mode)),
                  STATUS_SUCCESS);
    }

    void TakeFrames() {
        host::client::Frame *frame = nullptr;
        while (NT_SUCCESS(rig_.app.pin.NextFrame(&frame, 0)) && frame != nullptr && frame->Status() != STATUS_PENDING) {
            if (!NT_SUCCESS(frame->Status()))
                return;
            rig_.app.Return(*frame, *rig_.camera);
        }
    }

    Rig rig_{GetParam().camera};
};

TEST_P(PropertyFuzz, BreaksNothing) {
    ASSERT_EQ(rig_.started, STATUS_SUCCESS);
    Application &app = rig_.app;
    const auto range = FindRange(app.Ranges(), FourCc("Y800"), 320);
    ASSERT_TRUE(range);
    ASSERT_EQ(app.OpenPin(*range), STATUS_SUCCESS);
    ASSERT_EQ(app.Run(), STATUS_SUCCESS);
    {
        Fuzzer fuzzer(GetParam().seed, app.filter, app.pin);
        for (int i = 0; i < kRequests; ++i) {
            ASSERT_TRUE(fuzzer.Step()) << "seed " << GetParam().seed << ", request " << i;
            if (i % 32 == 0)
                TakeFrames();
        }
        EXPECT_GT(fuzzer.Succeeded(), kRequests / 20) << "most requests never reached the driver";
        RecordProperty("succeeded", fuzzer.Succeeded());
    }
    EXPECT_TRUE(rig_.computer.IsConnected());

    Restore();
    ASSERT_EQ(app.pin.SetState(KSSTATE_STOP), STATUS_SUCCESS);
    app.pin.Close();
    app.frames.clear();
    ASSERT_EQ(app.OpenPin(*range), STATUS_SUCCESS);
    ASSERT_EQ(app.Run(), STATUS_SUCCESS);
    for (int i = 0; i < 5; ++i) {
        host::client::Frame *frame = app.Next();
        ASSERT_TRUE(frame) << "no frame " << i << " after seed " << GetParam().seed;
        ASSERT_EQ(frame->Status(), STATUS_SUCCESS);
        app.Return(*frame, *rig_.camera);
    }
}

std::vector<FuzzCase> Cases() {
    std::vector<FuzzCase> cases;
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        cases.push_back({"Generic", "sim:generic", seed});
        cases.push_back({"FamilyC", "sim:8201,payload=32768", seed + 4});
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Seed, PropertyFuzz, testing::ValuesIn(Cases()), [](const auto &info) {
    return std::string(info.param.name) + std::to_string(info.param.seed);
});

} // namespace

} // namespace uvc::driver_test
