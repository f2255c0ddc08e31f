#include "apps/uvcam/byte_file.h"

#include "apps/uvcam/exit_code.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace uvcam {

namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

// Opened or, for "-", the standard stream, which stays open.
File Open(const std::string &path, const char *mode, std::FILE *standard) {
    if (path == "-")
        return {standard, std::fflush};
    return {std::fopen(path.c_str(), mode), std::fclose};
}

[[noreturn]] void Fail(const char *verb, const std::string &path, const char *standardName) {
    const int error = errno;
    throw Failure(error == EACCES ? ExitCode::Permission : ExitCode::Failed, std::string("cannot ") + verb + " " +
                                                                                 (path == "-" ? standardName : path) +
                                                                                 ": " + std::strerror(error));
}

bool Write(std::FILE *file, const void *bytes, std::size_t size) {
    return size == 0 || std::fwrite(bytes, 1, size, file) == size;
}

} // namespace

std::vector<std::uint8_t> ReadBytes(const std::string &path, std::size_t limit) {
    constexpr std::size_t kStep = 1 << 20; // a limit alone is no reason to take memory
    const File file = Open(path, "rb", stdin);
    std::vector<std::uint8_t> bytes;
    while (file && bytes.size() < limit && std::feof(file.get()) == 0 && std::ferror(file.get()) == 0) {
        const std::size_t before = bytes.size();
        bytes.resize(std::min(before + kStep, limit));
        bytes.resize(before + std::fread(bytes.data() + before, 1, bytes.size() - before, file.get()));
    }
    if (!file || std::ferror(file.get()) != 0)
        Fail("read", path, "stdin");
    return bytes;
}

void WriteBytes(const std::string &path, const std::string &head, std::span<const std::uint8_t> bytes) {
    const File file = Open(path, "wb", stdout);
    if (!file || !Write(file.get(), head.data(), head.size()) || !Write(file.get(), bytes.data(), bytes.size()) ||
        std::fflush(file.get()) != 0)
        Fail("write", path, "stdout");
}

} // namespace uvcam
