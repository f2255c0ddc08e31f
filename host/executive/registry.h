// The registry: keys and values in memory and, when asked, in a file.
#pragma once

#include "host/executive/place.h"
#include "host/executive/runtime.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace host {

struct RegistryValue {
    std::u16string name;
    ULONG type = REG_NONE;
    std::vector<std::uint8_t> data;
    bool changed = false; // since the file was read
};

struct RegistryKey {
    std::u16string name;                                         // as it was created
    std::map<std::u16string, std::shared_ptr<RegistryKey>> keys; // by name in upper case
    std::vector<RegistryValue> values;                           // in the order of their creation
    std::set<std::u16string> removed;                            // names of values since the file was read, upper case
    std::set<std::u16string> removedKeys;                        // likewise
    bool isVolatile = false;
    bool deleted = false;
};

// Which missing keys on the way are made.
enum class MakeKeys { None, Last, All };

class Registry {
  public:
    // Reads the file when there is one. A file that cannot be understood is a violation: nothing is overwritten.
    explicit Registry(std::filesystem::path file);

    void CreatePath(std::u16string_view path);
    NTSTATUS Open(std::u16string_view path, ACCESS_MASK access, bool kernel, Place place, PHANDLE handle);

    // The kernel's routines. `root` null: `path` is absolute.
    NTSTATUS Create(RegistryKey *root, std::u16string_view path, ULONG options, MakeKeys make,
                    std::shared_ptr<RegistryKey> &key, bool &created);
    HANDLE MakeHandle(std::shared_ptr<RegistryKey> key, ACCESS_MASK access, bool kernel, Place place);

    NTSTATUS SetValue(RegistryKey &key, std::u16string_view name, ULONG type, const void *data, ULONG size);
    NTSTATUS DeleteValue(RegistryKey &key, std::u16string_view name);
    NTSTATUS DeleteKey(RegistryKey &key);
    // Copies, so that no lock is held while a caller's buffer is filled.
    bool FindValue(const RegistryKey &key, std::u16string_view name, RegistryValue &value);
    bool ValueAt(const RegistryKey &key, ULONG index, RegistryValue &value);
    bool SubkeyAt(const RegistryKey &key, ULONG index, std::u16string &name);
    void Counts(const RegistryKey &key, ULONG &keys, ULONG &values);

  private:
    void Load();
    // Brings what has changed here into the file, over what other programs may have put there in the meantime.
    void Save();

    const std::filesystem::path file_;
    std::mutex mutex_;
    std::shared_ptr<RegistryKey> root_ = std::make_shared<RegistryKey>();
};

} // namespace host
