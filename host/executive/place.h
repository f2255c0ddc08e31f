// Where something came from: the few return addresses behind a call of a kernel routine, kept cheaply, named on demand.
#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace host {

class Place {
  public:
    Place() = default;
    // The callers from `returnAddress` on, the nearest first.
    static Place Of(void *returnAddress);
    // "name+0x12 < caller+0x34", or "module+0x1234" where the program keeps no name.
    std::string Text() const;

  private:
    static constexpr std::size_t kDepth = 4;
    std::array<void *, kDepth> frames_{};
};

} // namespace host

// The place that called the routine in which this stands.
#define CALLER_PLACE() ::host::Place::Of(__builtin_return_address(0))
