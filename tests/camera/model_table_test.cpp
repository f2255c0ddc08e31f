#include "camera/camera_family_a.h"
#include "camera/camera_family_b.h"
#include "camera/camera_family_c_leaves.h"
#include "camera/model_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace uvc::camera_test {
namespace {

TEST(ModelTable, HasItsRowsInOrder) {
    struct Row {
        ULONG kind;
        ULONG productId;
        CameraFactory factory;
    };
    const Row rows[] = {
        {1, 0x8101, MakeCamera<CameraFamilyA>},  {2, 0x8102, MakeCamera<CameraFamilyB>},
        {2, 0x8201, MakeCamera<CameraFamilyC1>}, {2, 0x8202, MakeCamera<CameraFamilyC1>},
        {2, 0x8203, MakeCamera<CameraFamilyC2>}, {2, 0x8204, MakeCamera<CameraFamilyC3>},
        {2, 0x8207, MakeCamera<CameraFamilyC6>}, {2, 0x8205, MakeCamera<CameraFamilyC4>},
        {2, 0x8206, MakeCamera<CameraFamilyC5>},
    };
    static_assert(std::size(rows) == kModelCount);
    for (ULONG i = 0; i < kModelCount; ++i) {
        EXPECT_EQ(ModelTable[i].kind, rows[i].kind) << i;
        EXPECT_EQ(ModelTable[i].productId, rows[i].productId) << i;
        EXPECT_EQ(ModelTable[i].factory, rows[i].factory) << i;
        EXPECT_EQ(FindModel(rows[i].productId), &ModelTable[i]);
        const UCHAR zeros[32] = {};
        EXPECT_EQ(std::memcmp(ModelTable[i].reserved, zeros, sizeof(zeros)), 0);
    }
    for (ULONG unknown : {0u, 0x8000u, 0x8100u, 0x8103u, 0x8200u, 0x8208u, 0x18201u})
        EXPECT_EQ(FindModel(unknown), nullptr) << unknown;
}

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
