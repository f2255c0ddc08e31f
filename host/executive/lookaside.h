// Lookaside lists. Their fast paths are inline in the headers; the runtime keeps a register of the lists.
#pragma once

#include "host/executive/place.h"

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace host {

class LookasideTable {
  public:
    void Add(void *list, std::size_t size, Place place, const char *routine);
    void Remove(void *list, const char *routine);
    void CheckFreed(const void *begin, std::size_t size, const char *routine);
    std::string Leaks();

  private:
    struct Record {
        std::size_t size;
        Place place;
    };
    std::mutex mutex_;
    std::map<const void *, Record> lists_;
};

} // namespace host
