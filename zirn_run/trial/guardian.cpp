#include "trial/guardian.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace trial {

namespace {

constexpr char kName[] = "zirn-run guard";

void leave_all_behind() {
  setsid();
  prctl(PR_SET_NAME, kName);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, standard);
  close(nothing);
}

}  // namespace

Guardian::Guardian(const std::function<void(int)>& work) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
    throw std::system_error(errno, std::generic_category(), "socketpair");
  pid_ = fork();
  if (pid_ == 0) {
    close(ends[0]);
    leave_all_behind();
    work(ends[1]);
    _exit(0);
  }
  const int error = errno;
  close(ends[1]);
  descriptor_ = ends[0];
  if (pid_ < 0) {
    close(descriptor_);
    throw std::system_error(error, std::generic_category(), "fork");
  }
}

Guardian::~Guardian() {
  close(descriptor_);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

}  // namespace trial
