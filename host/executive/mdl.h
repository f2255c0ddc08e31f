// Memory descriptor lists. An MDL belongs to its buffer.
#pragma once

#include "host/executive/place.h"
#include "host/executive/runtime.h"

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace host {

class MdlTable {
  public:
    PMDL Allocate(void *buffer, ULONG length, Place place);
    void Free(PMDL mdl, const char *routine);
    // A violation when the MDL is not a live one.
    void Check(PMDL mdl, const char *routine);
    void CheckFreed(const void *begin, std::size_t size, const char *routine);
    std::string Leaks();

  private:
    std::mutex mutex_;
    std::map<PMDL, Place> mdls_;
};

// Unlocks where locked and frees every MDL of a request that the I/O manager made.
void FreeMdlChain(PMDL mdl);

} // namespace host
