// Device interfaces, a device's registry keys and its properties.
#include "host/executive/state.h"

#include <cstring>

using namespace host;

namespace {

constexpr ULONG kTag = 0x20206F49; // "Io  "

// A zero-terminated copy in paged pool, for RtlFreeUnicodeString.
bool CopyToPool(std::u16string_view text, PUNICODE_STRING copy, Place place) {
    const std::size_t bytes = text.size() * sizeof(WCHAR);
    auto *buffer = static_cast<PWSTR>(Machine().pool.Allocate(true, bytes + sizeof(WCHAR), kTag, place));
    if (buffer == nullptr)
        return false;
    std::memcpy(buffer, text.data(), bytes);
    buffer[text.size()] = 0;
    *copy = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes + sizeof(WCHAR)), buffer};
    return true;
}

std::u16string InterfaceKey(const DeviceInterface &entry) {
    std::u16string device = entry.link.substr(std::u16string_view(u"\\??\\").size());
    return u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\DeviceClasses\\" +
           GuidText(entry.interfaceClass) + u"\\##?#" + device + u"\\#" + entry.reference + u"\\Device Parameters";
}

std::u16string DeviceKey(PDEVICE_OBJECT pdo, ULONG kind, const char *routine) {
    const std::u16string &instance = Machine().devices.Node(pdo, routine).instancePath;
    const std::u16string root = u"\\Registry\\Machine\\System\\CurrentControlSet\\";
    if ((kind & PLUGPLAY_REGKEY_DEVICE) != 0)
        return root + u"Enum\\" + instance + u"\\Device Parameters";
    return root + u"Control\\Class\\" + instance;
}

} // namespace

extern "C" {

NTSTATUS NTAPI IoRegisterDeviceInterface(PDEVICE_OBJECT pdo, const GUID *interfaceClass, PUNICODE_STRING reference,
                                         PUNICODE_STRING link) {
    constexpr const char *kRoutine = "IoRegisterDeviceInterface";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    static_cast<void>(state.devices.Node(pdo, kRoutine));
    const std::u16string text = reference != nullptr ? std::u16string(View(*reference)) : std::u16string();
    if (text.find(u'\\') != std::u16string::npos)
        return STATUS_INVALID_DEVICE_REQUEST;
    const DeviceInterface &entry = state.devices.Register(pdo, *interfaceClass, text);
    state.registry.CreatePath(InterfaceKey(entry));
    return CopyToPool(entry.FullName(), link, CALLER_PLACE()) ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS NTAPI IoSetDeviceInterfaceState(PUNICODE_STRING link, BOOLEAN enable) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoSetDeviceInterfaceState");
    return Machine().devices.EnableInterface(View(*link), enable != FALSE);
}

NTSTATUS NTAPI IoGetDeviceInterfaces(const GUID *interfaceClass, PDEVICE_OBJECT pdo, ULONG flags, PWSTR *list) {
    constexpr const char *kRoutine = "IoGetDeviceInterfaces";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    std::u16string names;
    for (const std::u16string &name :
         state.devices.InterfaceNames(*interfaceClass, pdo, (flags & DEVICE_INTERFACE_INCLUDE_NONACTIVE) != 0))
        names += name + u'\0';
    UNICODE_STRING copy;
    if (!CopyToPool(names, &copy, CALLER_PLACE()))
        return STATUS_INSUFFICIENT_RESOURCES;
    *list = copy.Buffer;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoOpenDeviceInterfaceRegistryKey(PUNICODE_STRING link, ACCESS_MASK access, PHANDLE key) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoOpenDeviceInterfaceRegistryKey");
    State &state = Machine();
    const std::optional<DeviceInterface> entry = state.devices.FindInterface(View(*link));
    if (!entry)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    return state.registry.Open(InterfaceKey(*entry), access, true, CALLER_PLACE(), key);
}

NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT pdo, ULONG kind, ACCESS_MASK access, PHANDLE key) {
    constexpr const char *kRoutine = "IoOpenDeviceRegistryKey";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    const std::u16string path = DeviceKey(pdo, kind, kRoutine);
    state.registry.CreatePath(path);
    return state.registry.Open(path, access, true, CALLER_PLACE(), key);
}

NTSTATUS NTAPI IoGetDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, ULONG length, PVOID buffer,
                                   PULONG resultLength) {
    constexpr const char *kRoutine = "IoGetDeviceProperty";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    const DeviceNode &node = state.devices.Node(pdo, kRoutine);
    std::u16string text;
    switch (property) {
    case DevicePropertyPhysicalDeviceObjectName:
        text = state.devices.NameOf(pdo);
        break;
    case DevicePropertyEnumeratorName:
        text = node.instancePath.substr(0, node.instancePath.find(u'\\'));
        break;
    case DevicePropertyHardwareID:
        text = node.instancePath.substr(0, node.instancePath.rfind(u'\\')) + u'\0';
        break;
    default:
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *resultLength = static_cast<ULONG>((text.size() + 1) * sizeof(WCHAR));
    if (length < *resultLength)
        return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(buffer, text.c_str(), *resultLength);
    return STATUS_SUCCESS;
}

} // extern "C"
