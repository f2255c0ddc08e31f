#include "host/executive/registry_file.h"

#include "host/executive/text.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr std::array<std::pair<ULONG, const char *>, 6> kTypes{{
    {REG_NONE, "none"},
    {REG_SZ, "string"},
    {REG_EXPAND_SZ, "expand"},
    {REG_BINARY, "binary"},
    {REG_DWORD, "dword"},
    {REG_QWORD, "qword"},
}};

std::string Hex(const std::vector<std::uint8_t> &data) {
    std::string text;
    for (std::uint8_t byte : data)
        text += Format("%02x", byte);
    return text;
}

bool FromHex(const std::string &text, std::vector<std::uint8_t> &data) {
    if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    for (std::size_t i = 0; i < text.size(); i += 2)
        data.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return true;
}

std::vector<std::uint8_t> StringBytes(const std::string &text) {
    const std::u16string wide = ToUtf16(text);
    std::vector<std::uint8_t> data((wide.size() + 1) * sizeof(char16_t));
    std::memcpy(data.data(), wide.c_str(), data.size());
    return data;
}

// Readable where nothing is lost by it, hexadecimal where it would be.
json ValueToJson(const RegistryValue &value) {
    const char *type = nullptr;
    for (const auto &[number, name] : kTypes) {
        if (number == value.type)
            type = name;
    }
    json entry{{"type", type != nullptr ? json(type) : json(value.type)}};
    const auto &data = value.data;
    if ((value.type == REG_SZ || value.type == REG_EXPAND_SZ) && data.size() >= 2 && data.size() % 2 == 0) {
        std::u16string wide(data.size() / 2, u'\0');
        std::memcpy(wide.data(), data.data(), data.size());
        wide.pop_back();
        const std::string text = ToUtf8(wide);
        if (wide.find(u'\0') == std::u16string::npos && StringBytes(text) == data) {
            entry["data"] = text;
            return entry;
        }
    }
    if ((value.type == REG_DWORD && data.size() == 4) || (value.type == REG_QWORD && data.size() == 8)) {
        std::uint64_t number = 0;
        std::memcpy(&number, data.data(), data.size());
        entry["data"] = number;
        return entry;
    }
    entry["hex"] = Hex(data);
    return entry;
}

bool ValueFromJson(const json &entry, RegistryValue &value) {
    const json &type = entry.at("type");
    if (type.is_number_unsigned()) {
        value.type = type.get<ULONG>();
    } else {
        bool known = false;
        for (const auto &[number, name] : kTypes) {
            if (type == name) {
                value.type = number;
                known = true;
            }
        }
        if (!known)
            return false;
    }
    if (entry.contains("hex"))
        return FromHex(entry["hex"].get<std::string>(), value.data);
    const json &data = entry.at("data");
    if (data.is_string()) {
        value.data = StringBytes(data.get<std::string>());
        return true;
    }
    const auto number = data.get<std::uint64_t>();
    value.data.resize(value.type == REG_QWORD ? 8 : 4);
    std::memcpy(value.data.data(), &number, value.data.size());
    return true;
}

void KeyToJson(const RegistryKey &key, const std::u16string &path, ordered_json &all) {
    if (key.isVolatile)
        return;
    if (key.keys.empty() || !key.values.empty()) {
        ordered_json values = ordered_json::object();
        for (const RegistryValue &value : key.values)
            values[ToUtf8(value.name)] = ValueToJson(value);
        all[ToUtf8(path)] = std::move(values);
    }
    for (const auto &[upper, child] : key.keys)
        KeyToJson(*child, path + u"\\" + child->name, all);
}

class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0)
            close(number_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    operator int() const { return number_; }

  private:
    const int number_;
};

// Opens the file, or what a killed process left of it, as the only one who does; -1 on failure. The lock belongs to the
// open file, so it goes when the process does.
int OpenAlone(const std::filesystem::path &file) {
    for (;;) {
        const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (descriptor < 0)
            return -1;
        struct stat opened, named;
        if (flock(descriptor, LOCK_EX) == 0 && fstat(descriptor, &opened) == 0) {
            // Whoever held the lock may have renamed the file meanwhile: then it is the registry itself by now.
            if (stat(file.c_str(), &named) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev)
                return descriptor;
            errno = EAGAIN;
        }
        const int error = errno;
        close(descriptor);
        errno = error;
        if (error != EAGAIN && error != EINTR)
            return -1;
    }
}

bool WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

// A renamed file is on the disk only when its folder is.
bool SyncFolder(const std::filesystem::path &file) {
    const std::filesystem::path folder = file.has_parent_path() ? file.parent_path() : ".";
    const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot sync a folder; the rename is whole all the same.
    return descriptor >= 0 && (fsync(descriptor) == 0 || errno == EINVAL);
}

} // namespace

bool ReadRegistryFile(const std::filesystem::path &file, RegistryKey &root, std::string &reason) {
    std::ifstream stream(file);
    if (!stream) {
        if (!std::filesystem::exists(file))
            return true; // the first run
        reason = "cannot be read";
        return false;
    }
    try {
        const ordered_json all = ordered_json::parse(stream);
        for (const auto &[path, values] : all.items()) {
            RegistryKey *key = &root;
            const std::u16string wide = ToUtf16(path);
            for (std::size_t begin = 1, end; begin < wide.size(); begin = end + 1) {
                end = std::min(wide.find(u'\\', begin), wide.size());
                const std::u16string name = wide.substr(begin, end - begin);
                auto &child = key->keys[Upcase(name)];
                if (child == nullptr) {
                    child = std::make_shared<RegistryKey>();
                    child->name = name;
                }
                key = child.get();
            }
            for (const auto &[name, entry] : values.items()) {
                RegistryValue value{.name = ToUtf16(name)};
                if (!ValueFromJson(entry, value)) {
                    reason = "the value \"" + name + "\" is not understood";
                    return false;
                }
                key->values.push_back(std::move(value));
            }
        }
    } catch (const json::parse_error &error) {
        reason = Format("is no JSON from byte %zu on", error.byte);
        return false;
    } catch (const json::exception &) {
        reason = "is JSON, but no registry";
        return false;
    }
    return true;
}

void UpdateRegistryFile(const std::filesystem::path &file, const std::function<void(RegistryKey &)> &change) {
    const std::filesystem::path temporary = file.string() + ".new";
    const auto fail = [&](const std::string &reason) {
        Violation("registry file", "registry", file.string() + " cannot be written: " + reason);
    };
    const Descriptor descriptor(OpenAlone(temporary));
    if (descriptor < 0)
        fail(std::strerror(errno));
    RegistryKey root;
    std::string reason;
    if (!ReadRegistryFile(file, root, reason))
        fail(reason);
    change(root);
    ordered_json all = ordered_json::object();
    for (const auto &[upper, child] : root.keys)
        KeyToJson(*child, u"\\" + child->name, all);
    if (ftruncate(descriptor, 0) != 0 || !WriteAll(descriptor, all.dump(2) + "\n") || fsync(descriptor) != 0 ||
        rename(temporary.c_str(), file.c_str()) != 0 || !SyncFolder(file))
        fail(std::strerror(errno));
}

} // namespace host
