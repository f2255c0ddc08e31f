// The one door to the platform's headers. Both builds, Windows and Linux, see the declarations of the DDK headers that
// mingw-w64 ships; this header includes them in the order they need, with the few mends they need, and nothing else in
// the project includes them. layout.cpp proves that both builds agree on every structure that crosses a boundary.
#pragma once

#if defined(__linux__)
// The headers know LP64 only under these names. They are undefined again below, so that no other library sees them.
#define __CYGWIN__ 1
#define _WIN64 1
#define _AMD64_ 1
#define UVC_PLATFORM_UNDEF_CYGWIN
#endif

#if defined(__linux__)
#include <stdarg.h>
#include <stddef.h>
// ntoskrnl.exe exports these two; the Linux runtime defines them, ntstrsafe.h calls them.
extern "C" int _vsnprintf(char *buffer, size_t count, const char *format, va_list arguments);
extern "C" int _vsnwprintf(wchar_t *buffer, size_t count, const wchar_t *format, va_list arguments);
#endif

// Both intrin.h and wdm.h define these two.
#include <intrin.h>
#define InterlockedBitTestAndSet InterlockedBitTestAndSetOfWdm
#define InterlockedBitTestAndReset InterlockedBitTestAndResetOfWdm

// ks.h declares the reference clock only when these are known.
#ifndef DECLSPEC_NOVTABLE
#define DECLSPEC_NOVTABLE
#endif
#ifndef DECLSPEC_NOTHROW
#define DECLSPEC_NOTHROW
#endif

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wall"
#pragma clang diagnostic ignored "-Wextra"
extern "C" {
#include <ntddk.h>
}
#undef InterlockedBitTestAndSet
#undef InterlockedBitTestAndReset

#include <punknown.h>

typedef char TCHAR; // ksmedia.h names it without including what defines it
#include <windef.h>

#include <ks.h>

#include <ksmedia.h>

extern "C" {
#include <usb.h>

#include <usbioctl.h>

#include <usbbusif.h>
#include <usbdlib.h>

#include <ntstrsafe.h>
}
#pragma clang diagnostic pop

// The headers route this to a name that no import library has; ntoskrnl.exe exports it plainly.
#undef RtlIsNtDdiVersionAvailable
#if defined(__linux__)
#define UVC_PLATFORM_IMPORT
#else
#define UVC_PLATFORM_IMPORT __declspec(dllimport)
#endif
extern "C" UVC_PLATFORM_IMPORT BOOLEAN NTAPI RtlIsNtDdiVersionAvailable(ULONG Version);
#undef UVC_PLATFORM_IMPORT

#if defined(__linux__)
#include "platform/linux/mends.h"
#endif

// Macros that collide with names of the language's own library and with a word that USB code needs.
#undef min
#undef max
#undef interface

#if defined(UVC_PLATFORM_UNDEF_CYGWIN)
#undef __CYGWIN__
#undef _WIN64
#undef _AMD64_
#undef UVC_PLATFORM_UNDEF_CYGWIN
#endif
