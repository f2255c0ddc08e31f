// The registry as text: one JSON object per key, named by its full path, so that a person can read and edit it.
#pragma once

#include "host/executive/registry.h"

#include <filesystem>

namespace host {

// Fills the tree from the file. False and a reason when the text is not a registry.
bool ReadRegistryFile(const std::filesystem::path &file, RegistryKey &root, std::string &reason);

// Replaces the file as a whole: a crash at any moment leaves the older state or the newer one, and of several processes
// that write at once the last one's stays. What is written on the way stands in a file of the same name and ".new".
void WriteRegistryFile(const std::filesystem::path &file, const RegistryKey &root);

} // namespace host
