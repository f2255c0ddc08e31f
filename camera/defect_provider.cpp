#include "camera/defect_provider.h"

#include "camera/control_id.h"
#include "camera/user_data_store.h"
#include "platform/lock.h"
#include "platform/pool.h"
#include "platform/shared_field.h"

#include <algorithm>

namespace uvc {

using imaging::DefectPixel;
using imaging::DefectPixelList;
using imaging::DefectPixelLists;

namespace {

using Snapshot = PoolPointer<DefectPixelLists, pool_tag::UserData>;

DefectProvider &ProviderOf(const ControlRequest &request) {
    return *static_cast<DefectProvider *>(request.provider);
}

bool HasBlock(const ControlRequest &request) {
    return request.kind == kControlDefectList && request.buffer != nullptr && request.length >= sizeof(DefectPixelList);
}

ULONG CountOf(const DefectPixelList &list) {
    return std::min<ULONG>(SharedLoad(list.count), imaging::kMaximumDefectPixels);
}

void StorePixel(DefectPixel &to, DefectPixel from) {
    SharedStore(to.x, from.x);
    SharedStore(to.y, from.y);
}

DefectPixel LoadPixel(const DefectPixel &from) {
    return {.x = SharedLoad(from.x), .y = SharedLoad(from.y)};
}

// From the shared list and into it. A frame may see some old and some new pixels.
void ReadList(const DefectPixelList &shared, DefectPixelList &list) {
    const ULONG count = CountOf(shared);
    list.count = count;
    for (ULONG i = 0; i < count; ++i)
        list.pixels[i] = LoadPixel(shared.pixels[i]);
}

void WriteList(DefectPixelList &shared, const DefectPixelList &list) {
    const ULONG count = CountOf(list);
    for (ULONG i = 0; i < count; ++i)
        StorePixel(shared.pixels[i], list.pixels[i]);
    SharedStore(shared.count, count);
}

void ReadLists(const DefectPixelLists &shared, DefectPixelLists &lists) {
    ReadList(shared.full, lists.full);
    ReadList(shared.binned2, lists.binned2);
    ReadList(shared.binned4, lists.binned4);
}

void WriteLists(DefectPixelLists &shared, const DefectPixelLists &lists) {
    WriteList(shared.full, lists.full);
    WriteList(shared.binned2, lists.binned2);
    WriteList(shared.binned4, lists.binned4);
}

constexpr ControlItem Item(ULONG id, ControlHandler get, ControlHandler set) {
    return {.propertySet = kPrivateColourMatrixSet,
            .propertyId = id,
            .get = get,
            .set = set,
            .modeCount = 0,
            .mappings = {}};
}

} // namespace

const ControlItem DefectProvider::kItems[] = {
    Item(kDefectCorrectionId, GetEnabled, SetEnabled),
    Item(kDefectsId, GetList, SetList),
    Item(kDefectsBinned2Id, GetList, SetList),
    Item(kDefectsBinned4Id, GetList, SetList),
};

DefectProvider::DefectProvider(const CameraDescription &description)
    : PropertyProvider(kItems), description_(description) {
    KeInitializeMutex(&storeMutex_, 0);
}

NTSTATUS DefectProvider::Attach(UvcCamera &camera) {
    SharedStore(enabled_, true);
    ForgetDefects();
    return LoadStore(camera) == STATUS_INSUFFICIENT_RESOURCES ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

NTSTATUS DefectProvider::SaveStore(UvcCamera &camera) {
    if (!description_.userDataStore)
        return STATUS_NOT_IMPLEMENTED;
    auto lists = Snapshot::Allocate(NonPagedPool);
    if (!lists)
        return STATUS_INSUFFICIENT_RESOURCES;
    MutexGuard guard(storeMutex_);
    ReadLists(lists_, *lists);
    return SaveUserData(camera, *lists);
}

NTSTATUS DefectProvider::LoadStore(UvcCamera &camera) {
    if (!description_.userDataStore)
        return STATUS_NOT_IMPLEMENTED;
    auto lists = Snapshot::Allocate(NonPagedPool);
    if (!lists)
        return STATUS_INSUFFICIENT_RESOURCES;
    MutexGuard guard(storeMutex_);
    NTSTATUS status = LoadUserData(camera, *lists);
    if (NT_SUCCESS(status) || status == STATUS_DATA_ERROR)
        WriteLists(lists_, *lists);
    return status;
}

NTSTATUS DefectProvider::DumpStore(UvcCamera &camera) {
    if (!description_.userDataStore)
        return STATUS_NOT_IMPLEMENTED;
    MutexGuard guard(storeMutex_);
    return DumpUserData(camera);
}

NTSTATUS DefectProvider::ClearStore(UvcCamera &camera) {
    if (!description_.userDataStore)
        return STATUS_NOT_IMPLEMENTED;
    MutexGuard guard(storeMutex_); // which the loading takes once more
    NTSTATUS status = ClearUserData(camera);
    if (!NT_SUCCESS(status))
        return status;
    ForgetDefects();
    return LoadStore(camera);
}

void DefectProvider::ForgetDefects() {
    for (DefectPixelList *list : {&lists_.full, &lists_.binned2, &lists_.binned4})
        SharedStore(list->count, 0u);
}

void DefectProvider::Correct(const imaging::ImageDescriptor &image, const RegionProvider &region) {
    if (!SharedLoad(enabled_))
        return;
    ReadLists(lists_, frameLists_);
    if ((frameLists_.full.count | frameLists_.binned2.count | frameLists_.binned4.count) != 0)
        imaging::CorrectDefects(image, frameLists_, region.Binning(), region.OffsetX(), region.OffsetY());
}

DefectPixelList &DefectProvider::ListOf(const ControlRequest &request) {
    switch (request.item.propertyId) {
    case kDefectsBinned2Id:
        return lists_.binned2;
    case kDefectsBinned4Id:
        return lists_.binned4;
    default:
        return lists_.full;
    }
}

NTSTATUS DefectProvider::GetEnabled(const ControlRequest &request) {
    return AnswerControl(
        request, {.value = SharedLoad(ProviderOf(request).enabled_), .maximum = 1, .defaultValue = 1, .resolution = 1});
}

NTSTATUS DefectProvider::SetEnabled(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (NT_SUCCESS(status))
        SharedStore(ProviderOf(request).enabled_, setting.value != 0);
    return status;
}

// The block of a list is the list itself, without property header; what lies behind its last pixel is zero.
NTSTATUS DefectProvider::GetList(const ControlRequest &request) {
    if (!HasBlock(request))
        return STATUS_NOT_IMPLEMENTED;
    RtlZeroMemory(request.buffer, sizeof(DefectPixelList));
    DefectProvider &provider = ProviderOf(request);
    MutexGuard guard(provider.storeMutex_);
    ReadList(provider.ListOf(request), *static_cast<DefectPixelList *>(request.buffer));
    return STATUS_SUCCESS;
}

// A count above 256 is taken as 256.
NTSTATUS DefectProvider::SetList(const ControlRequest &request) {
    if (!HasBlock(request))
        return STATUS_NOT_IMPLEMENTED;
    DefectProvider &provider = ProviderOf(request);
    MutexGuard guard(provider.storeMutex_);
    WriteList(provider.ListOf(request), *static_cast<const DefectPixelList *>(request.buffer));
    return STATUS_SUCCESS;
}

} // namespace uvc
