// The registry as text: one JSON object per key, named by its full path, so that a person can read and edit it.
#pragma once

#include "host/executive/registry.h"

#include <filesystem>
#include <functional>

namespace host {

// Fills the tree from the file. False and a reason when the text is not a registry.
bool ReadRegistryFile(const std::filesystem::path &file, RegistryKey &root, std::string &reason);

// Reads the file, lets `change` have its tree and replaces the file by what that leaves, as a whole: a crash at any
// moment leaves the older state or the newer one. Processes that do so at once take turns. What is written on the way
// stands in a file of the same name and ".new". A file that cannot be read or written is a violation.
void UpdateRegistryFile(const std::filesystem::path &file, const std::function<void(RegistryKey &)> &change);

} // namespace host
