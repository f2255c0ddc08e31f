// The kernel's registry routines: handles, access rights, and the rules of their buffers.
#include "host/executive/state.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace host {
namespace {

// The body of a key object: handles to one key may outlive its deletion.
struct KeyBody {
    std::shared_ptr<RegistryKey> key;
};

ACCESS_MASK Specific(ACCESS_MASK access) {
    ACCESS_MASK result = access;
    if ((access & (GENERIC_ALL | MAXIMUM_ALLOWED)) != 0)
        result |= KEY_ALL_ACCESS;
    if ((access & GENERIC_READ) != 0)
        result |= KEY_READ;
    if ((access & GENERIC_WRITE) != 0)
        result |= KEY_WRITE;
    return result;
}

// The key behind a handle for one call, when the handle grants what the call needs.
class OpenKey {
  public:
    OpenKey(HANDLE handle, ACCESS_MASK needed, const char *routine) {
        RequireIrqlAtMost(PASSIVE_LEVEL, routine);
        ACCESS_MASK granted = 0;
        body_ = Machine().objects.ReferenceByHandle(handle, ObjectKind::Key, &granted, routine);
        if (body_ == nullptr)
            status_ = STATUS_INVALID_HANDLE;
        else if ((granted & needed) != needed)
            status_ = STATUS_ACCESS_DENIED;
    }
    ~OpenKey() {
        if (body_ != nullptr)
            Machine().objects.Dereference(body_, "registry");
    }
    OpenKey(const OpenKey &) = delete;
    OpenKey &operator=(const OpenKey &) = delete;
    NTSTATUS Status() const { return status_; }
    RegistryKey &Key() const { return *static_cast<KeyBody *>(body_)->key; }

  private:
    void *body_ = nullptr;
    NTSTATUS status_ = STATUS_SUCCESS;
};

// Fills a caller's buffer with `fixed` bytes that must fit and a variable rest of which as much is copied as fits.
NTSTATUS Answer(void *buffer, ULONG length, PULONG resultLength, const std::vector<std::uint8_t> &whole, ULONG fixed) {
    *resultLength = static_cast<ULONG>(whole.size());
    if (length < fixed)
        return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(buffer, whole.data(), std::min<std::size_t>(length, whole.size()));
    return length < whole.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

template <class T> void Append(std::vector<std::uint8_t> &bytes, const T *data, std::size_t count) {
    const auto *begin = reinterpret_cast<const std::uint8_t *>(data);
    bytes.insert(bytes.end(), begin, begin + count * sizeof(T));
}

NTSTATUS AnswerValue(const RegistryValue &value, KEY_VALUE_INFORMATION_CLASS form, void *buffer, ULONG length,
                     PULONG resultLength) {
    const auto nameBytes = static_cast<ULONG>(value.name.size() * sizeof(WCHAR));
    const auto dataBytes = static_cast<ULONG>(value.data.size());
    std::vector<std::uint8_t> whole;
    const auto fixed = [&](std::initializer_list<ULONG> words) {
        Append(whole, words.begin(), words.size());
        return static_cast<ULONG>(whole.size());
    };
    ULONG head = 0;
    switch (form) {
    case KeyValueBasicInformation:
        head = fixed({0, value.type, nameBytes});
        Append(whole, value.name.data(), value.name.size());
        break;
    case KeyValueFullInformation: {
        const auto offset = static_cast<ULONG>((offsetof(KEY_VALUE_FULL_INFORMATION, Name) + nameBytes + 7) & ~7u);
        head = fixed({0, value.type, offset, dataBytes, nameBytes});
        Append(whole, value.name.data(), value.name.size());
        whole.resize(offset);
        Append(whole, value.data.data(), value.data.size());
        break;
    }
    case KeyValuePartialInformation:
        head = fixed({0, value.type, dataBytes});
        Append(whole, value.data.data(), value.data.size());
        break;
    default:
        return STATUS_INVALID_PARAMETER;
    }
    return Answer(buffer, length, resultLength, whole, head);
}

NTSTATUS OpenOrCreate(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, ULONG options, bool mayCreate,
                      PULONG disposition, Place place, const char *routine) {
    RequireIrqlAtMost(PASSIVE_LEVEL, routine);
    State &state = Machine();
    ObjectReference root;
    RegistryKey *rootKey = nullptr;
    if (attributes->RootDirectory != nullptr) {
        root = ObjectReference(
            state.objects.ReferenceByHandle(attributes->RootDirectory, ObjectKind::Key, nullptr, routine));
        if (!root)
            return STATUS_INVALID_HANDLE;
        rootKey = root.As<KeyBody>()->key.get();
    }
    std::shared_ptr<RegistryKey> key;
    bool created = false;
    const std::u16string path(View(*attributes->ObjectName));
    const NTSTATUS status =
        state.registry.Create(rootKey, path, options, mayCreate ? MakeKeys::Last : MakeKeys::None, key, created);
    if (!NT_SUCCESS(status))
        return status;
    if (key.use_count() == 0) // the root itself, opened once more
        key = root.As<KeyBody>()->key;
    if (disposition != nullptr)
        *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    *handle =
        state.registry.MakeHandle(std::move(key), access, (attributes->Attributes & OBJ_KERNEL_HANDLE) != 0, place);
    return STATUS_SUCCESS;
}

} // namespace

HANDLE Registry::MakeHandle(std::shared_ptr<RegistryKey> key, ACCESS_MASK access, bool kernel, Place place) {
    State &state = Machine();
    std::string name = ToUtf8(key->name);
    auto *body = new KeyBody{std::move(key)};
    state.objects.Add(body, ObjectKind::Key, std::move(name), place, [body] { delete body; });
    const HANDLE handle = state.objects.Open(body, Specific(access), kernel, place);
    state.objects.Dereference(body, "registry");
    return handle;
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI ZwCreateKey(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, ULONG, PUNICODE_STRING,
                           ULONG options, PULONG disposition) {
    return OpenOrCreate(handle, access, attributes, options, true, disposition, CALLER_PLACE(), "ZwCreateKey");
}

NTSTATUS NTAPI ZwOpenKey(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes) {
    return OpenOrCreate(handle, access, attributes, 0, false, nullptr, CALLER_PLACE(), "ZwOpenKey");
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE handle, PUNICODE_STRING name, ULONG, ULONG type, PVOID data, ULONG size) {
    OpenKey key(handle, KEY_SET_VALUE, "ZwSetValueKey");
    if (!NT_SUCCESS(key.Status()))
        return key.Status();
    return Machine().registry.SetValue(key.Key(), View(*name), type, data, size);
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE handle, PUNICODE_STRING name, KEY_VALUE_INFORMATION_CLASS form, PVOID buffer,
                               ULONG length, PULONG resultLength) {
    OpenKey key(handle, KEY_QUERY_VALUE, "ZwQueryValueKey");
    if (!NT_SUCCESS(key.Status()))
        return key.Status();
    RegistryValue value;
    if (!Machine().registry.FindValue(key.Key(), View(*name), value))
        return STATUS_OBJECT_NAME_NOT_FOUND;
    return AnswerValue(value, form, buffer, length, resultLength);
}

NTSTATUS NTAPI ZwEnumerateValueKey(HANDLE handle, ULONG index, KEY_VALUE_INFORMATION_CLASS form, PVOID buffer,
                                   ULONG length, PULONG resultLength) {
    OpenKey key(handle, KEY_QUERY_VALUE, "ZwEnumerateValueKey");
    if (!NT_SUCCESS(key.Status()))
        return key.Status();
    RegistryValue value;
    if (!Machine().registry.ValueAt(key.Key(), index, value))
        return STATUS_NO_MORE_ENTRIES;
    return AnswerValue(value, form, buffer, length, resultLength);
}

NTSTATUS NTAPI ZwEnumerateKey(HANDLE handle, ULONG index, KEY_INFORMATION_CLASS form, PVOID buffer, ULONG length,
                              PULONG resultLength) {
    OpenKey key(handle, KEY_ENUMERATE_SUB_KEYS, "ZwEnumerateKey");
    if (!NT_SUCCESS(key.Status()))
        return key.Status();
    std::u16string name;
    if (!Machine().registry.SubkeyAt(key.Key(), index, name))
        return STATUS_NO_MORE_ENTRIES;
    if (form != KeyBasicInformation)
        return STATUS_INVALID_PARAMETER;
    KEY_BASIC_INFORMATION head{.NameLength = static_cast<ULONG>(name.size() * sizeof(WCHAR))};
    std::vector<std::uint8_t> whole;
    constexpr ULONG kFixed = offsetof(KEY_BASIC_INFORMATION, Name);
    Append(whole, reinterpret_cast<const std::uint8_t *>(&head), kFixed);
    Append(whole, name.data(), name.size());
    return Answer(buffer, length, resultLength, whole, kFixed);
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE handle, PUNICODE_STRING name) {
    OpenKey key(handle, KEY_SET_VALUE, "ZwDeleteValueKey");
    return NT_SUCCESS(key.Status()) ? Machine().registry.DeleteValue(key.Key(), View(*name)) : key.Status();
}

NTSTATUS NTAPI ZwDeleteKey(HANDLE handle) {
    OpenKey key(handle, DELETE, "ZwDeleteKey");
    return NT_SUCCESS(key.Status()) ? Machine().registry.DeleteKey(key.Key()) : key.Status();
}

// Every change is on the disk already.
NTSTATUS NTAPI ZwFlushKey(HANDLE handle) {
    return OpenKey(handle, 0, "ZwFlushKey").Status();
}

} // extern "C"
