#ifndef SUPPORT_CLOSE_WATCH_H
#define SUPPORT_CLOSE_WATCH_H

#include <dlfcn.h>
#include <unistd.h>

#include <functional>

// Calls a function right before the test program closes a descriptor, while the object lives. This header
// takes the place of the library's close: include it in one file of a program only.
class CloseWatch {
 public:
  CloseWatch(int descriptor, const std::function<void()>& function) {
    on_close = function;
    watched = descriptor;
  }
  ~CloseWatch() { watched = -1; }
  CloseWatch(const CloseWatch&) = delete;
  CloseWatch& operator=(const CloseWatch&) = delete;

  static inline int watched = -1;
  static inline std::function<void()> on_close;
};

extern "C" int close(int descriptor) {
  static auto* const next = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  if (descriptor >= 0 && descriptor == CloseWatch::watched) CloseWatch::on_close();
  return next(descriptor);
}

#endif
