#ifndef SUPPORT_EMULATED_H
#define SUPPORT_EMULATED_H

#include <gtest/gtest.h>

// Whether tests and program are built for another processor and run by qemu.
#ifdef TFTP_EMULATED
inline constexpr bool kEmulated = true;
#else
inline constexpr bool kEmulated = false;
#endif

#define LEFT_OUT_UNDER_EMULATION(reason) \
  if (kEmulated) GTEST_SKIP() << "under emulation: " << (reason)

// Numbers are read as `long`. One of more than 32 bits is cut to its low 32 bits where that is larger, and is
// the largest or smallest there is where it is not.
#define NEEDS_64_BIT_LONG() \
  if (sizeof(long) < 8) GTEST_SKIP() << "numbers beyond 32 bits are read as the largest or smallest of them"

#endif
