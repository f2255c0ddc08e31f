// The defective pixels of a family C sensor: colour matrix set, control 32 enables their correction, 33 to 35 are the
// lists for binning factors 1, 2 and 4. The camera keeps the lists in its user-data store.
#pragma once

#include "camera/control.h"
#include "camera/region_provider.h"
#include "camera/vendor_protocol.h"
#include "imaging/defect_pixels.h"

namespace uvc {

class DefectProvider final : public PropertyProvider {
  public:
    explicit DefectProvider(const CameraDescription &description);

    // Reads the lists from the camera's store; a store that cannot be read leaves them empty.
    NTSTATUS Attach(UvcCamera &camera) override;

    // The parameters of the store. STATUS_NOT_IMPLEMENTED without one. IRQL: PASSIVE_LEVEL.
    NTSTATUS SaveStore(UvcCamera &camera);
    NTSTATUS LoadStore(UvcCamera &camera); // STATUS_DATA_ERROR: refused, and the lists are empty
    NTSTATUS DumpStore(UvcCamera &camera);
    NTSTATUS ClearStore(UvcCamera &camera); // and loads it again

    // Corrects a frame in place. IRQL: <= DISPATCH_LEVEL, on the thread that converts frames. Lock: none.
    void Correct(const imaging::ImageDescriptor &image, const RegionProvider &region);

  private:
    static NTSTATUS GetEnabled(const ControlRequest &request);
    static NTSTATUS SetEnabled(const ControlRequest &request);
    static NTSTATUS GetList(const ControlRequest &request);
    static NTSTATUS SetList(const ControlRequest &request);
    static const ControlItem kItems[4];

    void ForgetDefects();
    imaging::DefectPixelList &ListOf(const ControlRequest &request);

    const CameraDescription &description_;
    KMUTEX storeMutex_;   // over the store and every change of the lists; frames take the lists as they are
    bool enabled_ = true; // shared
    imaging::DefectPixelLists lists_{};      // shared
    imaging::DefectPixelLists frameLists_{}; // what the frame in hand is corrected by
};

} // namespace uvc
