#include "apps/uvcam/progress.h"

#include <cstdio>
#include <unistd.h>

namespace uvcam {

Progress::Progress() : onTerminal_(isatty(STDERR_FILENO) != 0) {}

void Progress::Show(unsigned delivered, unsigned wanted, double seconds, long long dropped) {
    constexpr auto kPause = std::chrono::milliseconds(100);
    if (!onTerminal_)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_)
        return;
    next_ = now + kPause;
    shown_ = true;
    std::fprintf(stderr, "\r\033[K%u of %u frames, %.1f fps, %lld dropped", delivered, wanted,
                 seconds > 0 ? delivered / seconds : 0, dropped);
}

void Progress::Clear() {
    if (shown_)
        std::fprintf(stderr, "\r\033[K");
    shown_ = false;
}

} // namespace uvcam
