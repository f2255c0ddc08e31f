// The colour matrix of families B and C and what else concerns their sensor's colours: the items of the colour matrix
// set. 0 enables the matrix, 1 to 9 are its coefficients, 10 the conversion algorithm, 11 puts all of these back to
// their defaults, 12 is the Bayer pattern that images are taken to have.
#pragma once

#include "camera/control.h"
#include "camera/vendor_protocol.h"
#include "imaging/image.h"

namespace uvc {

class ColourMatrixProvider final : public PropertyProvider {
  public:
    explicit ColourMatrixProvider(const CameraDescription &description);

    // On a monochrome camera only item 10 answers.
    NTSTATUS Attach(UvcCamera &camera) override;

    // What the conversion applies. A frame may see some old and some new coefficients. IRQL: <= DISPATCH_LEVEL. Lock:
    // none.
    bool Enabled() const;
    void ReadMatrix(SHORT (&matrix)[imaging::kMatrixCoefficients]) const;
    ULONG Pattern() const;

  private:
    static NTSTATUS GetMatrix(const ControlRequest &request);
    static NTSTATUS SetMatrix(const ControlRequest &request);
    static NTSTATUS GetColours(const ControlRequest &request);
    static NTSTATUS SetColours(const ControlRequest &request);
    static const ControlItem kItems[13];

    void SetDefaults();

    const CameraDescription &description_;
    // All shared.
    bool enabled_;
    SHORT coefficients_[imaging::kMatrixCoefficients];
    LONG algorithm_;
    ULONG pattern_ = 0;
};

} // namespace uvc
