// Files on devices: open, device control, cancel, cleanup, close.
#include "host/executive/file.h"

#include "host/executive/io_request.h"
#include "host/executive/state.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace host {
namespace {

// A file object and what the I/O manager keeps beside it.
struct File {
    FILE_OBJECT object{}; // first
    std::u16string name;
    PDEVICE_OBJECT pdo = nullptr; // the bottom of the stack it was opened on
    bool synchronous = false;
    bool opened = false; // the create was a success: cleanup and close follow
    std::mutex mutex;
    std::set<PIRP> outstanding;
};

File &FileOf(PFILE_OBJECT object) {
    return *reinterpret_cast<File *>(object);
}

// The bounds of a Zw routine, and whether it is an application's call.
class Service {
  public:
    explicit Service(const char *routine) : thread_(CurrentThread(routine)), before_(thread_.previousMode) {
        RequireIrqlAtMost(PASSIVE_LEVEL, routine);
        thread_.previousMode = thread_.serviceDepth++ == 0 ? std::exchange(thread_.nextMode, KernelMode) : KernelMode;
    }
    ~Service() {
        --thread_.serviceDepth;
        thread_.previousMode = before_;
    }
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;
    KPROCESSOR_MODE Mode() const { return thread_.previousMode; }

  private:
    Thread &thread_;
    KPROCESSOR_MODE before_;
};

void DeleteFile(File *file) {
    State &state = Machine();
    if (file->opened) {
        static_cast<void>(
            SendAndWait(file->object.DeviceObject, STATUS_SUCCESS, [&](PIRP, PIO_STACK_LOCATION location) {
                location->MajorFunction = IRP_MJ_CLOSE;
                location->FileObject = &file->object;
            }));
    }
    if (file->object.RelatedFileObject != nullptr)
        state.objects.Dereference(file->object.RelatedFileObject, "ZwClose");
    const PDEVICE_OBJECT pdo = file->pdo;
    const PDEVICE_OBJECT device = file->object.DeviceObject;
    delete file;
    if (state.devices.Closed(pdo))
        SendRemoval(pdo);
    state.devices.Drained(pdo);
    state.objects.Dereference(device, "ZwClose");
    state.objects.Dereference(pdo, "ZwClose");
}

NTSTATUS Create(Service &service, PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                PIO_STATUS_BLOCK ioStatus, USHORT fileAttributes, ULONG shareAccess, ULONG disposition, ULONG options,
                Place place) {
    State &state = Machine();
    std::u16string name(attributes->ObjectName != nullptr ? View(*attributes->ObjectName) : std::u16string_view());
    PDEVICE_OBJECT device = nullptr;
    ObjectReference related;
    if (attributes->RootDirectory != nullptr) {
        related = ObjectReference(
            state.objects.ReferenceByHandle(attributes->RootDirectory, ObjectKind::File, nullptr, "ZwCreateFile"));
        if (!related)
            return STATUS_INVALID_HANDLE;
        device = related.As<FILE_OBJECT>()->DeviceObject;
    } else {
        const auto found = state.devices.Resolve(name);
        if (!found)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        device = found->first;
        name = name.substr(found->second);
    }
    const PDEVICE_OBJECT top = state.devices.Top(device);
    if ((top->Flags & DO_DEVICE_INITIALIZING) != 0)
        return STATUS_NO_SUCH_DEVICE;
    const PDEVICE_OBJECT pdo = state.devices.Bottom(device);
    if (!state.devices.Opened(pdo))
        return STATUS_DELETE_PENDING;

    auto *file = new File;
    file->name = std::move(name);
    file->pdo = pdo;
    file->synchronous = (options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0;
    file->object.Type = IO_TYPE_FILE;
    file->object.Size = sizeof(FILE_OBJECT);
    file->object.DeviceObject = device;
    file->object.FileName = Counted(file->name);
    file->object.Flags = file->synchronous ? FO_SYNCHRONOUS_IO : 0;
    file->object.ReadAccess = (access & (FILE_READ_DATA | GENERIC_READ | GENERIC_ALL)) != 0;
    file->object.WriteAccess = (access & (FILE_WRITE_DATA | GENERIC_WRITE | GENERIC_ALL)) != 0;
    KeInitializeEvent(&file->object.Event, NotificationEvent, FALSE);
    if (related) {
        file->object.RelatedFileObject = related.As<FILE_OBJECT>();
        state.objects.Reference(file->object.RelatedFileObject, "ZwCreateFile");
    }
    state.objects.Reference(device, "ZwCreateFile");
    state.objects.Reference(pdo, "ZwCreateFile");
    state.objects.Add(file, ObjectKind::File, ToUtf8(file->name), place, [file] { DeleteFile(file); });

    ACCESS_STATE accessState{};
    accessState.OriginalDesiredAccess = access;
    IO_SECURITY_CONTEXT security{.AccessState = &accessState, .DesiredAccess = access, .FullCreateOptions = options};
    ULONG_PTR information = 0;
    const KPROCESSOR_MODE mode = service.Mode();
    const NTSTATUS status = SendAndWait(
        device, STATUS_SUCCESS,
        [&](PIRP irp, PIO_STACK_LOCATION location) {
            irp->RequestorMode = mode;
            irp->Tail.Overlay.OriginalFileObject = &file->object;
            irp->Flags = IRP_CREATE_OPERATION;
            location->MajorFunction = IRP_MJ_CREATE;
            location->FileObject = &file->object;
            location->Parameters.Create.SecurityContext = &security;
            location->Parameters.Create.Options = disposition << 24 | (options & 0xFFFFFF);
            location->Parameters.Create.FileAttributes = fileAttributes;
            location->Parameters.Create.ShareAccess = static_cast<USHORT>(shareAccess);
        },
        &information);
    *ioStatus = {};
    ioStatus->Status = status;
    ioStatus->Information = information;
    if (NT_SUCCESS(status)) {
        file->opened = true;
        const bool kernel = (attributes->Attributes & OBJ_KERNEL_HANDLE) != 0;
        state.devices.CountHandles(pdo, +1);
        *handle = state.objects.Open(file, access, kernel, place);
    }
    state.objects.Dereference(file, "ZwCreateFile");
    return status;
}

NTSTATUS Control(Service &service, HANDLE handle, HANDLE eventHandle, PIO_STATUS_BLOCK ioStatus,
                 const DeviceControl &control, Place place) {
    State &state = Machine();
    ObjectReference reference(
        state.objects.ReferenceByHandle(handle, ObjectKind::File, nullptr, "ZwDeviceIoControlFile"));
    if (!reference)
        return STATUS_INVALID_HANDLE;
    File &file = FileOf(reference.As<FILE_OBJECT>());
    PKEVENT event = nullptr;
    if (eventHandle != nullptr) {
        event = static_cast<PKEVENT>(
            state.objects.ReferenceByHandle(eventHandle, ObjectKind::Event, nullptr, "ZwDeviceIoControlFile"));
        if (event == nullptr)
            return STATUS_INVALID_HANDLE;
        KeClearEvent(event);
    }
    KeClearEvent(&file.object.Event);
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(file.object.DeviceObject);
    const PIRP irp = state.irps.Allocate(top->StackSize, IrpOrigin::Manager, place);
    irp->UserIosb = ioStatus;
    irp->UserEvent = event;
    irp->Tail.Overlay.OriginalFileObject = &file.object;
    NTSTATUS status = SetDeviceControl(irp, control, false, service.Mode());
    IoGetNextIrpStackLocation(irp)->FileObject = &file.object;
    if (!NT_SUCCESS(status)) {
        state.irps.Abandon(irp);
        ObDereferenceObject(top);
        if (event != nullptr)
            ObDereferenceObject(event);
        return status;
    }
    ObReferenceObject(&file.object); // the request's
    {
        std::lock_guard lock(file.mutex);
        file.outstanding.insert(irp);
    }
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    const PKEVENT synchronous = file.synchronous ? &done : nullptr;
    state.irps.OnFinish(irp, [&file, synchronous](PIRP finished) -> std::function<void()> {
        EndDeviceControl(finished);
        const PKEVENT waiter = finished->UserEvent;
        const bool tell = !NT_ERROR(finished->IoStatus.Status) || finished->PendingReturned;
        if (tell)
            *finished->UserIosb = finished->IoStatus;
        {
            std::lock_guard lock(file.mutex);
            file.outstanding.erase(finished);
        }
        return [=, &file] {
            if (tell)
                KeSetEvent(&file.object.Event, IO_NO_INCREMENT, FALSE);
            // Before the requestor wakes up, who may close the file next and expect it to be gone; but whoever
            // completes may hold locks that the driver's close wants.
            ObDereferenceObjectDeferDelete(&file.object);
            for (PKEVENT event : {waiter, synchronous}) {
                if (event != nullptr && (tell || event == synchronous))
                    KeSetEvent(event, IO_NO_INCREMENT, FALSE);
            }
            if (waiter != nullptr)
                ObDereferenceObject(waiter);
        };
    });
    status = IoCallDriver(top, irp);
    ObDereferenceObject(top);
    if (synchronous != nullptr) {
        WaitForObject(synchronous, "ZwDeviceIoControlFile");
        if (status == STATUS_PENDING)
            status = ioStatus->Status;
    }
    return status;
}

} // namespace

void CleanUpFile(PFILE_OBJECT object) {
    object->Flags |= FO_CLEANUP_COMPLETE;
    static_cast<void>(SendAndWait(object->DeviceObject, STATUS_SUCCESS, [&](PIRP, PIO_STACK_LOCATION location) {
        location->MajorFunction = IRP_MJ_CLEANUP;
        location->FileObject = object;
    }));
    Machine().devices.CountHandles(FileOf(object).pdo, -1);
}

NTSTATUS CancelFileIo(HANDLE handle) {
    State &state = Machine();
    RequireIrqlAtMost(PASSIVE_LEVEL, "CancelFileIo");
    ObjectReference reference(state.objects.ReferenceByHandle(handle, ObjectKind::File, nullptr, "CancelFileIo"));
    if (!reference)
        return STATUS_INVALID_HANDLE;
    File &file = FileOf(reference.As<FILE_OBJECT>());
    std::set<PIRP> outstanding;
    {
        std::lock_guard lock(file.mutex);
        outstanding = file.outstanding;
    }
    for (PIRP irp : outstanding)
        state.irps.CancelIfAlive(irp);
    return STATUS_SUCCESS;
}

UserMode::UserMode() {
    CurrentThread("UserMode").nextMode = ::UserMode;
}
UserMode::~UserMode() {
    CurrentThread("UserMode").nextMode = KernelMode;
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI ZwCreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                            PIO_STATUS_BLOCK ioStatus, PLARGE_INTEGER, ULONG fileAttributes, ULONG shareAccess,
                            ULONG disposition, ULONG options, PVOID, ULONG) {
    Service service("ZwCreateFile");
    return Create(service, handle, access, attributes, ioStatus, static_cast<USHORT>(fileAttributes), shareAccess,
                  disposition, options, CALLER_PLACE());
}

NTSTATUS NTAPI ZwOpenFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK ioStatus,
                          ULONG shareAccess, ULONG options) {
    Service service("ZwOpenFile");
    return Create(service, handle, access, attributes, ioStatus, 0, shareAccess, FILE_OPEN, options, CALLER_PLACE());
}

NTSTATUS NTAPI ZwDeviceIoControlFile(HANDLE file, HANDLE event, PIO_APC_ROUTINE apc, PVOID, PIO_STATUS_BLOCK ioStatus,
                                     ULONG code, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength) {
    Service service("ZwDeviceIoControlFile");
    if (apc != nullptr)
        Violation("not supported", "ZwDeviceIoControlFile", "completion by APC");
    return Control(service, file, event, ioStatus, {code, input, inputLength, output, outputLength}, CALLER_PLACE());
}

} // extern "C"
