#include "host/executive/object.h"

#include "host/executive/file.h"
#include "host/executive/state.h"

#include <cstring>

namespace host {

const char *NameOf(ObjectKind kind) {
    switch (kind) {
    case ObjectKind::Driver:
        return "driver";
    case ObjectKind::Device:
        return "device";
    case ObjectKind::File:
        return "file";
    case ObjectKind::Thread:
        return "thread";
    case ObjectKind::Key:
        return "key";
    case ObjectKind::Event:
        return "event";
    }
    return "?";
}

namespace {

// What the exported type variables point to. The content is never looked at; it differs from every address so that a
// type variable that is dereferenced once too often matches nothing.
struct TypeMarker {
    std::uintptr_t content = 0xBAD0BAD0;
};
TypeMarker threadType, fileType, keyType, eventType;

} // namespace

POBJECT_TYPE TypeOf(ObjectKind kind) {
    switch (kind) {
    case ObjectKind::Thread:
        return reinterpret_cast<POBJECT_TYPE>(&threadType);
    case ObjectKind::File:
        return reinterpret_cast<POBJECT_TYPE>(&fileType);
    case ObjectKind::Key:
        return reinterpret_cast<POBJECT_TYPE>(&keyType);
    case ObjectKind::Event:
        return reinterpret_cast<POBJECT_TYPE>(&eventType);
    default:
        return nullptr;
    }
}

void ObjectTable::Add(void *body, ObjectKind kind, std::string name, Place place, std::function<void()> onDelete) {
    std::lock_guard lock(mutex_);
    objects_.emplace(body, Object{kind, std::move(name), place, std::move(onDelete)});
}

ObjectTable::Object &ObjectTable::Find(const void *body, const char *routine) {
    const auto found = objects_.find(body);
    if (found == objects_.end())
        Violation("not an object", routine, Format("%p is no object, or no longer one", body));
    return found->second;
}

void ObjectTable::Reference(void *body, const char *routine) {
    std::lock_guard lock(mutex_);
    ++Find(body, routine).references;
}

void ObjectTable::Dereference(void *body, const char *routine, bool defer) {
    std::function<void()> onDelete;
    {
        std::lock_guard lock(mutex_);
        Object &object = Find(body, routine);
        if (--object.references > 0)
            return;
        onDelete = std::move(object.onDelete);
        objects_.erase(body);
    }
    // Deleting may call a driver, which is not for DISPATCH_LEVEL: then a worker does it.
    const Thread *thread = CurrentThreadOrNull();
    if (!defer && (thread == nullptr || thread->irql == PASSIVE_LEVEL))
        onDelete();
    else
        Machine().workQueue.Run(std::move(onDelete));
}

bool ObjectTable::Is(const void *body, ObjectKind kind) {
    std::lock_guard lock(mutex_);
    const auto found = objects_.find(body);
    return found != objects_.end() && found->second.kind == kind;
}

long ObjectTable::References(const void *body) {
    std::lock_guard lock(mutex_);
    const auto found = objects_.find(body);
    return found != objects_.end() ? found->second.references : 0;
}

HANDLE ObjectTable::Open(void *body, ACCESS_MASK access, bool kernel, Place place) {
    std::lock_guard lock(mutex_);
    Object &object = Find(body, "open");
    ++object.references;
    ++object.handles;
    constexpr std::uintptr_t kKernelHandle = 0xFFFF'FFFF'8000'0000;
    const auto handle = reinterpret_cast<HANDLE>((nextHandle_ += 4) | (kernel ? kKernelHandle : 0));
    handles_.emplace(handle, Handle{body, access, place});
    return handle;
}

NTSTATUS ObjectTable::Close(HANDLE handle) {
    void *body = nullptr;
    bool last = false;
    ObjectKind kind{};
    {
        std::lock_guard lock(mutex_);
        const auto found = handles_.find(handle);
        if (found == handles_.end())
            Violation("handle not known", "ZwClose", Format("%p", handle));
        body = found->second.body;
        handles_.erase(found);
        Object &object = Find(body, "ZwClose");
        last = --object.handles == 0;
        kind = object.kind;
    }
    if (last && kind == ObjectKind::File)
        CleanUpFile(static_cast<PFILE_OBJECT>(body));
    Dereference(body, "ZwClose");
    return STATUS_SUCCESS;
}

void *ObjectTable::ReferenceByHandle(HANDLE handle, ObjectKind kind, ACCESS_MASK *granted, const char *routine) {
    std::lock_guard lock(mutex_);
    const auto found = handles_.find(handle);
    if (found == handles_.end())
        return nullptr;
    Object &object = Find(found->second.body, routine);
    if (object.kind != kind)
        return nullptr;
    ++object.references;
    if (granted != nullptr)
        *granted = found->second.access;
    return found->second.body;
}

std::string ObjectTable::Leaks() {
    std::lock_guard lock(mutex_);
    std::string text;
    const auto add = [&](std::string line) { text += (text.empty() ? "" : "; ") + line; };
    for (const auto &[handle, record] : handles_)
        add(Format("%s handle %p (%s) from ", NameOf(objects_.at(record.body).kind), handle,
                   objects_.at(record.body).name.c_str()) +
            record.place.Text());
    for (const auto &[body, object] : objects_)
        add(Format("%s object %p (%s) with %ld references from ", NameOf(object.kind), body, object.name.c_str(),
                   object.references) +
            object.place.Text());
    return text;
}

ObjectReference::~ObjectReference() {
    if (body_ != nullptr)
        Machine().objects.Dereference(body_, "end of scope");
}

NTSTATUS CreateEventHandle(HANDLE *handle, EVENT_TYPE type, bool signalled) {
    State &state = Machine();
    auto *event = new KEVENT;
    state.dispatcher.InitialiseEvent(event, type, signalled, "CreateEventHandle");
    state.objects.Add(event, ObjectKind::Event, "event", CALLER_PLACE(), [event] {
        Machine().dispatcher.CheckFreed(event, sizeof *event, "ZwClose");
        delete event;
    });
    *handle = state.objects.Open(event, EVENT_ALL_ACCESS, false, CALLER_PLACE());
    state.objects.Dereference(event, "CreateEventHandle");
    return STATUS_SUCCESS;
}

} // namespace host

using namespace host;

extern "C" {

// The kernel exports the type's address under these names; the headers declare them with one star too many.
POBJECT_TYPE *PsThreadType = reinterpret_cast<POBJECT_TYPE *>(&threadType);
POBJECT_TYPE *IoFileObjectType = reinterpret_cast<POBJECT_TYPE *>(&fileType);
POBJECT_TYPE *ExEventObjectType = reinterpret_cast<POBJECT_TYPE *>(&eventType);
POBJECT_TYPE *CmKeyObjectType = reinterpret_cast<POBJECT_TYPE *>(&keyType);

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE handle, ACCESS_MASK desired, POBJECT_TYPE type, KPROCESSOR_MODE,
                                         PVOID *object, POBJECT_HANDLE_INFORMATION information) {
    constexpr const char *kRoutine = "ObReferenceObjectByHandle";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    *object = nullptr;
    ObjectTable &objects = Machine().objects;
    bool known = false;
    for (ObjectKind kind : {ObjectKind::Thread, ObjectKind::File, ObjectKind::Key, ObjectKind::Event}) {
        ACCESS_MASK granted = 0;
        void *body = objects.ReferenceByHandle(handle, kind, &granted, kRoutine);
        if (body == nullptr)
            continue;
        known = true;
        if (type != nullptr && type != TypeOf(kind)) {
            objects.Dereference(body, kRoutine);
            break;
        }
        if (information != nullptr)
            *information = {.GrantedAccess = granted};
        *object = body;
        return STATUS_SUCCESS;
    }
    static_cast<void>(desired);
    return known ? STATUS_OBJECT_TYPE_MISMATCH : STATUS_INVALID_HANDLE;
}

NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID object, ACCESS_MASK, POBJECT_TYPE, KPROCESSOR_MODE) {
    Machine().objects.Reference(object, "ObReferenceObjectByPointer");
    return STATUS_SUCCESS;
}

LONG_PTR NTAPI ObfReferenceObject(PVOID object) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "ObReferenceObject");
    Machine().objects.Reference(object, "ObReferenceObject");
    return 1;
}

LONG_PTR NTAPI ObfDereferenceObject(PVOID object) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "ObDereferenceObject");
    Machine().objects.Dereference(object, "ObDereferenceObject");
    return 0;
}

void NTAPI ObDereferenceObjectDeferDelete(PVOID object) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "ObDereferenceObjectDeferDelete");
    Machine().objects.Dereference(object, "ObDereferenceObjectDeferDelete", true);
}

NTSTATUS NTAPI ZwClose(HANDLE handle) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwClose");
    return Machine().objects.Close(handle);
}

} // extern "C"
