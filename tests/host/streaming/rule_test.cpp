// Each rule of the model, broken on purpose by a driver: the run must end with the line that names the rule.
#include "tests/host/streaming/test_driver.h"

#include <gtest/gtest.h>

namespace streaming_test {
namespace {

using host::client::BytesOf;
using host::client::Frame;

PKSSTREAM_POINTER LockedEdge(PKSPIN pin) {
    return KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
}

PKSSTREAM_POINTER CloneEdge(PKSPIN pin) {
    PKSSTREAM_POINTER clone = nullptr;
    PKSSTREAM_POINTER edge = LockedEdge(pin);
    KsStreamPointerClone(edge, nullptr, 0, &clone);
    KsStreamPointerUnlock(edge, FALSE);
    return clone;
}

// Runs a frame through a pin of a driver with these hooks and takes everything down.
void Stream(Hooks hooks) {
    Machine machine(std::move(hooks));
    {
        Frame frame(kFrameSize), second(kFrameSize);
        OpenPin open(machine);
        host::client::Clock clock;
        clock.Open(open.pin);
        open.pin.AssignClock(&clock);
        open.pin.SetState(KSSTATE_PAUSE);
        open.pin.Queue(frame);
        open.pin.Queue(second);
        open.pin.SetState(KSSTATE_RUN);
        ULONG value[8] = {};
        open.filter.GetBlock(kTestSet, kValue, BytesOf(value));
    }
    machine.TearDown();
}

struct Case {
    const char *what;
    const char *rule; // as the line on stderr has it
    Hooks (*wrong)();
};

// Which hook the fragment goes into.
template <auto Hook, class Fragment> Hooks In(Fragment fragment) {
    Hooks hooks;
    hooks.*Hook = fragment;
    return hooks;
}

NTSTATUS OnRun(KSSTATE to, void (*action)()) {
    if (to == KSSTATE_RUN)
        action();
    return STATUS_SUCCESS;
}

const Case kCases[] = {
    {"device mutex taken twice", "KsDeviceMutex: KsAcquireDevice",
     [] {
         return In<&Hooks::add>([](PKSDEVICE device) {
             KsAcquireDevice(device);
             KsAcquireDevice(device);
             return STATUS_SUCCESS;
         });
     }},
    {"device bag without its mutex", "KsDeviceMutex: KsAddItemToObjectBag",
     [] {
         return In<&Hooks::add>(
             [](PKSDEVICE device) { return KsAddItemToObjectBag(device->Bag, device, [](PVOID) {}); });
     }},
    {"device mutex taken under the control mutex", "lock order: ",
     [] {
         return In<&Hooks::setState>([](PKSPIN pin, KSSTATE, KSSTATE) {
             KsAcquireDevice(KsGetDevice(pin));
             return STATUS_SUCCESS;
         });
     }},
    {"filter bag from a handler without the mutex", "KsFilterMutex: KsAddItemToObjectBag",
     [] {
         return In<&Hooks::getValue>([](PIRP irp, PVOID) {
             PKSFILTER filter = KsGetFilterFromIrp(irp);
             return KsAddItemToObjectBag(filter->Bag, irp, [](PVOID) {});
         });
     }},
    {"start at the wrong level", "KsIrqlDeviceCallbacks: device start",
     [] {
         return In<&Hooks::start>([](PKSDEVICE) {
             KIRQL level;
             KeRaiseIrql(DISPATCH_LEVEL, &level);
             return STATUS_DEVICE_BUSY;
         });
     }},
    {"property handler at the wrong level", "KsIrqlFilterCallbacks: property handler",
     [] {
         return In<&Hooks::getValue>([](PIRP, PVOID) {
             KIRQL level;
             KeRaiseIrql(DISPATCH_LEVEL, &level);
             return STATUS_DEVICE_BUSY;
         });
     }},
    {"passive routine at dispatch level", "KsIrqlDDIs: KsAcquireControl",
     [] {
         return In<&Hooks::getValue>([](PIRP irp, PVOID) {
             KIRQL level;
             KeRaiseIrql(DISPATCH_LEVEL, &level);
             KsAcquireControl(KsGetFilterFromIrp(irp));
             return STATUS_SUCCESS;
         });
     }},
    {"slow start", "KsTimedDeviceCallbacks: device start",
     [] {
         return In<&Hooks::start>([](PKSDEVICE) {
             Sleep(510);
             return STATUS_SUCCESS;
         });
     }},
    {"slow filter create", "KsTimedFilterCallbacks: filter create",
     [] {
         return In<&Hooks::filterCreate>([](PKSFILTER, PIRP) {
             Sleep(510);
             return STATUS_SUCCESS;
         });
     }},
    {"slow pin create", "KsTimedPinCallbacks: pin create",
     [] {
         return In<&Hooks::pinCreate>([](PKSPIN, PIRP) {
             Sleep(510);
             return STATUS_SUCCESS;
         });
     }},
    {"slow state change", "KsTimedPinSetDeviceState: pin set device state",
     [] { return In<&Hooks::setState>([](PKSPIN, KSSTATE to, KSSTATE) { return OnRun(to, [] { Sleep(510); }); }); }},
    {"slow processing", "KsTimedProcessingMutex: pin process",
     [] {
         return In<&Hooks::process>([](PKSPIN) {
             Sleep(110);
             return STATUS_PENDING;
         });
     }},
    {"processing mutex taken while processing", "KsProcessingMutex: KsPinAcquireProcessingMutex",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             KsPinAcquireProcessingMutex(pin);
             return STATUS_PENDING;
         });
     }},
    {"pending state change", "KsCallbackReturn: pin set device state",
     [] { return In<&Hooks::setState>([](PKSPIN, KSSTATE, KSSTATE) { return STATUS_PENDING; }); }},
    {"pending request that is not marked", "KsMarkPendingIrp: property handler",
     [] { return In<&Hooks::getValue>([](PIRP, PVOID) { return STATUS_PENDING; }); }},
    {"marked request that is not pending", "KsMarkPendingIrp: pin create",
     [] {
         return In<&Hooks::pinCreate>([](PKSPIN, PIRP irp) {
             IoMarkIrpPending(irp);
             return STATUS_SUCCESS;
         });
     }},
    {"more information than room", "KsCallbackReturn: property handler",
     [] {
         return In<&Hooks::getValue>([](PIRP irp, PVOID) {
             irp->IoStatus.Information = 33;
             return STATUS_ALERTED;
         });
     }},
    {"processing without progress", "KsCallbackReturn: pin process",
     [] { return In<&Hooks::process>([](PKSPIN) { return STATUS_SUCCESS; }); }},
    {"edge locked twice", "KsStreamPointerLock: KsStreamPointerLock",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             LockedEdge(pin);
             LockedEdge(pin);
             return STATUS_PENDING;
         });
     }},
    {"unlocked twice", "KsStreamPointerLock: KsStreamPointerUnlock",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             PKSSTREAM_POINTER edge = LockedEdge(pin);
             KsStreamPointerUnlock(edge, FALSE);
             KsStreamPointerUnlock(edge, FALSE);
             return STATUS_PENDING;
         });
     }},
    {"unlocked after an advance past the last frame", "KsStreamPointerLock: KsStreamPointerUnlock",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             PKSSTREAM_POINTER edge = LockedEdge(pin);
             while (NT_SUCCESS(KsStreamPointerAdvance(edge))) {
             }
             KsStreamPointerUnlock(edge, FALSE);
             return STATUS_PENDING;
         });
     }},
    {"clone of an unlocked edge", "KsStreamPointerClone: KsStreamPointerClone",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             PKSSTREAM_POINTER clone = nullptr;
             KsStreamPointerClone(KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_UNLOCKED), nullptr, 0,
                                  &clone);
             return STATUS_PENDING;
         });
     }},
    {"clone deleted twice", "KsInvalidStreamPointer: KsStreamPointerDelete",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             PKSSTREAM_POINTER clone = CloneEdge(pin);
             KsStreamPointerDelete(clone);
             KsStreamPointerDelete(clone);
             return STATUS_PENDING;
         });
     }},
    {"edge deleted", "KsStreamPointerClone: KsStreamPointerDelete",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             KsStreamPointerDelete(LockedEdge(pin));
             return STATUS_PENDING;
         });
     }},
    {"clone left at stop", "KsStreamPointerClone: pin stop",
     [] {
         return In<&Hooks::process>([](PKSPIN pin) {
             CloneEdge(pin);
             return STATUS_PENDING;
         });
     }},
    {"edge left locked at stop", "KsStreamPointerUnlock: pin stop",
     [] {
         Hooks hooks;
         hooks.setState = [](PKSPIN, KSSTATE, KSSTATE) { return STATUS_ALERTED; }; // nothing else touches the edge
         hooks.process = [](PKSPIN pin) {
             LockedEdge(pin);
             return STATUS_PENDING;
         };
         return hooks;
     }},
    {"clock not released", "KsReferenceClock: driver unload",
     [] {
         return In<&Hooks::setState>([](PKSPIN pin, KSSTATE to, KSSTATE) {
             PIKSREFERENCECLOCK clock = nullptr;
             if (to == KSSTATE_PAUSE)
                 KsPinGetReferenceClockInterface(pin, &clock);
             return STATUS_SUCCESS;
         });
     }},
    {"not an object", "KsObject: KsGetDevice",
     [] {
         return In<&Hooks::add>([](PKSDEVICE) {
             static UCHAR block[256];
             KsGetDevice(block + 128);
             return STATUS_SUCCESS;
         });
     }},
};

class StreamingRule : public testing::TestWithParam<Case> {};

TEST_P(StreamingRule, EndsTheRun) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Stream(GetParam().wrong()), std::string("violation: ") + GetParam().rule);
}

INSTANTIATE_TEST_SUITE_P(All, StreamingRule, testing::ValuesIn(kCases), [](const auto &info) {
    std::string name = info.param.what;
    for (char &c : name)
        c = c == ' ' ? '_' : c;
    return name;
});

// The same road without a wrong turn.
TEST(StreamingRuleBroken, NotByTheTestDriver) {
    Stream({});
}

} // namespace
} // namespace streaming_test
