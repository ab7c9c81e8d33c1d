#ifndef MESSAGE_SERVER_WORKER_H
#define MESSAGE_SERVER_WORKER_H

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <iostream>

// What the three workers and their owner share.

// A worker's last touch of its record: clears its handle there. Whoever then sees the worker gone sees all
// that it did before.
inline void mark_ended(pthread_t* thread) {
  __atomic_store_n(thread, pthread_t{0}, __ATOMIC_RELEASE);
}

inline bool is_alive(const pthread_t* thread) {
  return __atomic_load_n(thread, __ATOMIC_ACQUIRE) != 0;
}

// Prints the message and the text of errno as it is at the call.
inline void print_with_reason(const char* message) {
  const char* const reason = std::strerror(errno);  // before printing, which may change errno
  std::cout << message << reason << std::endl;
}

#endif
