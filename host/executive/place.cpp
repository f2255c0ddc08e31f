#include "host/executive/place.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

namespace host {
namespace {

std::string NameOf(void *address) {
    char text[64];
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        std::snprintf(text, sizeof text, "%p", address);
        return text;
    }
    const auto offset = [&](void *base) { return static_cast<char *>(address) - static_cast<char *>(base); };
    if (info.dli_sname != nullptr) {
        int failed = 0;
        char *plain = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &failed);
        std::string name = failed == 0 ? plain : info.dli_sname;
        std::free(plain);
        std::snprintf(text, sizeof text, "+0x%tx", offset(info.dli_saddr));
        return name + text;
    }
    const char *slash = std::strrchr(info.dli_fname, '/');
    std::snprintf(text, sizeof text, "+0x%tx", offset(info.dli_fbase));
    return std::string(slash != nullptr ? slash + 1 : info.dli_fname) + text;
}

} // namespace

Place Place::Of(void *returnAddress) {
    Place place;
    place.frames_[0] = returnAddress;
    std::array<void *, 12> stack{};
    const auto end = stack.begin() + backtrace(stack.data(), static_cast<int>(stack.size()));
    const auto first = std::find(stack.begin(), end, returnAddress);
    std::copy_n(first, std::min<std::ptrdiff_t>(end - first, kDepth), place.frames_.begin());
    return place;
}

std::string Place::Text() const {
    std::string text;
    for (void *frame : frames_) {
        if (frame == nullptr)
            break;
        text += (text.empty() ? "" : " < ") + NameOf(frame);
    }
    return text;
}

} // namespace host
