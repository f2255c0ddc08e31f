#include "host/executive/registry.h"

#include "host/executive/registry_file.h"
#include "host/executive/text.h"

#include <algorithm>

namespace host {
namespace {

template <class Visit> void ForEachName(std::u16string_view path, Visit visit) {
    while (!path.empty()) {
        const std::size_t end = std::min(path.find(u'\\'), path.size());
        if (end != 0 && !visit(path.substr(0, end)))
            return;
        path.remove_prefix(std::min(end + 1, path.size()));
    }
}

auto FindByName(auto &values, std::u16string_view name) {
    return std::find_if(values.begin(), values.end(),
                        [&](const RegistryValue &value) { return Upcase(value.name) == Upcase(name); });
}

void Overlay(const RegistryKey &changes, RegistryKey &stored) {
    std::erase_if(stored.values,
                  [&](const RegistryValue &value) { return changes.removed.contains(Upcase(value.name)); });
    for (const RegistryValue &value : changes.values) {
        if (!value.changed)
            continue;
        const auto found = FindByName(stored.values, value.name);
        if (found == stored.values.end())
            stored.values.push_back(value);
        else
            *found = value;
    }
    for (const std::u16string &name : changes.removedKeys)
        stored.keys.erase(name);
    for (const auto &[upper, child] : changes.keys) {
        if (child->isVolatile)
            continue;
        std::shared_ptr<RegistryKey> &into = stored.keys[upper];
        if (into == nullptr) {
            into = std::make_shared<RegistryKey>();
            into->name = child->name;
        }
        Overlay(*child, *into);
    }
}

} // namespace

Registry::Registry(std::filesystem::path file) : file_(std::move(file)) {
    Load();
}

void Registry::Load() {
    std::string reason;
    if (!file_.empty() && !ReadRegistryFile(file_, *root_, reason))
        Violation("registry file", "Runtime", file_.string() + ": " + reason);
}

void Registry::Save() {
    if (file_.empty())
        return;
    UpdateRegistryFile(file_, [this](RegistryKey &stored) { Overlay(*root_, stored); });
}

NTSTATUS Registry::Create(RegistryKey *root, std::u16string_view path, ULONG options, MakeKeys make,
                          std::shared_ptr<RegistryKey> &key, bool &created) {
    std::lock_guard lock(mutex_);
    created = false;
    if (root != nullptr ? path.starts_with(u'\\') : !path.starts_with(u'\\'))
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (root != nullptr && root->deleted)
        return STATUS_KEY_DELETED;
    // A null owner: the caller's handle keeps the root alive.
    std::shared_ptr<RegistryKey> at =
        root != nullptr ? std::shared_ptr<RegistryKey>(std::shared_ptr<void>(), root) : root_;
    NTSTATUS status = STATUS_SUCCESS;
    ForEachName(path, [&](std::u16string_view name) {
        const auto found = at->keys.find(Upcase(name));
        if (found != at->keys.end()) {
            at = std::shared_ptr<RegistryKey>(found->second);
            return true;
        }
        const bool last = name.data() + name.size() == path.data() + path.size();
        if (make == MakeKeys::None || (make == MakeKeys::Last && !last)) {
            status = STATUS_OBJECT_NAME_NOT_FOUND;
            return false;
        }
        auto child = std::make_shared<RegistryKey>();
        child->name = name;
        child->isVolatile = (options & REG_OPTION_VOLATILE) != 0;
        at->keys[Upcase(name)] = child;
        at->removedKeys.erase(Upcase(name));
        at = std::move(child);
        created = true;
        return true;
    });
    if (NT_SUCCESS(status))
        key = at;
    if (created)
        Save();
    return status;
}

void Registry::CreatePath(std::u16string_view path) {
    std::shared_ptr<RegistryKey> key;
    bool created;
    static_cast<void>(Create(nullptr, path, 0, MakeKeys::All, key, created));
}

NTSTATUS Registry::Open(std::u16string_view path, ACCESS_MASK access, bool kernel, Place place, PHANDLE handle) {
    std::shared_ptr<RegistryKey> key;
    bool created;
    const NTSTATUS status = Create(nullptr, path, 0, MakeKeys::None, key, created);
    if (NT_SUCCESS(status))
        *handle = MakeHandle(std::move(key), access, kernel, place);
    return status;
}

NTSTATUS Registry::SetValue(RegistryKey &key, std::u16string_view name, ULONG type, const void *data, ULONG size) {
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    std::vector<std::uint8_t> copy(bytes, bytes + size);
    std::lock_guard lock(mutex_);
    if (key.deleted)
        return STATUS_KEY_DELETED;
    auto found = FindByName(key.values, name);
    if (found == key.values.end())
        found = key.values.insert(found, RegistryValue{.name = std::u16string(name)});
    else if (found->type == type && found->data == copy)
        return STATUS_SUCCESS; // saves the writing: a driver that replays its settings stores each of them again
    found->type = type;
    found->data = std::move(copy);
    found->changed = true;
    key.removed.erase(Upcase(name));
    Save();
    return STATUS_SUCCESS;
}

NTSTATUS Registry::DeleteValue(RegistryKey &key, std::u16string_view name) {
    std::lock_guard lock(mutex_);
    if (key.deleted)
        return STATUS_KEY_DELETED;
    const auto found = FindByName(key.values, name);
    if (found == key.values.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    key.removed.insert(Upcase(found->name));
    key.values.erase(found);
    Save();
    return STATUS_SUCCESS;
}

NTSTATUS Registry::DeleteKey(RegistryKey &key) {
    std::lock_guard lock(mutex_);
    if (key.deleted)
        return STATUS_KEY_DELETED;
    if (!key.keys.empty())
        return STATUS_CANNOT_DELETE;
    key.deleted = true;
    // The tree is small: look for the parent.
    const auto remove = [&](auto &self, RegistryKey &parent) -> bool {
        for (auto child = parent.keys.begin(); child != parent.keys.end(); ++child) {
            if (child->second.get() == &key) {
                parent.removedKeys.insert(child->first);
                parent.keys.erase(child);
                return true;
            }
            if (self(self, *child->second))
                return true;
        }
        return false;
    };
    remove(remove, *root_);
    Save();
    return STATUS_SUCCESS;
}

bool Registry::FindValue(const RegistryKey &key, std::u16string_view name, RegistryValue &value) {
    std::lock_guard lock(mutex_);
    const auto found = FindByName(key.values, name);
    if (found == key.values.end())
        return false;
    value = *found;
    return true;
}

bool Registry::ValueAt(const RegistryKey &key, ULONG index, RegistryValue &value) {
    std::lock_guard lock(mutex_);
    if (index >= key.values.size())
        return false;
    value = key.values[index];
    return true;
}

bool Registry::SubkeyAt(const RegistryKey &key, ULONG index, std::u16string &name) {
    std::lock_guard lock(mutex_);
    if (index >= key.keys.size())
        return false;
    name = std::next(key.keys.begin(), index)->second->name;
    return true;
}

void Registry::Counts(const RegistryKey &key, ULONG &keys, ULONG &values) {
    std::lock_guard lock(mutex_);
    keys = static_cast<ULONG>(key.keys.size());
    values = static_cast<ULONG>(key.values.size());
}

} // namespace host
