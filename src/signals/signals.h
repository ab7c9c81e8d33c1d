#ifndef SIGNALS_SIGNALS_H
#define SIGNALS_SIGNALS_H

#include <signal.h>

// Which thread takes which signal, and when.
//
// SIGALRM times a run, SIGINT and SIGTERM end it. All three are meant for the main thread, and for the
// moments in which it waits: for a request, for the other end of a named pipe, for the PPT server's answer or
// its connection, for a board's command, for the end of another thread. Everywhere else they are blocked, and
// on every other thread always. So no handler ever runs in the middle of a written line, of an allocation, or
// of a change of the server: it may stop the server, print, and end the process.
//
// A board's command is no part of this: it starts with the mask that the process itself was started with. The
// thread that starts it has that mask meanwhile, so that a signal may arrive there: SIGALRM is handled there,
// and the handler of the other two hands them on to the main thread.

// Blocks the three on the calling thread, the main one, and by inheritance on every thread created from now
// on.
void block_signals();

// While it lives, the calling thread has the mask that the process was started with. Without block_signals,
// and after block_signals_for_good on that thread, it changes nothing.
class SignalsLetIn {
 public:
  SignalsLetIn();
  ~SignalsLetIn();
  SignalsLetIn(const SignalsLetIn&) = delete;
  SignalsLetIn& operator=(const SignalsLetIn&) = delete;

 private:
  bool changed_;
  sigset_t mask_before_;
};

// For the handler that ends the process: from now on the calling thread lets none of them in.
void block_signals_for_good();

#endif
