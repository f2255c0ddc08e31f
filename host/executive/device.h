// Driver and device objects, the names under which devices are opened, and the state of each device stack.
#pragma once

#include "host/executive/place.h"
#include "host/executive/runtime.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// A device interface that a driver has registered: {class} on a device, with a reference string or none.
struct DeviceInterface {
    PDEVICE_OBJECT pdo;
    GUID interfaceClass;
    std::u16string link;      // \??\instance#{class}, the symbolic link without the reference string
    std::u16string reference; // without a backslash; may be empty
    bool enabled = false;

    std::u16string FullName() const { return reference.empty() ? link : link + u"\\" + reference; }
};

// What PnP knows of a device that a bus driver found, kept with its PDO.
struct DeviceNode {
    std::u16string instancePath; // USB\VID_..&PID_..\serial
    bool removed = false;        // no opens any more
    bool removePending = false;  // IRP_MN_REMOVE_DEVICE follows the last close
};

class DeviceTable {
  public:
    NTSTATUS Create(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING name, ULONG type, ULONG characteristics,
                    BOOLEAN exclusive, Place place, PDEVICE_OBJECT *device);
    void Delete(PDEVICE_OBJECT device);
    PDEVICE_OBJECT Attach(PDEVICE_OBJECT source, PDEVICE_OBJECT target);
    void Detach(PDEVICE_OBJECT target);
    PDEVICE_OBJECT Top(PDEVICE_OBJECT device);
    PDEVICE_OBJECT Bottom(PDEVICE_OBJECT device);
    bool IsExtension(const void *begin, std::size_t size);

    // The node of the device at the bottom of a stack; violations for devices that no bus driver has registered.
    DeviceNode &Node(PDEVICE_OBJECT device, const char *routine);
    DeviceNode *FindNode(PDEVICE_OBJECT device);
    void AddNode(PDEVICE_OBJECT pdo, std::u16string instancePath);
    std::u16string NameOf(PDEVICE_OBJECT device);

    // Open files on the stack over `pdo`, and its removal. Opened: false once the removal has begun. Closed: true when
    // a removal that waited for the last close follows now; Drained is called after it. BeginRemoval: false when it has
    // begun before.
    bool Opened(PDEVICE_OBJECT pdo);
    bool Closed(PDEVICE_OBJECT pdo);
    void Drained(PDEVICE_OBJECT pdo);
    void CountHandles(PDEVICE_OBJECT pdo, int change);
    // When no handle is open any more, but a request that is being completed still refers to a file, waits until that
    // is over and done with.
    void WaitUntilDrained(PDEVICE_OBJECT pdo);
    void WaitForRemovals();
    bool BeginRemoval(PDEVICE_OBJECT pdo);
    bool DeferRemoval(PDEVICE_OBJECT pdo);
    void ForgetRemoval(PDEVICE_OBJECT pdo);

    // Device and interface names. Resolve: the device behind a full name, and how many characters of it are its own.
    std::optional<std::pair<PDEVICE_OBJECT, std::size_t>> Resolve(std::u16string_view name);
    DeviceInterface &Register(PDEVICE_OBJECT pdo, const GUID &interfaceClass, std::u16string reference);
    std::optional<DeviceInterface> FindInterface(std::u16string_view fullName);
    NTSTATUS EnableInterface(std::u16string_view fullName, bool enable);
    std::vector<std::u16string> InterfaceNames(const GUID &interfaceClass, PDEVICE_OBJECT pdo, bool disabledToo);
    void DisableInterfaces(PDEVICE_OBJECT pdo);
    void AddSymbolicLink(std::u16string link, std::u16string target);
    bool RemoveSymbolicLink(const std::u16string &link);

  private:
    struct Device {
        std::size_t extensionSize = 0;
        std::u16string name;
        PDEVICE_OBJECT lower = nullptr; // what it is attached to
        bool deleted = false;
        int opens = 0, handles = 0; // on the stack, kept at its bottom
        KEVENT drained{};           // no opens, and no removal that waits for that
        std::optional<DeviceNode> node;
    };
    Device &Find(PDEVICE_OBJECT device, const char *routine);
    PDEVICE_OBJECT BottomLocked(PDEVICE_OBJECT device);

    DeviceInterface *FindInterfaceLocked(std::u16string_view fullName);

    std::recursive_mutex mutex_;
    std::map<PDEVICE_OBJECT, Device> devices_;
    std::map<std::u16string, std::u16string> links_; // in upper case -> target
    std::vector<std::unique_ptr<DeviceInterface>> interfaces_;
    unsigned nextName_ = 1;
};

// IRP_MN_REMOVE_DEVICE, at last.
void SendRemoval(PDEVICE_OBJECT pdo);

} // namespace host
