// The digital white balance of families B and C: video processing control 7, private image controls 101, 102, 206 (the
// gains) and 107 (one run of the automatic).
#pragma once

#include "camera/control.h"
#include "camera/vendor_protocol.h"
#include "imaging/colour_samples.h"
#include "imaging/image.h"

namespace uvc {

class WhiteBalanceProvider final : public PropertyProvider {
  public:
    explicit WhiteBalanceProvider(const CameraDescription &description);

    // STATUS_NOT_IMPLEMENTED for a monochrome camera.
    NTSTATUS Attach(UvcCamera &camera) override;

    // What the conversion applies. IRQL: <= DISPATCH_LEVEL. Lock: none.
    imaging::GainRecords Gains() const;

    // Looks at a frame: samples its colours, balances the gains while the automatic is on or a run is asked for, and
    // tells the brightness behind gains and, unless it is null, matrix. A grey frame is only measured. False for a
    // frame that is too small to tell anything. IRQL: <= DISPATCH_LEVEL, on the thread that converts frames. Lock:
    // none.
    bool Judge(const imaging::ImageDescriptor &source, const SHORT (*matrix)[imaging::kMatrixCoefficients],
               imaging::ColourSamples &samples, std::uint32_t &brightness);

  private:
    static NTSTATUS GetBalance(const ControlRequest &request);
    static NTSTATUS SetBalance(const ControlRequest &request);
    static NTSTATUS GetGain(const ControlRequest &request);
    static NTSTATUS SetGain(const ControlRequest &request);
    static NTSTATUS GetOnePush(const ControlRequest &request);
    static NTSTATUS SetOnePush(const ControlRequest &request);
    static const ControlItem kItems[5];

    imaging::GainRecord &GainOf(const ControlRequest &request);

    const CameraDescription &description_;
    imaging::GainRecords gains_; // current values and automatic flags are shared
    bool onePush_ = false;       // shared
};

} // namespace uvc
