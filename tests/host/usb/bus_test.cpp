#include "host/usb/bus.h"

#include "host/executive/pnp.h"
#include "tests/host/usb/client.h"

#include <optional>

namespace host::usb::test {
namespace {

constexpr Ticks kSecond = 1'000 * kTicksPerMillisecond;

class BusTest : public testing::Test {
  protected:
    void Plug(PlugOptions options = {}) {
        pdo_ = bus_->Plug(device_, std::move(options));
        ASSERT_NE(pdo_, nullptr);
        device_->TakeLog();
    }

    // Selects setting 0 of both interfaces; the pipes are then known.
    void Configure() {
        auto sent = SelectConfiguration(pdo_, device_->configuration, {{0, 0}, {1, 0}});
        sent->Send();
        ASSERT_TRUE(sent->Completes());
        ASSERT_EQ(sent->Status(), STATUS_SUCCESS);
        configuration_ = sent->Urb()->UrbSelectConfiguration.ConfigurationHandle;
        interrupt_ = InterfaceOf(*sent, 0).Pipes[0].PipeHandle;
        bulk_ = InterfaceOf(*sent, 1).Pipes[0].PipeHandle;
    }
    void PlugAndConfigure(PlugOptions options = {}) {
        Plug(std::move(options));
        Configure();
        device_->TakeLog();
    }

    static void ExpectEnd(Sent &sent, USBD_STATUS usbd, NTSTATUS status) {
        ASSERT_TRUE(sent.Completes());
        EXPECT_EQ(sent.UsbdStatus(), usbd);
        EXPECT_EQ(sent.Status(), status);
    }
    void ExpectPipeRequest(USBD_PIPE_HANDLE pipe, USHORT function, USBD_STATUS usbd) {
        auto sent = PipeRequest(pdo_, pipe, function);
        sent->Send();
        ASSERT_TRUE(sent->Completes());
        EXPECT_EQ(sent->UsbdStatus(), usbd);
        EXPECT_EQ(NT_SUCCESS(sent->Status()), usbd == USBD_STATUS_SUCCESS);
    }

    Runtime runtime_;
    std::shared_ptr<FakeDevice> device_ = std::make_shared<FakeDevice>();
    std::optional<Bus> bus_{std::in_place};
    PDEVICE_OBJECT pdo_ = nullptr;
    USBD_CONFIGURATION_HANDLE configuration_ = nullptr;
    USBD_PIPE_HANDLE interrupt_ = nullptr;
    USBD_PIPE_HANDLE bulk_ = nullptr;
};

TEST_F(BusTest, IdentifiesWhatIsPluggedIn) {
    Plug();
    EXPECT_EQ(bus_->IdentityOf(pdo_).vendor, 0x1234);
    EXPECT_EQ(bus_->IdentityOf(pdo_).product, 0xABCD);
    EXPECT_EQ(bus_->IdentityOf(pdo_).instancePath, u"USB\\VID_1234&PID_ABCD\\A1B2");

    // A twin with the same serial number is told apart by its port, and so is one with a number of odd characters.
    auto path = [&](auto change) {
        auto other = std::make_shared<FakeDevice>();
        change(*other);
        return bus_->IdentityOf(bus_->Plug(other)).instancePath;
    };
    EXPECT_EQ(path([](FakeDevice &) {}), u"USB\\VID_1234&PID_ABCD\\5&0&0002");
    EXPECT_EQ(path([](FakeDevice &device) { device.serial = "A,B"; }), u"USB\\VID_1234&PID_ABCD\\5&0&0003");
    EXPECT_EQ(path([](FakeDevice &device) { device.deviceDescriptor[16] = 0; }), u"USB\\VID_1234&PID_ABCD\\5&0&0004");
    EXPECT_EQ(path([](FakeDevice &device) { device.deviceDescriptor.clear(); }), u"USB\\VID_0000&PID_0002\\5&0&0005");

    bus_->Unplug(pdo_);
    PDEVICE_OBJECT back = bus_->Plug(device_);
    EXPECT_EQ(bus_->IdentityOf(back).instancePath, u"USB\\VID_1234&PID_ABCD\\A1B2");
}

TEST_F(BusTest, PutsClassAndVendorRequestsOnTheWire) {
    Plug();
    device_->onControl = [](const SetupPacket &, std::span<std::uint8_t> data) {
        return TransferResult{.length = data.size()};
    };
    const struct {
        USHORT function;
        bool in;
        ULONG length;
        const char *wire;
    } cases[] = {
        {URB_FUNCTION_CLASS_DEVICE, true, 4, "control a0 81 0100 0001 0004"},
        {URB_FUNCTION_CLASS_INTERFACE, true, 34, "control a1 81 0100 0001 0022"},
        {URB_FUNCTION_CLASS_INTERFACE, false, 34, "control 21 81 0100 0001 0022"},
        {URB_FUNCTION_CLASS_ENDPOINT, false, 1, "control 22 81 0100 0001 0001"},
        {URB_FUNCTION_CLASS_OTHER, true, 1, "control a3 81 0100 0001 0001"},
        {URB_FUNCTION_VENDOR_DEVICE, false, 0, "control 40 81 0100 0001 0000"},
        {URB_FUNCTION_VENDOR_INTERFACE, true, 2, "control c1 81 0100 0001 0002"},
        {URB_FUNCTION_VENDOR_ENDPOINT, true, 2, "control c2 81 0100 0001 0002"},
        {URB_FUNCTION_VENDOR_OTHER, true, 0xFFFF, "control c3 81 0100 0001 ffff"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.wire);
        auto sent = VendorOrClass(pdo_, test.function, test.in, test.length);
        sent->Send();
        ExpectEnd(*sent, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
        EXPECT_EQ(sent->Length(), test.length);
        EXPECT_EQ(device_->TakeLog(), std::vector<std::string>{test.wire});
    }
    auto tooLong = VendorOrClass(pdo_, URB_FUNCTION_VENDOR_DEVICE, true, 0x10000);
    tooLong->Send();
    ExpectEnd(*tooLong, USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);

    device_->onControl = nullptr;
    auto stalled = VendorOrClass(pdo_, URB_FUNCTION_CLASS_INTERFACE, true, 4);
    stalled->Send();
    ExpectEnd(*stalled, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(stalled->Length(), 0u);
}

TEST_F(BusTest, RefusesRequestsThatAreNotWellFormed) {
    PlugAndConfigure({.maximumTransferSize = 0x1000});
    struct Case {
        const char *name;
        std::function<void(URB &)> spoil;
        USBD_STATUS usbd;
    };
    const Case cases[] = {
        {"unknown function", [](URB &urb) { urb.UrbHeader.Function = 0x17F; }, USBD_STATUS_INVALID_URB_FUNCTION},
        {"length one short", [](URB &urb) { --urb.UrbHeader.Length; }, USBD_STATUS_INVALID_PARAMETER},
        {"length of another request", [](URB &urb) { urb.UrbHeader.Length = 136; }, USBD_STATUS_INVALID_PARAMETER},
        {"linked", [](URB &urb) { urb.UrbBulkOrInterruptTransfer.UrbLink = &urb; }, USBD_STATUS_INVALID_PARAMETER},
        {"too long", [](URB &urb) { urb.UrbBulkOrInterruptTransfer.TransferBufferLength = 0x1001; },
         USBD_STATUS_INVALID_PARAMETER},
        {"no pipe", [](URB &urb) { urb.UrbBulkOrInterruptTransfer.PipeHandle = nullptr; },
         USBD_STATUS_INVALID_PIPE_HANDLE},
        {"no such pipe", [](URB &urb) { urb.UrbBulkOrInterruptTransfer.PipeHandle = &urb; },
         USBD_STATUS_INVALID_PIPE_HANDLE},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        auto sent = BulkRead(pdo_, bulk_, 0x1000);
        test.spoil(*sent->Urb());
        EXPECT_EQ(sent->Send(), STATUS_INVALID_PARAMETER);
        ExpectEnd(*sent, test.usbd, STATUS_INVALID_PARAMETER);
    }
    ExpectPipeRequest(nullptr, URB_FUNCTION_ABORT_PIPE, USBD_STATUS_INVALID_PIPE_HANDLE);
    ExpectPipeRequest(nullptr, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, USBD_STATUS_INVALID_PIPE_HANDLE);
}

TEST_F(BusTest, SelectsAConfiguration) {
    Plug({.maximumTransferSize = 0x12345});
    auto sent = SelectConfiguration(pdo_, device_->configuration, {{0, 0}, {1, 1}});
    sent->Send();
    ExpectEnd(*sent, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
    EXPECT_EQ(device_->TakeLog(),
              (std::vector<std::string>{"control 00 09 0001 0000 0000", "control 01 0b 0001 0001 0000"}));
    EXPECT_NE(sent->Urb()->UrbSelectConfiguration.ConfigurationHandle, nullptr);

    const USBD_INTERFACE_INFORMATION &control = InterfaceOf(*sent, 0);
    EXPECT_EQ(control.Class, 0x0E);
    EXPECT_EQ(control.SubClass, 0x02);
    EXPECT_EQ(control.Protocol, 0x01);
    ASSERT_EQ(control.NumberOfPipes, 1u);
    EXPECT_EQ(control.Pipes[0].PipeType, UsbdPipeTypeInterrupt);
    EXPECT_EQ(control.Pipes[0].EndpointAddress, 0x83);
    EXPECT_EQ(control.Pipes[0].MaximumPacketSize, 16);
    EXPECT_EQ(control.Pipes[0].Interval, 8);
    const USBD_INTERFACE_INFORMATION &streaming = InterfaceOf(*sent, 1);
    ASSERT_EQ(streaming.NumberOfPipes, 2u);
    EXPECT_EQ(streaming.Pipes[0].PipeType, UsbdPipeTypeIsochronous);
    EXPECT_EQ(streaming.Pipes[0].MaximumPacketSize, 3 * 1024);
    EXPECT_EQ(streaming.Pipes[1].PipeType, UsbdPipeTypeBulk);
    EXPECT_EQ(streaming.Pipes[1].MaximumTransferSize, 0x12345u);
    EXPECT_NE(streaming.Pipes[1].PipeHandle, streaming.Pipes[0].PipeHandle);

    // Bulk transfers do not go to an isochronous pipe, and this bus sends nothing on an OUT pipe.
    auto isochronous = BulkRead(pdo_, streaming.Pipes[0].PipeHandle, 64);
    isochronous->Send();
    ExpectEnd(*isochronous, USBD_STATUS_INVALID_PIPE_HANDLE, STATUS_INVALID_PARAMETER);
    auto out = BulkRead(pdo_, streaming.Pipes[1].PipeHandle, 64);
    out->Send();
    ExpectEnd(*out, USBD_STATUS_NOT_SUPPORTED, STATUS_NOT_SUPPORTED);
}

TEST_F(BusTest, RefusesConfigurationsThatDoNotFitTheDevice) {
    struct Case {
        const char *name;
        std::function<void(Sent &)> spoil;
        USBD_STATUS usbd;
    };
    const Case cases[] = {
        {"no such interface", [](Sent &sent) { InterfaceOf(sent, 1).InterfaceNumber = 2; },
         USBD_STATUS_INTERFACE_NOT_FOUND},
        {"no such setting", [](Sent &sent) { InterfaceOf(sent, 0).AlternateSetting = 1; },
         USBD_STATUS_INTERFACE_NOT_FOUND},
        {"no room for the pipe", [](Sent &sent) { InterfaceOf(sent, 0).Length -= 24; }, USBD_STATUS_BUFFER_TOO_SMALL},
        {"length zero", [](Sent &sent) { InterfaceOf(sent, 0).Length = 0; }, USBD_STATUS_BUFFER_TOO_SMALL},
        {"reaches beyond the request", [](Sent &sent) { InterfaceOf(sent, 1).Length += 1; },
         USBD_STATUS_BUFFER_TOO_SMALL},
        {"endpoint missing",
         [](Sent &sent) {
             auto *configuration = sent.Urb()->UrbSelectConfiguration.ConfigurationDescriptor;
             reinterpret_cast<PUCHAR>(configuration)[9 + 4] = 2;
         },
         USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR},
        {"not a configuration",
         [](Sent &sent) { sent.Urb()->UrbSelectConfiguration.ConfigurationDescriptor->bDescriptorType = 7; },
         USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR},
    };
    Plug();
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        Bytes configuration = CameraConfiguration();
        auto sent = SelectConfiguration(pdo_, configuration, {{0, 0}, {1, 0}});
        test.spoil(*sent);
        sent->Send();
        ExpectEnd(*sent, test.usbd, STATUS_UNSUCCESSFUL);
    }
    EXPECT_TRUE(device_->TakeLog().empty());

    Plug({.withoutBandwidth = true});
    auto sent = SelectConfiguration(pdo_, device_->configuration, {{0, 0}, {1, 0}});
    sent->Send();
    ExpectEnd(*sent, USBD_STATUS_NO_BANDWIDTH, USBD_STATUS_NO_BANDWIDTH);
}

TEST_F(BusTest, SelectingASettingClosesTheOldPipes) {
    PlugAndConfigure();
    auto pending = BulkRead(pdo_, bulk_, 512);
    pending->Send();
    auto sent = SelectInterface(pdo_, configuration_, 1, 1, 2);
    sent->Send();
    ExpectEnd(*sent, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
    ExpectEnd(*pending, USBD_STATUS_CANCELED, STATUS_CANCELLED);
    EXPECT_EQ(sent->Urb()->UrbSelectInterface.Interface.NumberOfPipes, 2u);
    EXPECT_EQ(device_->TakeLog(), std::vector<std::string>{"control 01 0b 0001 0001 0000"});

    auto stale = BulkRead(pdo_, bulk_, 512);
    stale->Send();
    ExpectEnd(*stale, USBD_STATUS_INVALID_PIPE_HANDLE, STATUS_INVALID_PARAMETER);
    ExpectPipeRequest(interrupt_, URB_FUNCTION_ABORT_PIPE, USBD_STATUS_SUCCESS);

    auto tight = SelectInterface(pdo_, configuration_, 1, 1, 1);
    tight->Send();
    ExpectEnd(*tight, USBD_STATUS_BUFFER_TOO_SMALL, STATUS_UNSUCCESSFUL);
    auto stranger = SelectInterface(pdo_, &runtime_, 1, 0, 1);
    stranger->Send();
    ExpectEnd(*stranger, USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    // Interface 0 has one setting only; its device stalls the request, which is no failure.
    auto only = SelectInterface(pdo_, configuration_, 0, 0, 1);
    only->Send();
    ExpectEnd(*only, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
}

TEST_F(BusTest, FillsBulkTransfersInOrderAtDispatchLevel) {
    PlugAndConfigure();
    auto first = BulkRead(pdo_, bulk_, 4);
    auto second = BulkRead(pdo_, bulk_, 4);
    auto third = BulkRead(pdo_, bulk_, 4);
    EXPECT_EQ(first->Send(), STATUS_PENDING);
    EXPECT_EQ(second->Send(), STATUS_PENDING);
    EXPECT_EQ(third->Send(), STATUS_PENDING);
    EXPECT_FALSE(first->Completes(kSecond));
    device_->Send({.bytes = {1, 2, 3, 4}});
    device_->Send({.bytes = {5}});
    device_->Send({.bytes = {}});
    device_->Ring();
    const Bytes expected[] = {{1, 2, 3, 4}, {5}, {}};
    int order = 0;
    for (Sent *sent : {first.get(), second.get(), third.get()}) {
        ExpectEnd(*sent, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
        EXPECT_EQ(sent->Data(), expected[order++]);
        EXPECT_EQ(sent->CompletionLevel(), DISPATCH_LEVEL);
    }
    EXPECT_LT(first->CompletionOrder(), second->CompletionOrder());
    EXPECT_LT(second->CompletionOrder(), third->CompletionOrder());

    device_->Send({.bytes = {9}});
    auto strict = BulkRead(pdo_, bulk_, 4, USBD_TRANSFER_DIRECTION_IN);
    strict->Send();
    ExpectEnd(*strict, USBD_STATUS_ERROR_SHORT_TRANSFER, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(strict->Length(), 1u);
}

TEST_F(BusTest, CancelsWhatIsPendingAndNothingElse) {
    PlugAndConfigure();
    auto first = BulkRead(pdo_, bulk_, 4);
    auto second = BulkRead(pdo_, bulk_, 4);
    auto third = BulkRead(pdo_, bulk_, 4);
    for (Sent *sent : {first.get(), second.get(), third.get()})
        sent->Send();
    second->Cancel();
    ExpectEnd(*second, USBD_STATUS_CANCELED, STATUS_CANCELLED);
    first->Cancel();
    ExpectEnd(*first, USBD_STATUS_CANCELED, STATUS_CANCELLED);
    EXPECT_FALSE(third->Completes(kSecond));
    device_->Send({.bytes = {7}});
    device_->Ring();
    ExpectEnd(*third, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
    EXPECT_EQ(third->Data(), Bytes{7});
}

// Data, cancels and aborts cross on purpose; whoever wins, every transfer ends once and with a pair that fits.
TEST_F(BusTest, SurvivesCrossingCancelsAbortsAndData) {
    PlugAndConfigure({.synchronousSeed = 5});
    constexpr int kTurns = 300;
    for (int turn = 0; turn < kTurns; ++turn) {
        std::vector<std::unique_ptr<Sent>> transfers;
        for (int i = 0; i < 4; ++i)
            transfers.push_back(BulkRead(pdo_, bulk_, 4));
        for (auto &sent : transfers)
            sent->Send();
        AttachedThread sender("sender", [&] {
            device_->Send({.bytes = {1}});
            device_->Send({.bytes = {2}});
            device_->Ring();
        });
        AttachedThread canceller("canceller", [&] {
            transfers[3]->Cancel();
            transfers[0]->Cancel();
        });
        auto abort = PipeRequest(pdo_, bulk_, URB_FUNCTION_ABORT_PIPE);
        abort->Send();
        ASSERT_TRUE(abort->Completes());
        canceller.Join();
        sender.Join();
        for (auto &sent : transfers) {
            ASSERT_TRUE(sent->Completes(0));
            EXPECT_LT(sent->CompletionOrder(), abort->CompletionOrder());
            bool cancelled = sent->UsbdStatus() == USBD_STATUS_CANCELED;
            EXPECT_EQ(sent->Status(), cancelled ? STATUS_CANCELLED : STATUS_SUCCESS);
            EXPECT_EQ(sent->Length(), cancelled ? 0u : 1u);
        }
        // Nothing that the device sent is lost to a transfer that was cancelled.
        auto rest = BulkRead(pdo_, bulk_, 4);
        device_->Send({.bytes = {3}});
        device_->Ring();
        std::uint8_t last = 0;
        for (auto &sent : transfers) {
            if (sent->Length() == 1)
                last = std::max(last, sent->Data()[0]);
        }
        while (last != 3) {
            rest->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength = 4;
            rest->Send();
            ASSERT_TRUE(rest->Completes());
            ASSERT_EQ(rest->Data(), Bytes{static_cast<std::uint8_t>(last + 1)});
            ++last;
        }
    }
}

TEST_F(BusTest, HaltsAPipeUntilItIsReset) {
    for (auto [fault, usbd] : {std::pair{TransferStatus::Stall, USBD_STATUS_STALL_PID},
                               std::pair{TransferStatus::Babble, USBD_STATUS_BABBLE_DETECTED}}) {
        PlugAndConfigure();
        auto first = BulkRead(pdo_, bulk_, 4);
        auto second = BulkRead(pdo_, bulk_, 4);
        first->Send();
        second->Send();
        device_->Send({.status = fault, .bytes = {1, 2, 3, 4}});
        device_->Ring();
        ExpectEnd(*first, usbd, STATUS_UNSUCCESSFUL);
        ExpectEnd(*second, USBD_STATUS_ENDPOINT_HALTED, STATUS_UNSUCCESSFUL);
        second->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength = 4;
        second->Send();
        ExpectEnd(*second, USBD_STATUS_ENDPOINT_HALTED, STATUS_UNSUCCESSFUL);

        device_->TakeLog();
        ExpectPipeRequest(bulk_, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, USBD_STATUS_SUCCESS);
        EXPECT_EQ(device_->TakeLog(), std::vector<std::string>{"reset 81"});
        device_->Send({.bytes = {5, 6}});
        first->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength = 4;
        first->Send();
        ExpectEnd(*first, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
        EXPECT_EQ(first->Data(), (Bytes{5, 6}));
    }
}

TEST_F(BusTest, DoesNotResetAPipeWithTransfers) {
    PlugAndConfigure();
    auto pending = BulkRead(pdo_, bulk_, 4);
    pending->Send();
    ExpectPipeRequest(bulk_, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, USBD_STATUS_ERROR_BUSY);
    ExpectPipeRequest(bulk_, URB_FUNCTION_ABORT_PIPE, USBD_STATUS_SUCCESS);
    ExpectPipeRequest(bulk_, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, USBD_STATUS_SUCCESS);
    EXPECT_TRUE(pending->Completes(0));
}

TEST_F(BusTest, DealsOutTheFaultsOfThePlan) {
    struct Case {
        TransferFault fault;
        USBD_STATUS usbd;
        NTSTATUS status;
        ULONG length; // of 8
        Ticks delay;
    };
    const Case cases[] = {
        {TransferFault::Stall, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL, 0, 0},
        {TransferFault::Babble, USBD_STATUS_BABBLE_DETECTED, STATUS_UNSUCCESSFUL, 0, 0},
        {TransferFault::Short, USBD_STATUS_SUCCESS, STATUS_SUCCESS, 4, 0},
        {TransferFault::Delay, USBD_STATUS_SUCCESS, STATUS_SUCCESS, 8, 2 * kSecond},
        {TransferFault::Hang, USBD_STATUS_CANCELED, STATUS_CANCELLED, 0, 10 * kSecond},
    };
    for (std::uint32_t seed : {0u, 1u, 2u}) {
        for (const Case &test : cases) {
            for (bool isBulk : {false, true}) {
                SCOPED_TRACE(testing::Message() << "fault " << static_cast<int>(test.fault) << " bulk " << isBulk);
                PlugAndConfigure({.synchronousSeed = seed});
                device_->Send({.bytes = Bytes(8, 1)});
                // The second transfer from here; the first is a bystander.
                runtime_.Arm(FaultPlan().FailTransfer(2, test.fault));
                auto bystander = GetDescriptor(pdo_, 1, 0, 18);
                bystander->Send();
                ExpectEnd(*bystander, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
                Ticks start = Now();
                auto hit = isBulk ? BulkRead(pdo_, bulk_, 8) : GetDescriptor(pdo_, 1, 0, 8);
                hit->Send();
                if (test.fault == TransferFault::Hang) {
                    EXPECT_FALSE(hit->Completes(test.delay));
                    hit->Cancel();
                }
                ExpectEnd(*hit, test.usbd, test.status);
                EXPECT_EQ(hit->Length(), test.length);
                EXPECT_EQ(Now() - start, test.delay);
                EXPECT_EQ(runtime_.Faults().FaultsDealt(), 1u);
                device_->TakeLog();
                if (!isBulk || test.fault == TransferFault::Stall || test.fault == TransferFault::Babble ||
                    test.fault == TransferFault::Hang) {
                    // What the bulk pipe was to send is still there once the pipe works.
                    ExpectPipeRequest(bulk_, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, USBD_STATUS_SUCCESS);
                    auto next = BulkRead(pdo_, bulk_, 8);
                    next->Send();
                    ExpectEnd(*next, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
                }
            }
        }
    }
}

TEST_F(BusTest, AnAbortMayComeBackLateNeverOrBeforeItsTransfers) {
    struct Case {
        AbortFault fault;
        Ticks abort, transfers; // when they come back; 10 seconds: when they are cancelled
    };
    const Case cases[] = {{AbortFault::Late, 2 * kSecond, 0},
                          {AbortFault::Never, 10 * kSecond, 10 * kSecond},
                          {AbortFault::Early, 0, 2 * kSecond}};
    for (std::uint32_t seed : {0u, 1u, 2u}) {
        for (const Case &test : cases) {
            SCOPED_TRACE(static_cast<int>(test.fault));
            PlugAndConfigure({.synchronousSeed = seed});
            runtime_.Arm(FaultPlan().FailAbort(1, test.fault));
            auto first = BulkRead(pdo_, bulk_, 8);
            auto second = BulkRead(pdo_, bulk_, 8);
            auto abort = PipeRequest(pdo_, bulk_, URB_FUNCTION_ABORT_PIPE);
            const Ticks start = Now();
            for (Sent *sent : {first.get(), second.get(), abort.get()})
                sent->Send();
            if (test.fault == AbortFault::Early)
                first->Cancel(); // too late
            // Nobody else is held up, and another abort works as ever.
            if (test.fault == AbortFault::Late) {
                ASSERT_TRUE(second->Completes());
                second->Send();
                ExpectPipeRequest(bulk_, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, USBD_STATUS_ERROR_BUSY);
                EXPECT_FALSE(second->Completes(2 * kSecond)); // sent after the abort, not touched by it
                ExpectPipeRequest(bulk_, URB_FUNCTION_ABORT_PIPE, USBD_STATUS_SUCCESS);
            }
            EXPECT_EQ(abort->Completes(test.abort + 1), test.fault != AbortFault::Never);
            for (Sent *sent : {first.get(), second.get()}) {
                if (test.fault == AbortFault::Never)
                    sent->Cancel();
                ExpectEnd(*sent, USBD_STATUS_CANCELED, STATUS_CANCELLED);
            }
            EXPECT_EQ((Now() - start) / kSecond, std::max(test.abort, test.transfers) / kSecond);
            if (test.fault == AbortFault::Never) {
                abort->Cancel();
                ExpectEnd(*abort, USBD_STATUS_CANCELED, STATUS_CANCELLED);
            }
        }
    }
}

TEST_F(BusTest, AHungControlTransferHoldsUpTheOnesBehindIt) {
    for (std::uint32_t seed : {0u, 1u, 2u, 3u, 4u}) {
        Plug({.synchronousSeed = seed});
        runtime_.Arm(FaultPlan().FailTransfer(1, TransferFault::Hang));
        auto hung = GetDescriptor(pdo_, 1, 0, 18);
        auto behind = GetDescriptor(pdo_, 1, 0, 18);
        EXPECT_EQ(hung->Send(), STATUS_PENDING);
        EXPECT_EQ(behind->Send(), STATUS_PENDING);
        EXPECT_FALSE(behind->Completes(kSecond));
        hung->Cancel();
        ExpectEnd(*hung, USBD_STATUS_CANCELED, STATUS_CANCELLED);
        ExpectEnd(*behind, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
    }
}

TEST_F(BusTest, UnplugEndsEverything) {
    PlugAndConfigure();
    runtime_.Arm(FaultPlan().FailTransfer(1, TransferFault::Hang));
    auto control = GetDescriptor(pdo_, 1, 0, 18);
    control->Send();
    EXPECT_FALSE(control->Completes(kSecond));
    auto bulk = BulkRead(pdo_, bulk_, 4);
    bulk->Send();
    EXPECT_FALSE(bulk->Completes(kSecond));
    std::weak_ptr<FakeDevice> watch = device_;
    bus_->Unplug(pdo_);
    EXPECT_TRUE(control->Completes(0) && bulk->Completes(0));
    ExpectEnd(*control, USBD_STATUS_DEVICE_GONE, STATUS_DEVICE_NOT_CONNECTED);
    ExpectEnd(*bulk, USBD_STATUS_DEVICE_GONE, STATUS_DEVICE_NOT_CONNECTED);
    auto late = GetDescriptor(pdo_, 1, 0, 18);
    EXPECT_EQ(late->Send(), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(late->UsbdStatus(), USBD_STATUS_DEVICE_GONE);
    Sent query(pdo_);
    ULONG connected = 0xFF;
    EXPECT_EQ(query.Send(IOCTL_INTERNAL_USB_GET_PORT_STATUS, &connected), STATUS_SUCCESS);
    EXPECT_EQ(connected, 0u);
    bus_->Unplug(pdo_);
    device_->Ring(); // nobody is there any more
    device_.reset();
    EXPECT_TRUE(watch.expired());
}

TEST_F(BusTest, APortResetKeepsHandlesButNoTransfers) {
    PlugAndConfigure();
    auto select = SelectInterface(pdo_, configuration_, 1, 1, 2);
    select->Send();
    ExpectEnd(*select, USBD_STATUS_SUCCESS, STATUS_SUCCESS);
    auto pending = BulkRead(pdo_, interrupt_, 4);
    pending->Send();
    device_->TakeLog();
    Sent reset(pdo_);
    reset.Send(IOCTL_INTERNAL_USB_RESET_PORT);
    ASSERT_TRUE(reset.Completes());
    EXPECT_EQ(reset.Status(), STATUS_SUCCESS);
    ExpectEnd(*pending, USBD_STATUS_CANCELED, STATUS_CANCELLED);
    EXPECT_EQ(device_->TakeLog(),
              (std::vector<std::string>{"reset port", "control 00 09 0001 0000 0000", "control 01 0b 0001 0001 0000"}));
    ExpectPipeRequest(interrupt_, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, USBD_STATUS_SUCCESS);
}

using BusDeathTest = BusTest;

TEST_F(BusDeathTest, AUrbIsInFlightOnlyOnce) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            PlugAndConfigure();
            auto first = BulkRead(pdo_, bulk_, 4);
            first->Send();
            Sent(pdo_).Send(IOCTL_INTERNAL_USB_SUBMIT_URB, first->Urb());
        },
        "a URB is submitted while it is in flight");
}

TEST_F(BusDeathTest, AnMdlCoversItsTransfer) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            PlugAndConfigure();
            auto sent = BulkRead(pdo_, bulk_, 4);
            sent->Urb()->UrbBulkOrInterruptTransfer.TransferBufferLength = 5;
            sent->Send();
            sent->Completes();
        },
        "the MDL of a URB is shorter than its transfer");
}

} // namespace
} // namespace host::usb::test
