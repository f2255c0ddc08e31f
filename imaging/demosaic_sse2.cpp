// The row kernels of the SSE2 set.
#include "imaging/demosaic_rows.h"
#include "imaging/vector_sse2.h"

namespace imaging {

using sse2::VectorSet;

constexpr RowKernel kSse2RowKernels[kModes] = {
    DemosaicRow<VectorSet, 0>,  DemosaicRow<VectorSet, 1>,  DemosaicRow<VectorSet, 2>,  DemosaicRow<VectorSet, 3>,
    DemosaicRow<VectorSet, 4>,  DemosaicRow<VectorSet, 5>,  DemosaicRow<VectorSet, 6>,  DemosaicRow<VectorSet, 7>,
    DemosaicRow<VectorSet, 8>,  DemosaicRow<VectorSet, 9>,  DemosaicRow<VectorSet, 10>, DemosaicRow<VectorSet, 11>,
    DemosaicRow<VectorSet, 12>, DemosaicRow<VectorSet, 13>, DemosaicRow<VectorSet, 14>, DemosaicRow<VectorSet, 15>,
};

} // namespace imaging
