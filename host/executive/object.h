// Objects with a reference count, and handles to them.
#pragma once

#include "host/executive/place.h"
#include "host/executive/runtime.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace host {

enum class ObjectKind { Driver, Device, File, Thread, Key, Event };

const char *NameOf(ObjectKind kind);
// The pointer that stands for a kind in the kernel's exported variables (PsThreadType ...); null: none does.
POBJECT_TYPE TypeOf(ObjectKind kind);

class ObjectTable {
  public:
    // Takes up `body` with one reference. `onDelete` runs without any of the table's locks, at PASSIVE_LEVEL, when the
    // last reference goes; it frees the body.
    void Add(void *body, ObjectKind kind, std::string name, Place place, std::function<void()> onDelete);
    void Reference(void *body, const char *routine);
    // `defer`: a worker deletes it, for callers who may hold a driver's locks.
    void Dereference(void *body, const char *routine, bool defer = false);
    bool Is(const void *body, ObjectKind kind);
    long References(const void *body);

    // A handle holds a reference. `onLastClose` of the body's kind runs before the last handle's reference goes.
    HANDLE Open(void *body, ACCESS_MASK access, bool kernel, Place place);
    NTSTATUS Close(HANDLE handle);
    // Null when the handle is not known or not of this kind; the body is referenced for the caller.
    void *ReferenceByHandle(HANDLE handle, ObjectKind kind, ACCESS_MASK *granted, const char *routine);

    std::string Leaks();

  private:
    struct Object {
        ObjectKind kind;
        std::string name;
        Place place;
        std::function<void()> onDelete;
        long references = 1;
        long handles = 0;
    };
    struct Handle {
        void *body;
        ACCESS_MASK access;
        Place place;
    };
    Object &Find(const void *body, const char *routine);

    std::mutex mutex_;
    std::map<const void *, Object> objects_;
    std::map<HANDLE, Handle> handles_;
    std::uintptr_t nextHandle_ = 0x100;
};

// A reference that ends with its scope.
class ObjectReference {
  public:
    explicit ObjectReference(void *referenced = nullptr) : body_(referenced) {}
    ObjectReference(ObjectReference &&other) noexcept : body_(std::exchange(other.body_, nullptr)) {}
    ObjectReference &operator=(ObjectReference &&other) noexcept {
        std::swap(body_, other.body_);
        return *this;
    }
    ~ObjectReference();
    explicit operator bool() const { return body_ != nullptr; }
    template <class T> T *As() const { return static_cast<T *>(body_); }

  private:
    void *body_;
};

} // namespace host
