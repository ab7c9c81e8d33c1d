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

#endif
