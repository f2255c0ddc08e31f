// The pin's states, its claim on the camera, its counters and what it writes into stream headers.
#include "host/executive/file.h"
#include "tests/driver/capture_rig.h"
#include "uvc_drv/properties.h"

#include <utility>

namespace uvc::driver_test {

namespace {

class CapturePinTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(rig.started, STATUS_SUCCESS);
        range = *FindRange(rig.app.Ranges(), FourCc("YUY2"), 320);
        ASSERT_EQ(rig.app.OpenPin(range), STATUS_SUCCESS);
    }

    KSPROPERTY_DROPPEDFRAMES_CURRENT_S Dropped(host::client::KsFile &file) {
        KSPROPERTY_DROPPEDFRAMES_CURRENT_S block{};
        EXPECT_EQ(file.GetBlock(PROPSETID_VIDCAP_DROPPEDFRAMES, KSPROPERTY_DROPPEDFRAMES_CURRENT, BytesOf(block)),
                  STATUS_SUCCESS);
        return block;
    }

    // A stream that was stopped or paused gives back the frame it was filling, cancelled.
    void ExpectFrames(unsigned count, bool afterStop = false) {
        for (unsigned i = 0; i < count; ++i) {
            host::client::Frame *frame = rig.app.Next();
            ASSERT_TRUE(frame);
            if (frame->Status() == STATUS_CANCELLED && std::exchange(afterStop, false))
                --i;
            else
                ASSERT_EQ(frame->Status(), STATUS_SUCCESS);
            rig.app.Return(*frame, *rig.camera);
        }
    }

    Rig rig{"sim:generic"};
    KS_DATARANGE_VIDEO range{};
};

// Two rounds through all states: the claim comes free, the counters begin anew.
TEST_F(CapturePinTest, EveryRoundBeginsAnew) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
        ExpectFrames(3);
        const auto counters = Dropped(rig.app.pin);
        EXPECT_GE(counters.PictureNumber, 3);
        EXPECT_EQ(counters.DropCount, 0);
        EXPECT_EQ(counters.AverageFrameSize, 320u * 240u * 2u);
        ASSERT_EQ(rig.app.pin.SetState(KSSTATE_STOP), STATUS_SUCCESS);
        rig.app.pin.CancelAll();
        rig.app.frames.clear();
        EXPECT_EQ(Dropped(rig.app.pin).AverageFrameSize, 0u); // nobody holds the camera
        ASSERT_EQ(rig.app.pin.SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
        EXPECT_EQ(Dropped(rig.app.pin).PictureNumber, 0);
    }
}

// A pause resumes the stream instead of negotiating it again; going back to ACQUIRE ends it.
TEST_F(CapturePinTest, PauseResumesAndAcquireEndsTheStream) {
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    ExpectFrames(2);
    rig.camera->ClearControlLog();
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ExpectFrames(2, true);
    for (const auto &record : rig.camera->ControlLog())
        EXPECT_NE(record.setup.requestType & 0x60, 0x20) << "a class request during resume";
    EXPECT_EQ(Dropped(rig.app.pin).DropCount, 0);

    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ExpectFrames(2, true);
    bool negotiated = false;
    for (const auto &record : rig.camera->ControlLog())
        negotiated |= (record.setup.requestType & 0x60) == 0x20;
    EXPECT_TRUE(negotiated);
}

// One pin of the camera at a time, whichever filter instance it belongs to.
TEST_F(CapturePinTest, ASecondPinIsRefusedWhileTheCameraIsClaimed) {
    Application other;
    ASSERT_EQ(other.OpenFilter(), STATUS_SUCCESS);
    ASSERT_EQ(other.OpenPin(range), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_EQ(other.pin.SetState(KSSTATE_ACQUIRE), STATUS_SHARING_VIOLATION);
    KSSTATE state = KSSTATE_RUN;
    ASSERT_EQ(other.pin.State(state), STATUS_SUCCESS);
    EXPECT_EQ(state, KSSTATE_STOP);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_STOP), STATUS_SUCCESS);
    EXPECT_EQ(other.pin.SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
}

// Headers without room for a KS_FRAME_INFO get none; without a clock frames carry no valid time, whatever the header
// says that the application queues.
TEST_F(CapturePinTest, ShortHeadersAndNoClock) {
    ASSERT_EQ(rig.app.Pause(0), STATUS_SUCCESS);
    host::client::Frame queued(rig.app.Info().bmiHeader.biSizeImage, false);
    queued.Header().OptionsFlags = KSSTREAM_HEADER_OPTIONSF_TIMEVALID;
    ASSERT_EQ(rig.app.pin.Queue(queued), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    host::client::Frame *frame = rig.app.Next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->Header().Size, sizeof(KSSTREAM_HEADER));
    EXPECT_EQ(frame->Info().PictureNumber, 0);
    EXPECT_EQ(frame->Header().OptionsFlags & KSSTREAM_HEADER_OPTIONSF_TIMEVALID, 0u);
    EXPECT_EQ(frame->Header().PresentationTime.Time, 0);
    EXPECT_GT(frame->Header().Duration, 0);
    rig.app.pin.Close();
}

// Without queued frames every exposure is told as lost; delivery goes on with the first frame that is queued.
TEST_F(CapturePinTest, SurvivesAnEmptyQueue) {
    ASSERT_EQ(rig.app.Pause(0), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    host::client::Frame late(rig.app.Info().bmiHeader.biSizeImage);
    LARGE_INTEGER delay{.QuadPart = -2 * 10'000'000};
    KeDelayExecutionThread(KernelMode, FALSE, &delay);
    const auto lost = static_cast<LONGLONG>(rig.camera->Counters().framesStarted);
    EXPECT_GT(lost, 5);
    EXPECT_EQ(Dropped(rig.app.pin).PictureNumber, lost);
    EXPECT_EQ(Dropped(rig.app.pin).DropCount, lost);
    ASSERT_EQ(rig.app.pin.Queue(late), STATUS_SUCCESS);
    host::client::Frame *frame = rig.app.Next();
    ASSERT_EQ(frame, &late);
    EXPECT_EQ(late.Status(), STATUS_SUCCESS);
    EXPECT_EQ(late.Info().PictureNumber, lost + 1);
    EXPECT_EQ(late.Info().DropCount, lost);
    rig.app.pin.Close();
}

TEST_F(CapturePinTest, DroppedFramesAtTheFilterAreThoseOfTheConnectedPin) {
    KSPROPERTY_DROPPEDFRAMES_CURRENT_S block{};
    EXPECT_EQ(rig.app.filter.GetBlock(PROPSETID_VIDCAP_DROPPEDFRAMES, KSPROPERTY_DROPPEDFRAMES_CURRENT, BytesOf(block)),
              STATUS_NOT_IMPLEMENTED);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    ExpectFrames(3);
    EXPECT_GE(Dropped(rig.app.filter).PictureNumber, 3);
}

// A frame that the driver is filling cannot be cancelled; once the pin pauses, nobody waits for it any longer.
TEST(CapturePin, GivesBackAtAPauseWhatCouldNotBeCancelled) {
    Rig rig("sim:generic,payload=4096");
    ASSERT_EQ(rig.app.OpenPin(*FindRange(rig.app.Ranges(), FourCc("YUY2"), 320)), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Pause(), STATUS_SUCCESS);
    host::FaultPlan silence; // in the midst of the first frame
    silence.FailTransfer(20, host::TransferFault::Hang, true);
    rig.computer.Machine().Arm(silence);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    LARGE_INTEGER delay{.QuadPart = -10'000'000};
    KeDelayExecutionThread(KernelMode, FALSE, &delay);
    host::CancelFileIo(rig.app.pin.Handle());
    host::client::Frame *frame = nullptr;
    EXPECT_EQ(rig.app.pin.NextFrame(&frame, 1000), STATUS_TIMEOUT);
    const host::Ticks start = rig.computer.Machine().Now();
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    for (std::size_t queued = rig.app.pin.Queued(); queued != 0; --queued) {
        ASSERT_EQ(rig.app.pin.NextFrame(&frame, 0), STATUS_SUCCESS) << queued << " are left";
        EXPECT_EQ(frame->Status(), STATUS_CANCELLED);
    }
    rig.app.pin.Close();
    EXPECT_EQ(rig.computer.Machine().Now(), start);
}

} // namespace

} // namespace uvc::driver_test
