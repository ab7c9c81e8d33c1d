#include "signals/signals.h"

#include <initializer_list>

namespace {

bool are_blocked = false;
sigset_t mask_at_start;
thread_local bool are_blocked_for_good = false;

sigset_t signals_of_a_run() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal_number : {SIGALRM, SIGINT, SIGTERM}) sigaddset(&signals, signal_number);
  return signals;
}

}  // namespace

void block_signals() {
  const sigset_t blocked = signals_of_a_run();
  pthread_sigmask(SIG_BLOCK, &blocked, &mask_at_start);
  are_blocked = true;
}

SignalsLetIn::SignalsLetIn() : changed_(are_blocked && !are_blocked_for_good) {
  if (changed_) pthread_sigmask(SIG_SETMASK, &mask_at_start, &mask_before_);
}

SignalsLetIn::~SignalsLetIn() {
  if (changed_) pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
}

void block_signals_for_good() {
  are_blocked_for_good = true;
  const sigset_t blocked = signals_of_a_run();
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}
