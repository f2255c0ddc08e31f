// What a client sees of the filter's property sets, and which operations of the camera they become.
#include "driver/device_descriptors.h"
#include "driver/property_router.h"
#include "tests/driver/scripted_controls.h"

#include <algorithm>
#include <string_view>

namespace uvc::driver_test {

namespace {

using ByteVector = std::vector<std::uint8_t>;

// Puts together what an answer should be.
struct Expected {
    Expected &Word(ULONG value) { return Add(&value, sizeof(value)); }
    Expected &Text(std::string_view text, std::size_t size) {
        Add(text.data(), text.size());
        bytes.resize(bytes.size() + size - text.size());
        return *this;
    }
    Expected &Fill(std::size_t size) {
        bytes.resize(size);
        return *this;
    }
    Expected &Add(const void *data, std::size_t size) {
        bytes.insert(bytes.end(), static_cast<const std::uint8_t *>(data),
                     static_cast<const std::uint8_t *>(data) + size);
        return *this;
    }
    ByteVector bytes;
};

// The answer of `size` bytes, with what stands before it left out; empty on a failure.
ByteVector Answer(host::client::Filter &filter, const GUID &set, ULONG id, std::size_t size, std::size_t header) {
    ByteVector block(size, 0xCC);
    ULONG returned = 0;
    EXPECT_EQ(filter.GetBlock(set, id, block, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, size);
    block.erase(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(header));
    return block;
}

TEST(Properties, IdentifyTheDevice) {
    for (const char *name : {"sim:generic", "sim:8101", "sim:8201"}) {
        SCOPED_TRACE(name);
        Rig rig(name);
        ASSERT_EQ(rig.started, STATUS_SUCCESS);
        const host::cameras::Model &model = rig.camera->model();
        auto answer = [&](ULONG id, std::size_t size) {
            return Answer(rig.app.filter, PROPSETID_DEVICE_INFO, id, size, sizeof(KSPROPERTY));
        };
        EXPECT_EQ(answer(100, 288), Expected().Word(model.vendorId).Text(model.manufacturer, 256).Fill(264).bytes);
        const auto serial = static_cast<ULONG>(std::stoul(std::string(model.serial), nullptr, 16));
        EXPECT_EQ(answer(101, 288), Expected().Word(serial).Word(0).Text(model.product, 256).bytes);
        EXPECT_EQ(answer(102, 296),
                  Expected().Word(5).Word(7).Word(model.productId).Text("2.1.5.616", 256).Fill(272).bytes);
        EXPECT_EQ(answer(103, 288), Expected().Word(66).Fill(264).bytes);
    }
}

TEST(Properties, AnswerWithEmptyStringsWhenTheDeviceDoesNot) {
    Rig rig("sim:generic");
    host::FaultPlan plan;
    plan.FailTransfer(1, host::TransferFault::Stall, true);
    rig.computer.Machine().Arm(plan);
    const host::cameras::Model &model = rig.camera->model();
    EXPECT_EQ(Answer(rig.app.filter, PROPSETID_DEVICE_INFO, 100, 288, sizeof(KSPROPERTY)),
              Expected().Word(model.vendorId).Fill(264).bytes);
    EXPECT_EQ(Answer(rig.app.filter, PROPSETID_DEVICE_INFO, 101, 288, sizeof(KSPROPERTY)), Expected().Fill(264).bytes);
    rig.computer.Machine().Arm({});
}

// These blocks have no header.
TEST(Properties, TellOfTheDriver) {
    Rig rig("sim:8201");
    EXPECT_EQ(Answer(rig.app.filter, PROPSETID_DRIVER_INFO, 0, 144, 0),
              Expected().Word(4).Word(0).Word(0x50268).Word(0x20001).Text({"f\0r\0e\0", 6}, 128).bytes);
    const ByteVector bytes = Answer(rig.app.filter, PROPSETID_DRIVER_INFO, 1, 424, 0);
    CameraInfo info;
    std::memcpy(&info, bytes.data(), sizeof(info));
    EXPECT_EQ(info.product, rig.camera->model().product);
    EXPECT_EQ(info.vendorId, rig.camera->model().vendorId);
    EXPECT_EQ(info.informationKind, 6u);
    ByteVector block(144);
    EXPECT_EQ(rig.app.filter.SetBlock(PROPSETID_DRIVER_INFO, 0, block), STATUS_NOT_IMPLEMENTED);
}

TEST(Properties, ReadAndWriteStandardControls) {
    Rig rig("sim:generic");
    ScriptedControls script(rig);
    const struct {
        const GUID &set;
        ULONG number;
    } sets[] = {{PROPSETID_VIDCAP_VIDEOPROCAMP, 3}, {PROPSETID_VIDCAP_CAMERACONTROL, 4}};
    // The real camera's items decide what passes the class driver, so these go to the router.
    for (const auto &set : sets) {
        const std::string item = std::to_string(set.number) + ":5";
        KSPROPERTY property{};
        property.Set = set.set;
        property.Id = 5;
        ControlValueBlock block;
        auto route = [&](ULONG flags, ULONG inputLength, ULONG outputLength, ULONG &information) {
            property.Flags = flags;
            PropertyRequest request{
                .property = &property, .data = &block, .inputLength = inputLength, .outputLength = outputLength};
            NTSTATUS status = RouteProperty(script.device, request);
            information = request.information;
            return status;
        };
        ULONG information = 0;
        auto &control = script.controls[{set.number, 5}];
        control.words = {static_cast<ULONG>(-7), 1, 3};
        block = Standard(99, 99);
        EXPECT_EQ(route(KSPROPERTY_TYPE_GET, 40, 40, information), STATUS_SUCCESS);
        EXPECT_EQ(script.TakeLog(), "get " + item + " 0 40");
        EXPECT_EQ(information, 40u);
        EXPECT_EQ(std::make_tuple(block.value, block.flags, block.capabilities), std::make_tuple(-7, 1u, 3u));

        block = Standard(-12, 2);
        block.capabilities = 77;
        EXPECT_EQ(route(KSPROPERTY_TYPE_SET, 40, 40, information), STATUS_SUCCESS);
        EXPECT_EQ(script.TakeLog(), "set " + item + " 0 40 -12/2");
        EXPECT_EQ(information, 0u);
        EXPECT_EQ(script.found, Expected().Word(static_cast<ULONG>(-12)).Word(2).Fill(16).bytes) << "capabilities";

        control.get = control.set = STATUS_IO_TIMEOUT;
        block = Standard(5, 6);
        EXPECT_EQ(route(KSPROPERTY_TYPE_GET, 40, 40, information), STATUS_IO_TIMEOUT);
        EXPECT_EQ(information, 0u);
        EXPECT_EQ(std::make_tuple(block.value, block.flags), std::make_tuple(5, 6u)) << "touched by a failed get";
        EXPECT_EQ(route(KSPROPERTY_TYPE_SET, 40, 40, information), STATUS_IO_TIMEOUT);
        script.TakeLog();

        // Short buffers ask nothing of the camera.
        EXPECT_EQ(route(KSPROPERTY_TYPE_GET, 40, 39, information), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(route(KSPROPERTY_TYPE_SET, 39, 40, information), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(route(KSPROPERTY_TYPE_SET, 40, 39, information), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(script.TakeLog(), "");
    }
}

// Which layout each private control has; the block goes to the camera as it is.
TEST(Properties, ReadAndWritePrivateControls) {
    Rig rig("sim:generic");
    ScriptedControls script(rig);
    const struct {
        const GUID &set;
        ULONG number, id, kind, size, header;
    } cases[] = {
        {PROPSETID_PRIVATE_IMAGE, 5, 101, 2, 48, 24},       {PROPSETID_PRIVATE_IMAGE, 5, 124, 2, 48, 24},
        {PROPSETID_PRIVATE_IMAGE, 5, 122, 4, 40, 24},       {PROPSETID_PRIVATE_IMAGE, 5, 125, 3, 88, 24},
        {PROPSETID_PRIVATE_COLORMATRIX, 7, 0, 2, 48, 24},   {PROPSETID_PRIVATE_COLORMATRIX, 7, 32, 2, 48, 24},
        {PROPSETID_PRIVATE_COLORMATRIX, 7, 33, 6, 1028, 0}, {PROPSETID_PRIVATE_COLORMATRIX, 7, 35, 6, 1028, 0},
    };
    for (const auto &c : cases) {
        const std::string what = std::to_string(c.number) + ":" + std::to_string(c.id) + " " + std::to_string(c.kind) +
                                 " " + std::to_string(c.size);
        SCOPED_TRACE(what);
        auto &control = script.controls[{c.number, c.id}];
        control.words = {0x11111111, 0x22222222, 0x33333333};
        ByteVector block(c.size, 0x5A);
        ULONG returned = 0;
        EXPECT_EQ(rig.app.filter.GetBlock(c.set, c.id, block, &returned), STATUS_SUCCESS);
        EXPECT_EQ(returned, c.size);
        EXPECT_EQ(script.TakeLog(), "get " + what);
        EXPECT_EQ(script.found, ByteVector(c.size - c.header)); // zeros, whatever the client sent
        EXPECT_EQ(ByteVector(block.begin() + c.header, block.begin() + c.header + 12),
                  Expected().Word(0x11111111).Word(0x22222222).Word(0x33333333).bytes);

        block.assign(c.size, 0x77);
        EXPECT_EQ(rig.app.filter.SetBlock(c.set, c.id, block), STATUS_SUCCESS);
        if (c.header != 0) { // else the property's own bytes stand in front
            EXPECT_EQ(script.found, ByteVector(c.size - c.header, 0x77));
            EXPECT_EQ(script.TakeLog(),
                      "set " + what + " " + std::to_string(0x77777777) + "/" + std::to_string(0x77777777));
        }

        control.get = STATUS_DEVICE_BUSY;
        EXPECT_EQ(rig.app.filter.GetBlock(c.set, c.id, block), STATUS_DEVICE_BUSY);
        control.set = STATUS_DEVICE_BUSY;
        EXPECT_EQ(rig.app.filter.SetBlock(c.set, c.id, block), STATUS_DEVICE_BUSY);
        script.TakeLog();
    }
    ByteVector block(48);
    EXPECT_EQ(rig.app.filter.GetBlock(PROPSETID_PRIVATE_IMAGE, 229, block), STATUS_NOT_IMPLEMENTED);
}

TEST(Properties, SwitchTheTrigger) {
    constexpr ULONG kMode = KSPROPERTY_VIDEOCONTROL_MODE;
    const std::string read = "get 5:115 2 48", write = "; set 5:115 2 48 9/", shot = "set 5:213 2 48 0/8";
    const struct {
        const char *name;
        bool external, software;
        ULONG flags; // of the external trigger
        NTSTATUS get, set;
        LONG mode;
        NTSTATUS status;
        std::string log;
    } cases[] = {
        {"on", true, true, 0xF7, 0, 0, 4, 0, read + write + "240"},
        {"off", true, true, 0x12, 0, 0, 0, 0, read + write + "22"},
        {"once", true, true, 4, 0, 0, 8, 0, read + write + "4; " + shot},
        {"on and once", true, true, 4, 0, 0, 12, 0, read + write + "0; " + shot},
        {"once, no external", false, true, 0, 0, 0, 8, 0, shot},
        {"on, no external", false, true, 0, 0, 0, 4, STATUS_NOT_IMPLEMENTED, ""},
        {"off, no external", false, false, 0, 0, 0, 0, STATUS_SUCCESS, ""},
        {"once, no software", true, false, 0, 0, 0, 8, STATUS_NOT_IMPLEMENTED, read + write + "4; " + shot},
        {"unreadable", true, true, 0, STATUS_IO_TIMEOUT, 0, 8, 0, read + "; " + shot},
        {"unreadable, off", true, true, 0, STATUS_IO_TIMEOUT, 0, 0, STATUS_IO_TIMEOUT, read},
        {"unwritable", true, true, 0, 0, STATUS_IO_TIMEOUT, 4, STATUS_IO_TIMEOUT, read + write + "0"},
    };
    Rig rig("sim:generic");
    ScriptedControls script(rig);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        script.controls.clear();
        if (c.external)
            script.controls[{5, 115}] = {.get = c.get, .set = c.set, .words = {9, c.flags}};
        if (c.software)
            script.controls[{5, 213}];
        KSPROPERTY_VIDEOCONTROL_MODE_S block{};
        block.Mode = c.mode;
        EXPECT_EQ(rig.app.filter.SetBlock(PROPSETID_VIDCAP_VIDEOCONTROL, kMode, BytesOf(block)), c.status);
        EXPECT_EQ(script.TakeLog(), c.log);

        KSPROPERTY_VIDEOCONTROL_CAPS_S capabilities{};
        EXPECT_EQ(
            rig.app.filter.GetBlock(PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_CAPS, BytesOf(capabilities)),
            STATUS_SUCCESS);
        EXPECT_EQ(capabilities.VideoControlCaps, c.external ? 4u : 0u);

        const NTSTATUS get = rig.app.filter.GetBlock(PROPSETID_VIDCAP_VIDEOCONTROL, kMode, BytesOf(block));
        EXPECT_EQ(get, c.external ? c.get : STATUS_NOT_IMPLEMENTED);
        if (NT_SUCCESS(get))
            EXPECT_EQ(block.Mode, (c.flags & 4) != 0 ? 0 : 4);
        script.TakeLog();
    }
}

TEST(Properties, ListFrameIntervals) {
    Rig rig("sim:generic");
    const auto &frame = rig.camera->model().formats.front().frames.front();
    std::vector<LONGLONG> intervals;
    for (const auto &interval : frame.intervals)
        intervals.push_back(interval.interval);
    const auto count = static_cast<ULONG>(intervals.size());
    ASSERT_GE(count, 2u);

    auto ask = [&](ULONG range, LONG width, LONG height, ByteVector &data, ULONG &returned) {
        KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S wanted{};
        wanted.Property.Set = PROPSETID_VIDCAP_VIDEOCONTROL;
        wanted.Property.Id = KSPROPERTY_VIDEOCONTROL_FRAME_RATES;
        wanted.Property.Flags = KSPROPERTY_TYPE_GET;
        wanted.RangeIndex = range;
        wanted.Dimensions = {width, height};
        return rig.app.filter.RawProperty(&wanted, sizeof(wanted), data.data(), static_cast<ULONG>(data.size()),
                                          &returned);
    };
    // As many as there is room for; the status of every length is swept elsewhere.
    for (ULONG room : {0u, 1u, count - 1, count, count + 12}) {
        SCOPED_TRACE(room);
        const ULONG listed = std::min(room, count);
        ByteVector data(8 + 8 * room + 7, 0xCC);
        ByteVector expected = Expected().Word(8 + 8 * listed).Word(listed).Add(intervals.data(), 8 * listed).bytes;
        expected.resize(data.size(), 0xCC);
        ULONG returned = 0;
        EXPECT_EQ(ask(0, frame.width, frame.height, data, returned), STATUS_SUCCESS);
        EXPECT_EQ(returned, 8 + 8 * listed);
        EXPECT_EQ(data, expected);
    }

    ULONG returned = 0;
    for (std::size_t length : {0, 256}) {
        ByteVector data(length);
        const auto ranges = static_cast<ULONG>(rig.app.Ranges().size());
        EXPECT_EQ(ask(ranges, frame.width, frame.height, data, returned), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ask(0, frame.width + 1, frame.height, data, returned), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(ask(0, frame.width, -frame.height, data, returned), STATUS_INVALID_PARAMETER);
    }
}

// The items of the descriptors that the camera's answers make.
TEST(Properties, GiveStandardControlsTheCamerasRanges) {
    Rig rig("sim:generic");
    ScriptedControls script(rig);
    script.controls[{3, 13}] = {.words = {static_cast<ULONG>(-64), 64, 5, 2, 3}};
    script.controls[{4, 16}] = {.get = STATUS_IO_TIMEOUT};
    script.controls[{4, 0}] = {.get = STATUS_NOT_IMPLEMENTED};
    KSFILTER_DESCRIPTOR *descriptor = nullptr;
    ASSERT_EQ(BuildDeviceDescriptors(script.device, descriptor), STATUS_SUCCESS);
    const KSAUTOMATION_TABLE &table = *descriptor->AutomationTable;
    ASSERT_EQ(table.PropertySetsCount, 9u);
    auto item = [&](ULONG set, ULONG id) -> const KSPROPERTY_ITEM & {
        const KSPROPERTY_ITEM *items = table.PropertySets[set].PropertyItem;
        return *std::find_if(items, items + table.PropertySets[set].PropertiesCount,
                             [&](const KSPROPERTY_ITEM &candidate) { return candidate.PropertyId == id; });
    };
    constexpr ULONG kVideoProcAmpPlace = 2, kCameraControlPlace = 3, kImagePlace = 4;

    for (const KSPROPERTY_ITEM *missing : {&item(kVideoProcAmpPlace, 0), &item(kCameraControlPlace, 0)}) {
        EXPECT_EQ(missing->GetPropertyHandler, nullptr);
        EXPECT_EQ(missing->SetPropertyHandler, nullptr);
        EXPECT_EQ(missing->Values, nullptr);
    }
    EXPECT_NE(item(kImagePlace, 101).GetPropertyHandler, nullptr);

    const struct {
        ULONG place, id;
        LONG minimum, maximum, defaultValue;
        ULONG step;
    } present[] = {{kVideoProcAmpPlace, 13, -64, 64, 5, 2}, {kCameraControlPlace, 16, 0, 0, 0, 0}};
    for (const auto &p : present) {
        const KSPROPERTY_ITEM &control = item(p.place, p.id);
        EXPECT_NE(control.GetPropertyHandler, nullptr);
        EXPECT_NE(control.SetPropertyHandler, nullptr);
        ASSERT_TRUE(control.Values);
        EXPECT_TRUE(IsEqualGUID(control.Values->PropTypeSet.Set, GUID{STATICGUIDOF(KSPROPTYPESETID_General)}));
        EXPECT_EQ(control.Values->PropTypeSet.Id, ULONG{VT_I4});
        ASSERT_EQ(control.Values->MembersListCount, 2u);
        const KSPROPERTY_MEMBERSLIST &ranges = control.Values->MembersList[0];
        EXPECT_EQ(ranges.MembersHeader.MembersFlags, ULONG{KSPROPERTY_MEMBER_STEPPEDRANGES});
        EXPECT_EQ(ranges.MembersHeader.MembersSize, 16u);
        EXPECT_EQ(ranges.MembersHeader.MembersCount, 1u);
        const auto &range = *static_cast<const KSPROPERTY_STEPPING_LONG *>(ranges.Members);
        EXPECT_EQ(std::make_tuple(range.SteppingDelta, range.Reserved, range.Bounds.SignedMinimum,
                                  range.Bounds.SignedMaximum),
                  std::make_tuple(p.step, 0u, p.minimum, p.maximum));
        const KSPROPERTY_MEMBERSLIST &defaults = control.Values->MembersList[1];
        EXPECT_EQ(defaults.MembersHeader.MembersFlags, ULONG{KSPROPERTY_MEMBER_VALUES});
        EXPECT_EQ(defaults.MembersHeader.Flags, ULONG{KSPROPERTY_MEMBER_FLAG_DEFAULT});
        EXPECT_EQ(*static_cast<const LONG *>(defaults.Members), p.defaultValue);
    }
    EXPECT_NE(script.TakeLog().find("get 3:13 1 20"), std::string::npos);
}

// A filter that stays open over a restart which fails finds no camera behind any set but the one that is the pin's.
TEST(Properties, SayThatTheCameraIsGone) {
    Rig rig("sim:8201");
    host::FaultPlan plan;
    plan.FailTransfer(5, host::TransferFault::Stall); // the camera says who it is, but not how it is configured
    rig.computer.Machine().Arm(plan);
    ASSERT_FALSE(NT_SUCCESS(rig.computer.Restart()));
    rig.computer.Machine().Arm({});
    UvcDevice &device = *UvcDevice::From(KsGetDeviceForDeviceObject(rig.computer.Pdo()->AttachedDevice));
    for (const GUID *set : {&PROPSETID_DEVICE_INFO, &PROPSETID_DRIVER_INFO, &PROPSETID_VIDCAP_VIDEOPROCAMP,
                            &PROPSETID_VIDCAP_CAMERACONTROL, &PROPSETID_PRIVATE_IMAGE, &PROPSETID_VIDCAP_VIDEOCONTROL,
                            &PROPSETID_DRIVER_PARAMETER, &PROPSETID_PRIVATE_COLORMATRIX}) {
        KSPROPERTY property{};
        property.Set = *set;
        property.Flags = KSPROPERTY_TYPE_GET;
        PropertyRequest request{.property = &property};
        EXPECT_EQ(RouteProperty(device, request), STATUS_DEVICE_NOT_CONNECTED);
    }
    rig.app.filter.Close();
}

} // namespace

} // namespace uvc::driver_test
