#ifndef WORKER_THREAD_WORKER_THREAD_H
#define WORKER_THREAD_WORKER_THREAD_H

#include <pthread.h>
#include <signal.h>

#include <initializer_list>

// SIGALRM, SIGINT and SIGTERM are meant for the main thread; on any other they would interrupt a wait that is
// not theirs. Workers are therefore created with the three blocked.

// Blocks signals on the calling thread for as long as it lives, then restores the mask found before.
class SignalBlock {
 public:
  explicit SignalBlock(std::initializer_list<int> signals) {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (int signal_number : signals) sigaddset(&blocked, signal_number);
    pthread_sigmask(SIG_BLOCK, &blocked, &mask_before_);
  }
  ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

 private:
  sigset_t mask_before_;
};

// Starts body(record) on a thread with default attributes and the three signals blocked. The handle is
// written to *thread by the creation itself, before the body can run to its end. Returns what pthread_create
// returns: 0, or a positive error number.
inline int create_worker_thread(pthread_t* thread, void* (*body)(void*), void* record) {
  const SignalBlock inherited_by_the_thread({SIGALRM, SIGINT, SIGTERM});
  return pthread_create(thread, nullptr, body, record);
}

// A worker's last touch of its record: clears its handle there. Whoever then sees the worker gone sees all
// that it did before.
inline void say_goodbye(pthread_t* thread) {
  __atomic_store_n(thread, pthread_t{0}, __ATOMIC_RELEASE);
}

inline bool is_alive(const pthread_t* thread) {
  return __atomic_load_n(thread, __ATOMIC_ACQUIRE) != 0;
}

#endif
