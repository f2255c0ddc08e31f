#include "camera/camera_family_c_leaves.h"

#include <gtest/gtest.h>

#include <cstring>

namespace uvc::camera_test {
namespace {

// The slot of a virtual operation in the common C++ ABI, where a pointer to it holds 1 + its offset in the table.
template <class Operation> std::size_t SlotOf(Operation operation) {
    std::size_t words[2];
    static_assert(sizeof(operation) == sizeof(words));
    std::memcpy(words, &operation, sizeof(words));
    return (words[0] - 1) / sizeof(void *);
}

TEST(ModelTable, CamerasHaveTheirOperationsInTheirSlots) {
    const std::size_t slots[] = {
        SlotOf(&UvcCamera::Destroy),
        SlotOf(&UvcCamera::GetCameraInfo),
        SlotOf(&UvcCamera::IsParameterSupported),
        SlotOf(&UvcCamera::SetParameterBlock),
        SlotOf(&UvcCamera::SetParameter),
        SlotOf(&UvcCamera::GetParameterBlock),
        SlotOf(&UvcCamera::GetParameter),
        SlotOf(&UvcCamera::OptionalOperation),
        SlotOf(&UvcCamera::ItemExists),
        SlotOf(&UvcCamera::FindOwner),
        SlotOf(&UvcCamera::GetControl),
        SlotOf(&UvcCamera::SetControl),
        SlotOf(&UvcCamera::CreateControls),
        SlotOf(&UvcCamera::CreateWorker),
        SlotOf(&UvcCamera::ResetStreamState),
        SlotOf(&UvcCamera::BuildProbeRequest),
        SlotOf(&UvcCamera::CheckProbeResult),
        SlotOf(&UvcCamera::OnCommitted),
        SlotOf(&UvcCamera::FillImageParameters),
        SlotOf(&UvcCamera::AddUncompressedFrame),
        SlotOf(&UvcCamera::AddOtherFrame),
        SlotOf(&UvcCamera::FinishFormats),
        SlotOf(&UvcCamera::TransferSize),
        SlotOf(&UvcCamera::FindItem),
        SlotOf(&UvcCamera::ConvertFrame),
        SlotOf(&UvcCamera::GetOutputFrame),
        SlotOf(&UvcCamera::CompleteFrame),
        SlotOf(&UvcCamera::DropFrame),
        SlotOf(&CameraFamilyC::ApplyStreamingMode),
        SlotOf(&CameraFamilyC::GetFrameIntervals),
        SlotOf(&CameraFamilyC::ProcessRawFrame),
    };
    for (std::size_t i = 0; i < std::size(slots); ++i)
        EXPECT_EQ(slots[i], i);
}

} // namespace
} // namespace uvc::camera_test
