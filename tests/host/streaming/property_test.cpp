// Property requests: what is checked before a handler runs, and what the tables answer by themselves.
#include "tests/host/streaming/test_driver.h"

#include <gtest/gtest.h>

#include <cstring>

namespace streaming_test {
namespace {

using host::client::BytesOf;
using host::client::Filter;
using host::client::PropertyRange;
using host::streaming::kPropSetPin;
using host::streaming::kPropSetTopology;

struct StatusCase {
    const char *what;
    GUID set;
    ULONG id;
    ULONG flags;
    ULONG inputLength;
    ULONG outputLength;
    NTSTATUS status;
    ULONG returned;
};

const StatusCase kStatusCases[] = {
    {"input below a KSPROPERTY", kTestSet, kValue, KSPROPERTY_TYPE_GET, 23, 32, STATUS_INVALID_BUFFER_SIZE, 0},
    {"input below MinProperty", kTestSet, kValue, KSPROPERTY_TYPE_GET, 31, 32, STATUS_INVALID_BUFFER_SIZE, 0},
    {"output below MinData", kTestSet, kValue, KSPROPERTY_TYPE_GET, 32, 31, STATUS_BUFFER_TOO_SMALL, 0},
    {"set with output below MinData", kTestSet, kValue, KSPROPERTY_TYPE_SET, 32, 31, STATUS_BUFFER_TOO_SMALL, 0},
    {"size query", kTestSet, kValue, KSPROPERTY_TYPE_GET, 32, 0, STATUS_BUFFER_OVERFLOW, 32},
    {"set without data", kTestSet, kValue, KSPROPERTY_TYPE_SET, 32, 0, STATUS_BUFFER_TOO_SMALL, 0},
    {"just enough", kTestSet, kValue, KSPROPERTY_TYPE_GET, 32, 32, STATUS_SUCCESS, 32},
    {"more than enough", kTestSet, kValue, KSPROPERTY_TYPE_GET, 48, 256, STATUS_SUCCESS, 32},
    {"unknown set", kUnknownSet, kValue, KSPROPERTY_TYPE_GET, 32, 32, STATUS_PROPSET_NOT_FOUND, 0},
    {"unknown id", kTestSet, 77, KSPROPERTY_TYPE_GET, 32, 32, STATUS_NOT_FOUND, 0},
    {"no set handler", kTestSet, kReadOnly, KSPROPERTY_TYPE_SET, 32, 32, STATUS_NOT_FOUND, 0},
    {"no handlers", kTestSet, kNothing, KSPROPERTY_TYPE_GET, 32, 32, STATUS_NOT_FOUND, 0},
    {"support of the set", kTestSet, 77, KSPROPERTY_TYPE_SETSUPPORT, 24, 0, STATUS_SUCCESS, 0},
    {"support of an unknown set", kUnknownSet, 0, KSPROPERTY_TYPE_SETSUPPORT, 24, 0, STATUS_PROPSET_NOT_FOUND, 0},
    {"two requests at once", kTestSet, kValue, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET, 32, 32,
     STATUS_INVALID_PARAMETER, 0},
    {"no request", kTestSet, kValue, 0, 32, 32, STATUS_INVALID_PARAMETER, 0},
    {"of a node", kTestSet, kValue, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_TOPOLOGY, 32, 32, STATUS_INVALID_PARAMETER,
     0},
    {"basic support, flags only", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 4, STATUS_SUCCESS, 4},
    {"basic support, size query", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 0, STATUS_BUFFER_OVERFLOW, 92},
    {"basic support, head", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 40, STATUS_SUCCESS, 40},
    {"basic support, cut", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 91, STATUS_BUFFER_TOO_SMALL, 0},
    {"basic support, whole", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 92, STATUS_SUCCESS, 92},
    {"basic support, no table", kTestSet, kReadOnly, KSPROPERTY_TYPE_BASICSUPPORT, 24, 100, STATUS_SUCCESS, 40},
    {"basic support, no handlers", kTestSet, kNothing, KSPROPERTY_TYPE_BASICSUPPORT, 24, 4, STATUS_NOT_FOUND, 0},
    {"basic support, driver's", kTestSet, kSupported, KSPROPERTY_TYPE_BASICSUPPORT, 24, 4, STATUS_SUCCESS, 4},
    {"basic support, driver passes", kTestSet, kSupported, KSPROPERTY_TYPE_BASICSUPPORT, 24, 40, STATUS_SUCCESS, 40},
    {"basic support, below the flags", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 3, STATUS_BUFFER_TOO_SMALL,
     0},
    {"basic support, between flags and head", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 39,
     STATUS_BUFFER_TOO_SMALL, 0},
    {"basic support, more than the whole", kTestSet, kValue, KSPROPERTY_TYPE_BASICSUPPORT, 24, 200, STATUS_SUCCESS, 92},
    {"set support, driver's", kTestSet, kSupported, KSPROPERTY_TYPE_SETSUPPORT, 24, 4, STATUS_SUCCESS, 4},
    {"set support, driver passes", kTestSet, kSupported, KSPROPERTY_TYPE_SETSUPPORT, 24, 8, STATUS_SUCCESS, 0},
    {"relations, size query", kTestSet, kValue, KSPROPERTY_TYPE_RELATIONS, 24, 0, STATUS_BUFFER_OVERFLOW, 32},
    {"relations, size only", kTestSet, kValue, KSPROPERTY_TYPE_RELATIONS, 24, 4, STATUS_SUCCESS, 4},
    {"relations, cut", kTestSet, kValue, KSPROPERTY_TYPE_RELATIONS, 24, 31, STATUS_BUFFER_TOO_SMALL, 0},
    {"relations, whole", kTestSet, kValue, KSPROPERTY_TYPE_RELATIONS, 24, 32, STATUS_SUCCESS, 32},
    {"relations, none", kTestSet, kReadOnly, KSPROPERTY_TYPE_RELATIONS, 24, 32, STATUS_SUCCESS, 8},
    {"serialized size", kTestSet, kValue, KSPROPERTY_TYPE_SERIALIZESIZE, 24, 4, STATUS_SUCCESS, 4},
    {"serialized size, size query", kTestSet, kValue, KSPROPERTY_TYPE_SERIALIZESIZE, 24, 0, STATUS_BUFFER_OVERFLOW, 4},
    {"serialize, size query", kTestSet, kValue, KSPROPERTY_TYPE_SERIALIZESET, 24, 0, STATUS_BUFFER_OVERFLOW, 84},
    {"serialize, cut", kTestSet, kValue, KSPROPERTY_TYPE_SERIALIZESET, 24, 83, STATUS_BUFFER_TOO_SMALL, 0},
    {"serialize a property that wants more than a KSPROPERTY", kTestSet, kValue, KSPROPERTY_TYPE_SERIALIZESET, 24, 84,
     STATUS_INVALID_BUFFER_SIZE, 0},
    {"unserialize nothing", kTestSet, 0, KSPROPERTY_TYPE_UNSERIALIZESET, 24, 0, STATUS_INVALID_BUFFER_SIZE, 0},
    {"serialize raw without handler", kTestSet, kValue, KSPROPERTY_TYPE_SERIALIZERAW, 24, 84, STATUS_NOT_FOUND, 0},
    {"serialize raw, driver's", kTestSet, kSupported, KSPROPERTY_TYPE_SERIALIZERAW, 24, 4, STATUS_SUCCESS, 4},
    {"default values", kTestSet, kValue, KSPROPERTY_TYPE_DEFAULTVALUES, 24, 100, STATUS_SUCCESS, 60},
    {"default values, no table", kTestSet, kReadOnly, KSPROPERTY_TYPE_DEFAULTVALUES, 24, 100, STATUS_NOT_FOUND, 0},
    {"pin count", kPropSetPin, KSPROPERTY_PIN_CTYPES, KSPROPERTY_TYPE_GET, 24, 4, STATUS_SUCCESS, 4},
    {"pin property without pin", kPropSetPin, KSPROPERTY_PIN_DATAFLOW, KSPROPERTY_TYPE_GET, 24, 4,
     STATUS_INVALID_BUFFER_SIZE, 0},
    {"list, size query", kPropSetPin, KSPROPERTY_PIN_DATARANGES, KSPROPERTY_TYPE_GET, 32, 0, STATUS_BUFFER_OVERFLOW,
     600},
    {"list, size only", kPropSetPin, KSPROPERTY_PIN_DATARANGES, KSPROPERTY_TYPE_GET, 32, 4, STATUS_SUCCESS, 4},
    {"list, head", kPropSetPin, KSPROPERTY_PIN_DATARANGES, KSPROPERTY_TYPE_GET, 32, 8, STATUS_SUCCESS, 8},
    {"list, cut", kPropSetPin, KSPROPERTY_PIN_DATARANGES, KSPROPERTY_TYPE_GET, 32, 599, STATUS_BUFFER_TOO_SMALL, 0},
    {"list, whole", kPropSetPin, KSPROPERTY_PIN_DATARANGES, KSPROPERTY_TYPE_GET, 32, 600, STATUS_SUCCESS, 600},
    {"standard interface", kPropSetPin, KSPROPERTY_PIN_INTERFACES, KSPROPERTY_TYPE_GET, 32, 100, STATUS_SUCCESS, 32},
    {"standard medium", kPropSetPin, KSPROPERTY_PIN_MEDIUMS, KSPROPERTY_TYPE_GET, 32, 100, STATUS_SUCCESS, 32},
    {"name", kPropSetPin, KSPROPERTY_PIN_NAME, KSPROPERTY_TYPE_GET, 32, 100, STATUS_SUCCESS, 16},
    {"categories", kPropSetTopology, KSPROPERTY_TOPOLOGY_CATEGORIES, KSPROPERTY_TYPE_GET, 24, 100, STATUS_SUCCESS, 40},
    {"nodes", kPropSetTopology, KSPROPERTY_TOPOLOGY_NODES, KSPROPERTY_TYPE_GET, 24, 100, STATUS_SUCCESS, 8},
};

TEST(StreamingProperty, LengthsAndStatuses) {
    Machine machine;
    Filter filter;
    ASSERT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
    for (const StatusCase &test : kStatusCases) {
        SCOPED_TRACE(test.what);
        std::vector<std::uint8_t> input(256), output(640, 0xEE);
        KSPROPERTY property{.Set = test.set, .Id = test.id, .Flags = test.flags};
        std::memcpy(input.data(), &property, sizeof(property));
        ULONG returned = 0;
        EXPECT_EQ(filter.RawProperty(input.data(), test.inputLength, output.data(), test.outputLength, &returned),
                  test.status);
        EXPECT_EQ(returned, test.returned);
        EXPECT_EQ(output[test.outputLength], 0xEE) << "written beyond the output";
    }
}

TEST(StreamingProperty, HandlersSeeACopyBehindTheData) {
    Machine machine;
    Filter filter;
    ASSERT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
    const std::uint8_t instance[] = {1, 2, 3, 4, 5};
    std::uint8_t answer[13] = {};
    ULONG returned = 0;
    EXPECT_EQ(filter.Property(kTestSet, kEcho, KSPROPERTY_TYPE_GET, instance, answer, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, sizeof(instance));
    EXPECT_EQ(std::memcmp(answer, instance, sizeof(instance)), 0);
}

TEST(StreamingProperty, BadAddressesAreRefused) {
    Machine machine;
    Filter filter;
    ASSERT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
    KSPROPERTY property{.Set = kTestSet, .Id = kSupported, .Flags = KSPROPERTY_TYPE_GET};
    auto *nowhere = reinterpret_cast<void *>(std::uintptr_t{0x20'0040});
    EXPECT_EQ(filter.RawProperty(nowhere, sizeof(property), nullptr, 0), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(filter.RawProperty(&property, sizeof(property), nowhere, 32), STATUS_ACCESS_VIOLATION);
}

TEST(StreamingProperty, SupportHandlerMayLeaveItToTheTables) {
    NTSTATUS answer = STATUS_SUCCESS;
    Machine machine({.support = [&](PIRP irp) {
        irp->IoStatus.Information = sizeof(ULONG);
        return answer;
    }});
    Filter filter;
    ASSERT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
    struct Case {
        NTSTATUS answer;
        NTSTATUS status;
        ULONG ofBasicSupport, ofSetSupport; // bytes returned
    };
    for (const Case &test :
         {Case{STATUS_SUCCESS, STATUS_SUCCESS, 4, 4}, Case{STATUS_DEVICE_NOT_READY, STATUS_DEVICE_NOT_READY, 0, 0},
          Case{STATUS_NOT_FOUND, STATUS_SUCCESS, 40, 0}, Case{STATUS_NOT_IMPLEMENTED, STATUS_SUCCESS, 40, 0},
          Case{STATUS_SOME_NOT_MAPPED, STATUS_SUCCESS, 40, 0}}) {
        SCOPED_TRACE(testing::Message() << std::hex << test.answer);
        answer = test.answer;
        KSPROPERTY property{.Set = kTestSet, .Id = kSupported, .Flags = KSPROPERTY_TYPE_BASICSUPPORT};
        KSPROPERTY_DESCRIPTION description{};
        ULONG returned = 0;
        EXPECT_EQ(filter.RawProperty(&property, sizeof(property), &description, sizeof(description), &returned),
                  test.status);
        EXPECT_EQ(returned, test.ofBasicSupport);
        property.Flags = KSPROPERTY_TYPE_SETSUPPORT;
        EXPECT_EQ(filter.RawProperty(&property, sizeof(property), &description, sizeof(description), &returned),
                  test.status);
        EXPECT_EQ(returned, test.ofSetSupport);
    }
}

TEST(StreamingProperty, Intersection) {
    Machine machine;
    Filter filter;
    ASSERT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
    std::vector<KS_DATARANGE_VIDEO> offered;
    ASSERT_EQ(filter.DataRanges(0, offered), STATUS_SUCCESS);
    ASSERT_EQ(offered.size(), 2u);

    struct Case {
        const char *what;
        void (*change)(KS_DATARANGE_VIDEO &);
        NTSTATUS status;
        GUID subFormat;
    };
    const Case cases[] = {
        {"as offered", [](KS_DATARANGE_VIDEO &) {}, STATUS_SUCCESS, kSubGrey},
        {"any sub format takes the first", [](KS_DATARANGE_VIDEO &range) { range.DataRange.SubFormat = {}; },
         STATUS_SUCCESS, kSubYuy2},
        {"size beyond the list",
         [](KS_DATARANGE_VIDEO &range) { range.DataRange.FormatSize += 8; },
         STATUS_INVALID_BUFFER_SIZE,
         {}},
        {"size below a range",
         [](KS_DATARANGE_VIDEO &range) { range.DataRange.FormatSize = 63; },
         STATUS_INVALID_BUFFER_SIZE,
         {}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.what);
        KS_DATARANGE_VIDEO wanted = offered[1];
        test.change(wanted);
        std::vector<std::uint8_t> format;
        EXPECT_EQ(filter.Intersect(0, BytesOf(wanted), format), test.status);
        if (test.status == STATUS_SUCCESS) {
            ASSERT_EQ(format.size(), sizeof(KS_DATAFORMAT_VIDEOINFOHEADER));
            KSDATAFORMAT head;
            std::memcpy(&head, format.data(), sizeof(head));
            EXPECT_TRUE(host::streaming::SameGuid(head.SubFormat, test.subFormat));
        }
    }
    std::vector<std::uint8_t> format;
    EXPECT_EQ(filter.Intersect(1, BytesOf(offered[0]), format), STATUS_INVALID_PARAMETER) << "no such pin";
}

} // namespace
} // namespace streaming_test
