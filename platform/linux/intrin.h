// The few intrinsics that the platform headers call inline, for the Linux build. The interrupt level lives in CR8 on
// x64 Windows; reading and writing it is how the inline IRQL routines of the headers reach the Linux runtime.
#pragma once

#include <stddef.h>

extern "C" {
unsigned long long __readcr8(void);
void __writecr8(unsigned long long level);

// The processor's own block behind GS, from which the headers take the current thread and the processor number.
// clang knows the real names as built-in loads from a segment that is not there on Linux.
unsigned long long UvcReadProcessorQword(unsigned long offset);
unsigned short UvcReadProcessorWord(unsigned long offset);
#define __readgsqword UvcReadProcessorQword
#define __readgsword UvcReadProcessorWord

unsigned char __inbyte(unsigned short port);
unsigned short __inword(unsigned short port);
unsigned long __indword(unsigned short port);
void __inbytestring(unsigned short port, unsigned char *buffer, unsigned long count);
void __inwordstring(unsigned short port, unsigned short *buffer, unsigned long count);
void __indwordstring(unsigned short port, unsigned int *buffer, unsigned long count);
void __outbyte(unsigned short port, unsigned char value);
void __outword(unsigned short port, unsigned short value);
void __outdword(unsigned short port, unsigned long value);
void __outbytestring(unsigned short port, unsigned char *buffer, unsigned long count);
void __outwordstring(unsigned short port, unsigned short *buffer, unsigned long count);
void __outdwordstring(unsigned short port, unsigned int *buffer, unsigned long count);
void __movsb(unsigned char *to, unsigned char const *from, size_t count);
void __movsw(unsigned short *to, unsigned short const *from, size_t count);
void __movsd(unsigned int *to, unsigned int const *from, size_t count);
}

static inline unsigned char _bittest64(long long const *base, long long offset) {
    return (unsigned char)((base[offset / 64] >> (offset % 64)) & 1);
}
