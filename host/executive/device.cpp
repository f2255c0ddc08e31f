#include "host/executive/device.h"

#include "host/executive/state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace host {

NTSTATUS DeviceTable::Create(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING name, ULONG type,
                             ULONG characteristics, BOOLEAN exclusive, Place place, PDEVICE_OBJECT *result) {
    State &state = Machine();
    std::lock_guard lock(mutex_);
    std::u16string text =
        name != nullptr ? std::u16string(View(*name)) : ToUtf16(Format("\\Device\\%08x", nextName_++));
    for (const auto &[other, record] : devices_) {
        if (Upcase(record.name) == Upcase(text))
            return STATUS_OBJECT_NAME_COLLISION;
    }
    // The extension follows the object, as on Windows, on a boundary good for anything.
    constexpr std::size_t kHead = (sizeof(DEVICE_OBJECT) + 63) / 64 * 64;
    auto *device = static_cast<PDEVICE_OBJECT>(std::aligned_alloc(64, kHead + (extensionSize + 63) / 64 * 64));
    std::memset(device, 0, kHead + extensionSize);
    device->Type = IO_TYPE_DEVICE;
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + extensionSize);
    device->DriverObject = driver;
    device->NextDevice = driver->DeviceObject;
    driver->DeviceObject = device;
    device->Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0);
    device->Characteristics = characteristics;
    device->DeviceExtension = extensionSize != 0 ? reinterpret_cast<char *>(device) + kHead : nullptr;
    device->DeviceType = type;
    device->StackSize = 1;
    Device &record = devices_[device];
    record.extensionSize = extensionSize;
    record.name = text;
    KeInitializeEvent(&record.drained, NotificationEvent, TRUE);
    state.objects.Reference(driver, "IoCreateDevice");
    state.objects.Add(device, ObjectKind::Device, ToUtf8(text), place, [this, device] {
        {
            std::lock_guard guard(mutex_);
            if (!Find(device, "ObDereferenceObject").deleted)
                Violation("device dereferenced too often", "ObDereferenceObject", ToUtf8(NameOf(device)));
            devices_.erase(device);
        }
        const PDRIVER_OBJECT owner = device->DriverObject;
        std::free(device);
        Machine().objects.Dereference(owner, "IoDeleteDevice");
    });
    *result = device;
    return STATUS_SUCCESS;
}

DeviceTable::Device &DeviceTable::Find(PDEVICE_OBJECT device, const char *routine) {
    const auto found = devices_.find(device);
    if (found == devices_.end())
        Violation("not a device", routine, Format("%p", static_cast<void *>(device)));
    return found->second;
}

void DeviceTable::Delete(PDEVICE_OBJECT device) {
    constexpr const char *kRoutine = "IoDeleteDevice";
    {
        std::lock_guard lock(mutex_);
        Device &record = Find(device, kRoutine);
        if (record.deleted)
            Violation("device deleted twice", kRoutine, ToUtf8(record.name));
        if (device->AttachedDevice != nullptr || record.lower != nullptr)
            Violation("device deleted while attached", kRoutine, ToUtf8(record.name));
        record.deleted = true;
        PDEVICE_OBJECT *link = &device->DriverObject->DeviceObject;
        while (*link != device)
            link = &(*link)->NextDevice;
        *link = device->NextDevice;
        std::erase_if(interfaces_, [=](const auto &entry) { return entry->pdo == device; });
        if (record.extensionSize != 0)
            CheckFreedMemory(device->DeviceExtension, record.extensionSize, kRoutine);
    }
    Machine().objects.Dereference(device, kRoutine);
}

PDEVICE_OBJECT DeviceTable::Attach(PDEVICE_OBJECT source, PDEVICE_OBJECT target) {
    std::lock_guard lock(mutex_);
    Device &record = Find(source, "IoAttachDeviceToDeviceStack");
    Find(target, "IoAttachDeviceToDeviceStack");
    while (target->AttachedDevice != nullptr)
        target = target->AttachedDevice;
    target->AttachedDevice = source;
    source->StackSize = static_cast<CCHAR>(target->StackSize + 1);
    source->AlignmentRequirement = target->AlignmentRequirement;
    record.lower = target;
    return target;
}

void DeviceTable::Detach(PDEVICE_OBJECT target) {
    std::lock_guard lock(mutex_);
    Find(target, "IoDetachDevice");
    if (target->AttachedDevice == nullptr)
        Violation("nothing attached", "IoDetachDevice", ToUtf8(NameOf(target)));
    Find(target->AttachedDevice, "IoDetachDevice").lower = nullptr;
    target->AttachedDevice = nullptr;
}

PDEVICE_OBJECT DeviceTable::Top(PDEVICE_OBJECT device) {
    std::lock_guard lock(mutex_);
    Find(device, "IoGetAttachedDevice");
    while (device->AttachedDevice != nullptr)
        device = device->AttachedDevice;
    return device;
}

PDEVICE_OBJECT DeviceTable::BottomLocked(PDEVICE_OBJECT device) {
    while (PDEVICE_OBJECT lower = Find(device, "device stack").lower)
        device = lower;
    return device;
}

PDEVICE_OBJECT DeviceTable::Bottom(PDEVICE_OBJECT device) {
    std::lock_guard lock(mutex_);
    return BottomLocked(device);
}

bool DeviceTable::IsExtension(const void *begin, std::size_t size) {
    std::lock_guard lock(mutex_);
    return std::any_of(devices_.begin(), devices_.end(), [=](const auto &entry) {
        const auto *extension = static_cast<const char *>(entry.first->DeviceExtension);
        return extension != nullptr && begin >= extension &&
               static_cast<const char *>(begin) + size <= extension + entry.second.extensionSize;
    });
}

DeviceNode *DeviceTable::FindNode(PDEVICE_OBJECT device) {
    std::lock_guard lock(mutex_);
    auto &node = Find(BottomLocked(device), "device node").node;
    return node ? &*node : nullptr;
}

DeviceNode &DeviceTable::Node(PDEVICE_OBJECT device, const char *routine) {
    DeviceNode *node = FindNode(device);
    if (node == nullptr)
        Violation("not a physical device object", routine, ToUtf8(NameOf(device)));
    return *node;
}

void DeviceTable::AddNode(PDEVICE_OBJECT pdo, std::u16string instancePath) {
    std::lock_guard lock(mutex_);
    Find(pdo, "RegisterPdo").node = DeviceNode{.instancePath = std::move(instancePath)};
}

std::u16string DeviceTable::NameOf(PDEVICE_OBJECT device) {
    std::lock_guard lock(mutex_);
    return Find(device, "device").name;
}

bool DeviceTable::Opened(PDEVICE_OBJECT pdo) {
    std::lock_guard lock(mutex_);
    Device &record = Find(pdo, "open");
    if (record.deleted || (record.node && record.node->removed))
        return false;
    ++record.opens;
    KeClearEvent(&record.drained);
    return true;
}

void DeviceTable::Drained(PDEVICE_OBJECT pdo) {
    std::lock_guard lock(mutex_);
    Device &record = Find(pdo, "close");
    if (record.opens == 0)
        KeSetEvent(&record.drained, IO_NO_INCREMENT, FALSE);
}

void DeviceTable::CountHandles(PDEVICE_OBJECT pdo, int change) {
    std::lock_guard lock(mutex_);
    Find(pdo, "close").handles += change;
}

void DeviceTable::WaitUntilDrained(PDEVICE_OBJECT pdo) {
    PKEVENT drained = nullptr;
    {
        std::lock_guard lock(mutex_);
        Device &record = Find(pdo, "remove");
        if (record.handles != 0)
            return;
        drained = &record.drained;
        ObReferenceObject(pdo);
    }
    WaitForObject(drained, "remove");
    ObDereferenceObject(pdo);
}

void DeviceTable::WaitForRemovals() {
    std::vector<PDEVICE_OBJECT> pending;
    {
        std::lock_guard lock(mutex_);
        for (const auto &[device, record] : devices_) {
            if (record.node && record.node->removed)
                pending.push_back(device);
        }
    }
    for (PDEVICE_OBJECT pdo : pending)
        WaitUntilDrained(pdo);
}

bool DeviceTable::Closed(PDEVICE_OBJECT pdo) {
    std::lock_guard lock(mutex_);
    Device &record = Find(pdo, "close");
    return --record.opens == 0 && record.node && std::exchange(record.node->removePending, false);
}

bool DeviceTable::BeginRemoval(PDEVICE_OBJECT pdo) {
    std::lock_guard lock(mutex_);
    return !std::exchange(Node(pdo, "remove").removed, true);
}

bool DeviceTable::DeferRemoval(PDEVICE_OBJECT pdo) {
    std::lock_guard lock(mutex_);
    Device &record = Find(pdo, "remove");
    if (record.opens != 0)
        record.node->removePending = true;
    return record.opens != 0;
}

void DeviceTable::ForgetRemoval(PDEVICE_OBJECT pdo) {
    std::lock_guard lock(mutex_);
    DeviceNode &node = Node(pdo, "start");
    node.removed = node.removePending = false;
}

std::optional<std::pair<PDEVICE_OBJECT, std::size_t>> DeviceTable::Resolve(std::u16string_view name) {
    std::lock_guard lock(mutex_);
    const std::u16string upper = Upcase(name);
    const auto begins = [&](std::u16string_view prefix) {
        return upper.starts_with(Upcase(prefix)) && (upper.size() == prefix.size() || upper[prefix.size()] == u'\\');
    };
    for (const auto &entry : interfaces_) {
        if (entry->enabled && begins(entry->link))
            return std::pair(entry->pdo, entry->link.size());
    }
    for (const auto &[link, target] : links_) {
        if (!begins(link))
            continue;
        for (const auto &[device, record] : devices_) {
            if (!record.deleted && Upcase(record.name) == Upcase(target))
                return std::pair(device, link.size());
        }
    }
    for (const auto &[device, record] : devices_) {
        if (!record.deleted && begins(record.name))
            return std::pair(device, record.name.size());
    }
    return std::nullopt;
}

DeviceInterface &DeviceTable::Register(PDEVICE_OBJECT pdo, const GUID &interfaceClass, std::u16string reference) {
    std::lock_guard lock(mutex_);
    std::u16string instance = Find(pdo, "IoRegisterDeviceInterface").node.value().instancePath;
    std::replace(instance.begin(), instance.end(), u'\\', u'#');
    const std::u16string link = u"\\??\\" + instance + u"#" + GuidText(interfaceClass);
    for (const auto &entry : interfaces_) {
        if (entry->link == link && entry->reference == reference) {
            entry->pdo = pdo; // a device that came back is another object under its old name
            return *entry;
        }
    }
    return *interfaces_.emplace_back(
        std::make_unique<DeviceInterface>(DeviceInterface{pdo, interfaceClass, link, std::move(reference)}));
}

DeviceInterface *DeviceTable::FindInterfaceLocked(std::u16string_view fullName) {
    for (const auto &entry : interfaces_) {
        if (Upcase(entry->FullName()) == Upcase(fullName))
            return entry.get();
    }
    return nullptr;
}

std::optional<DeviceInterface> DeviceTable::FindInterface(std::u16string_view fullName) {
    std::lock_guard lock(mutex_);
    const DeviceInterface *entry = FindInterfaceLocked(fullName);
    return entry != nullptr ? std::optional(*entry) : std::nullopt;
}

NTSTATUS DeviceTable::EnableInterface(std::u16string_view fullName, bool enable) {
    std::lock_guard lock(mutex_);
    DeviceInterface *entry = FindInterfaceLocked(fullName);
    if (entry == nullptr)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (entry->enabled == enable)
        return enable ? STATUS_OBJECT_NAME_EXISTS : STATUS_OBJECT_NAME_NOT_FOUND;
    entry->enabled = enable;
    return STATUS_SUCCESS;
}

std::vector<std::u16string> DeviceTable::InterfaceNames(const GUID &interfaceClass, PDEVICE_OBJECT pdo,
                                                        bool disabledToo) {
    std::lock_guard lock(mutex_);
    std::vector<std::u16string> names;
    for (const auto &entry : interfaces_) {
        if (IsEqualGUID(entry->interfaceClass, interfaceClass) && (pdo == nullptr || entry->pdo == pdo) &&
            (entry->enabled || disabledToo))
            names.push_back(entry->FullName());
    }
    return names;
}

void DeviceTable::DisableInterfaces(PDEVICE_OBJECT pdo) {
    std::lock_guard lock(mutex_);
    for (const auto &entry : interfaces_) {
        if (entry->pdo == pdo)
            entry->enabled = false;
    }
}

void DeviceTable::AddSymbolicLink(std::u16string link, std::u16string target) {
    std::lock_guard lock(mutex_);
    links_[Upcase(link)] = std::move(target);
}

bool DeviceTable::RemoveSymbolicLink(const std::u16string &link) {
    std::lock_guard lock(mutex_);
    return links_.erase(Upcase(link)) != 0;
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING name, ULONG type,
                              ULONG characteristics, BOOLEAN exclusive, PDEVICE_OBJECT *device) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoCreateDevice");
    return Machine().devices.Create(driver, extensionSize, name, type, characteristics, exclusive, CALLER_PLACE(),
                                    device);
}

void NTAPI IoDeleteDevice(PDEVICE_OBJECT device) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoDeleteDevice");
    Machine().devices.Delete(device);
}

PDEVICE_OBJECT NTAPI IoAttachDeviceToDeviceStack(PDEVICE_OBJECT source, PDEVICE_OBJECT target) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAttachDeviceToDeviceStack");
    return Machine().devices.Attach(source, target);
}

void NTAPI IoDetachDevice(PDEVICE_OBJECT target) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoDetachDevice");
    Machine().devices.Detach(target);
}

PDEVICE_OBJECT NTAPI IoGetAttachedDevice(PDEVICE_OBJECT device) {
    return Machine().devices.Top(device);
}

PDEVICE_OBJECT NTAPI IoGetAttachedDeviceReference(PDEVICE_OBJECT device) {
    const PDEVICE_OBJECT top = Machine().devices.Top(device);
    ObReferenceObject(top);
    return top;
}

PDEVICE_OBJECT NTAPI IoGetRelatedDeviceObject(PFILE_OBJECT file) {
    return Machine().devices.Top(file->DeviceObject);
}

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING link, PUNICODE_STRING target) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoCreateSymbolicLink");
    Machine().devices.AddSymbolicLink(std::u16string(View(*link)), std::u16string(View(*target)));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING link) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoDeleteSymbolicLink");
    return Machine().devices.RemoveSymbolicLink(std::u16string(View(*link))) ? STATUS_SUCCESS
                                                                             : STATUS_OBJECT_NAME_NOT_FOUND;
}

} // extern "C"
