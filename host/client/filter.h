// An application's view of a capture filter.
#pragma once

#include "host/client/ks_file.h"

namespace host::client {

// The symbolic links of all filters that are ready for use, in the order of their registration.
NTSTATUS FindCaptureFilters(std::vector<std::u16string> &links);

class Filter : public KsFile {
  public:
    NTSTATUS Open(const std::u16string &link);

    // The pin's video ranges, in its order; ranges of other kinds are left out.
    NTSTATUS DataRanges(ULONG pinId, std::vector<KS_DATARANGE_VIDEO> &ranges);

    // The format (a KSDATAFORMAT and what belongs to it) that the pin makes of `range`, which begins with a
    // KSDATARANGE.
    NTSTATUS Intersect(ULONG pinId, ConstBytes range, std::vector<std::uint8_t> &format);
};

} // namespace host::client
