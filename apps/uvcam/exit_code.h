// How uvcam ends. Scripts rely on these numbers.
#pragma once

#include <stdexcept>
#include <string>

namespace uvcam {

enum class ExitCode {
    Done = 0,
    Failed = 1,
    Usage = 2,
    NoSuchCamera = 3,
    Permission = 4,
    Busy = 5,
    NotOffered = 6,
    DeviceLost = 7,
    TimedOut = 8,
};

// One clear line for the person, and the code to end with.
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string &message) : std::runtime_error(message), code(code) {}
    const ExitCode code;
};

// What went wrong in a driver call, by its status: the name of the status and the fitting exit code.
Failure StatusFailure(const std::string &what, int status);

// "STATUS_NO_MATCH (0xC0000272)", or the bare number.
std::string StatusName(int status);

} // namespace uvcam
