// Requests on files: which object a name opens, and which object a request is for.
#include "host/streaming/clock.h"
#include "host/streaming/filter.h"
#include "host/streaming/filter_factory.h"
#include "host/streaming/pin.h"
#include "platform/counted_string.h"

namespace host::streaming {

namespace {

constexpr WCHAR kPinName[] = KSSTRING_Pin;
constexpr WCHAR kClockName[] = KSSTRING_Clock;

// A file name is "[\]item[\parameters]"; the parameters are bytes, not text.
struct ParsedName {
    UNICODE_STRING item{};
    std::span<const UCHAR> parameters;
};

ParsedName Parse(const UNICODE_STRING &name) {
    WCHAR *begin = name.Buffer;
    WCHAR *end = begin + name.Length / sizeof(WCHAR);
    if (begin != end && *begin == L'\\')
        ++begin;
    WCHAR *separator = begin;
    while (separator != end && *separator != L'\\')
        ++separator;
    ParsedName parsed;
    auto length = static_cast<USHORT>((separator - begin) * sizeof(WCHAR));
    parsed.item = {.Length = length, .MaximumLength = length, .Buffer = begin};
    if (separator != end) {
        const auto *bytes = reinterpret_cast<const UCHAR *>(separator + 1);
        parsed.parameters = {bytes, static_cast<SIZE_T>(reinterpret_cast<const UCHAR *>(end) - bytes)};
    }
    return parsed;
}

bool IsNamed(const UNICODE_STRING &item, UNICODE_STRING wanted) {
    return RtlEqualUnicodeString(&item, &wanted, TRUE);
}

NTSTATUS OpenFilter(Device &device, PIRP irp, const ParsedName &name) {
    MutexHold hold(device.mutex, "filter create");
    FilterFactory *factory = FilterFactory::Find(device, name.item);
    return factory == nullptr ? STATUS_OBJECT_NAME_NOT_FOUND : Filter::Open(*factory, irp);
}

NTSTATUS Create(Device &device, PIRP irp) {
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (device.gone)
        return STATUS_DEVICE_NOT_CONNECTED;
    if (!device.Started)
        return STATUS_DEVICE_NOT_READY;
    ParsedName name = Parse(file->FileName);
    if (file->RelatedFileObject == nullptr)
        return OpenFilter(device, irp, name);

    auto *parent = static_cast<Object *>(file->RelatedFileObject->FsContext);
    if (parent->kind == ObjectKind::Filter && IsNamed(name.item, ConstantString(kPinName)))
        return Pin::Open(*static_cast<Filter *>(parent), irp, name.parameters);
    if (parent->kind == ObjectKind::Pin && IsNamed(name.item, ConstantString(kClockName)))
        return Clock::Open(*static_cast<Pin *>(parent), irp, name.parameters);
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS Control(PIRP irp) {
    Object *object = Object::FromIrp(irp);
    ULONG code = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
    switch (code) {
    case IOCTL_KS_PROPERTY:
        switch (object->kind) {
        case ObjectKind::Filter:
            return FilterProperty(*static_cast<Filter *>(object), irp);
        case ObjectKind::Pin:
            return PinProperty(*static_cast<Pin *>(object), irp);
        case ObjectKind::Clock:
            return ClockProperty(irp);
        default:
            break;
        }
        break;
    case IOCTL_KS_METHOD:
    case IOCTL_KS_ENABLE_EVENT:
        return STATUS_PROPSET_NOT_FOUND;
    case IOCTL_KS_READ_STREAM:
        if (object->kind == ObjectKind::Pin)
            return static_cast<Pin *>(object)->ReadStream(irp);
        break;
    default:
        break;
    }
    return STATUS_INVALID_DEVICE_REQUEST;
}

} // namespace

NTSTATUS NTAPI DispatchCreate(PDEVICE_OBJECT functionalDevice, PIRP irp) {
    irp->IoStatus.Information = 0;
    return Complete(irp, Create(*Device::From(functionalDevice), irp));
}

// The last handle is closed, but pending requests still refer to the file: a pin gives them back now, or its close
// would never come.
NTSTATUS NTAPI DispatchCleanup(PDEVICE_OBJECT, PIRP irp) {
    Object *object = Object::FromIrp(irp);
    if (object != nullptr && object->kind == ObjectKind::Pin)
        static_cast<Pin *>(object)->Cleanup();
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI DispatchClose(PDEVICE_OBJECT, PIRP irp) {
    Object *object = Object::FromIrp(irp);
    if (object != nullptr) {
        PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
        switch (object->kind) {
        case ObjectKind::Filter:
            static_cast<Filter *>(object)->Close(irp);
            break;
        case ObjectKind::Pin:
            static_cast<Pin *>(object)->Close(irp);
            break;
        case ObjectKind::Clock:
            static_cast<Clock *>(object)->Release();
            break;
        default:
            break;
        }
        file->FsContext = nullptr;
    }
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI DispatchDeviceControl(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Information = 0;
    NTSTATUS status = Control(irp);
    return status == STATUS_PENDING ? status : Complete(irp, status);
}

} // namespace host::streaming
