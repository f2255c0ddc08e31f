// What the headers resolve to things that only a Windows kernel has. Included by platform.h, behind them.
#pragma once

// Time: the headers read a page that the kernel shares with everyone. The Linux runtime has routines instead.
#undef KeQuerySystemTime
#undef KeQueryTickCount
#undef KeQueryInterruptTime
extern "C" VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
extern "C" VOID NTAPI KeQueryTickCount(PLARGE_INTEGER CurrentCount);
extern "C" ULONGLONG NTAPI KeQueryInterruptTime(VOID);

// 64-bit interlocked operations: the compiler's own take a `long`, which is 64 bits wide on Linux but is not LONG64.
#undef InterlockedIncrement64
#undef InterlockedDecrement64
#undef InterlockedExchange64
#undef InterlockedExchangeAdd64
#undef InterlockedAdd64
#undef InterlockedAnd64
#undef InterlockedOr64
#undef InterlockedXor64
inline LONG64 InterlockedIncrement64(LONG64 volatile *value) {
    return __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedDecrement64(LONG64 volatile *value) {
    return __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedExchange64(LONG64 volatile *target, LONG64 value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedExchangeAdd64(LONG64 volatile *value, LONG64 addend) {
    return __atomic_fetch_add(value, addend, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedAdd64(LONG64 volatile *value, LONG64 addend) {
    return __atomic_add_fetch(value, addend, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedAnd64(LONG64 volatile *value, LONG64 mask) {
    return __atomic_fetch_and(value, mask, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedOr64(LONG64 volatile *value, LONG64 bits) {
    return __atomic_fetch_or(value, bits, __ATOMIC_SEQ_CST);
}
inline LONG64 InterlockedXor64(LONG64 volatile *value, LONG64 bits) {
    return __atomic_fetch_xor(value, bits, __ATOMIC_SEQ_CST);
}
