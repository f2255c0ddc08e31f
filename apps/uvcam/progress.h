// How far a capture is, as one line on stderr that overwrites itself; nothing unless stderr is a terminal.
#pragma once

#include <chrono>

namespace uvcam {

class Progress {
  public:
    Progress();
    ~Progress() { Clear(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // Cheap enough to be called for every frame.
    void Show(unsigned delivered, unsigned wanted, double seconds, long long dropped);
    // Leaves an empty line for what is said next.
    void Clear();

  private:
    const bool onTerminal_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point next_{};
};

} // namespace uvcam
