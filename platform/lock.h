// Locks as scope-owned objects.
#pragma once

#include "platform/platform.h"

// Raises to DISPATCH_LEVEL and takes the lock; gives both back at the end of the scope. IRQL: <= DISPATCH_LEVEL.
class SpinLockGuard {
  public:
    explicit SpinLockGuard(KSPIN_LOCK &lock) : lock_(lock) { KeAcquireSpinLock(&lock_, &oldIrql_); }
    ~SpinLockGuard() { KeReleaseSpinLock(&lock_, oldIrql_); }
    SpinLockGuard(const SpinLockGuard &) = delete;
    SpinLockGuard &operator=(const SpinLockGuard &) = delete;

  private:
    KSPIN_LOCK &lock_;
    KIRQL oldIrql_;
};

// Holds a kernel mutex. Waits without time-out. IRQL: PASSIVE_LEVEL.
class MutexGuard {
  public:
    explicit MutexGuard(KMUTEX &mutex) : mutex_(mutex) {
        KeWaitForSingleObject(&mutex_, Executive, KernelMode, FALSE, nullptr);
    }
    ~MutexGuard() { KeReleaseMutex(&mutex_, FALSE); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

  private:
    KMUTEX &mutex_;
};

// Holds the kernel-streaming device mutex. IRQL: PASSIVE_LEVEL.
class KsDeviceGuard {
  public:
    explicit KsDeviceGuard(KSDEVICE *device) : device_(device) { KsAcquireDevice(device_); }
    ~KsDeviceGuard() { KsReleaseDevice(device_); }
    KsDeviceGuard(const KsDeviceGuard &) = delete;
    KsDeviceGuard &operator=(const KsDeviceGuard &) = delete;

  private:
    KSDEVICE *device_;
};

// Holds the control mutex of a filter or pin. IRQL: PASSIVE_LEVEL.
class KsControlGuard {
  public:
    explicit KsControlGuard(void *object) : object_(object) { KsAcquireControl(object_); }
    ~KsControlGuard() { KsReleaseControl(object_); }
    KsControlGuard(const KsControlGuard &) = delete;
    KsControlGuard &operator=(const KsControlGuard &) = delete;

  private:
    void *object_;
};
