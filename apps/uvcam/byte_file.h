// Whole files of bytes; "-" is stdin or stdout.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace uvcam {

// The first `limit` bytes of a file. Throws Failure when it cannot be read.
std::vector<std::uint8_t> ReadBytes(const std::string &path, std::size_t limit);

// Replaces the file by `head` and `bytes`. Throws Failure when it cannot be written.
void WriteBytes(const std::string &path, const std::string &head, std::span<const std::uint8_t> bytes);

} // namespace uvcam
