// The station's program as the child of a guardian, which tells how it ends and ends it when we are gone.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "record/run_entry.h"
#include "recorder/clock.h"
#include "trial/guardian.h"
#include "trial/station.h"

namespace trial {

namespace {

struct Call {
  std::vector<std::string> words;
  std::string folder;
  std::string path;
};

// What the guardian says: once whether the program runs, then how it ended.
struct Report {
  int error = 0;  // of its start; 0: it runs
  int how = 0;    // as waitpid says it
};

// The daemon's signals are those of a program that a shell starts, whatever ours are.
void reset_signals() {
  for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGALRM}) ::signal(signal, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void become(const Call& call, int output, int reason, pid_t guardian) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != guardian) _exit(0);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  setenv("PATH", call.path.c_str(), 1);
  std::vector<char*> words;
  words.reserve(call.words.size() + 1);
  for (const std::string& word : call.words) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  reset_signals();
  if (chdir(call.folder.c_str()) == 0) execv(words[0], words.data());
  const int error = errno;
  [[maybe_unused]] const ssize_t told = write(reason, &error, sizeof error);
  _exit(0);
}

// 0: it runs.
int start(const Call& call, int output, pid_t* program) {
  int reason[2];
  if (pipe2(reason, O_CLOEXEC) != 0) return errno;
  const pid_t guardian = getpid();
  *program = fork();
  if (*program == 0) become(call, output, reason[1], guardian);
  int error = *program < 0 ? errno : 0;
  close(reason[1]);
  if (*program > 0 && read(reason[0], &error, sizeof error) > 0) waitpid(*program, nullptr, 0);
  close(reason[0]);
  return error;
}

void send_report(int control, const Report& report) {
  send(control, &report, sizeof report, MSG_NOSIGNAL);
}

// A descriptor that can be read when the guardian's only child has ended, for which SIGCHLD is blocked; -1: none.
int news_of_child() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;  // who called us may have it ignored: then no end of a child is kept
  action.sa_flags = SA_NOCLDSTOP;
  sigaction(SIGCHLD, &action, nullptr);
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  return signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK);
}

// Passes signals on until the program has ended; ends it where we are gone. Returns how it ended, as waitpid says it.
int watch(int control, int news, pid_t program) {
  std::array<pollfd, 2> events = {{{control, POLLIN, 0}, {news, POLLIN, 0}}};
  std::chrono::milliseconds patience{-1};  // without end
  for (;;) {
    const int ready = poll(events.data(), events.size(), static_cast<int>(patience.count()));
    signalfd_siginfo taken = {};
    while (read(news, &taken, sizeof taken) > 0) continue;
    int how = 0;
    if (waitpid(program, &how, WNOHANG) != 0) return how;
    if (ready == 0) {
      kill(program, SIGKILL);
      patience = std::chrono::milliseconds(-1);
    }
    if (ready <= 0 || events[0].revents == 0) continue;
    int signal = 0;
    const bool is_there = recv(control, &signal, sizeof signal, 0) == sizeof signal;
    kill(program, is_there ? signal : SIGTERM);
    if (is_there) continue;
    events[0].fd = -1;
    patience = Station::kPatience;
  }
}

void guard(const Call& call, int output, int control) {
  char go = 0;
  if (recv(control, &go, sizeof go, 0) <= 0) return;  // it was never to begin
  Report report;
  pid_t program = -1;
  const int news = news_of_child();
  report.error = news < 0 ? errno : start(call, output, &program);
  close(output);
  send_report(control, report);
  if (report.error != 0) return;
  report.how = watch(control, news, program);
  send_report(control, report);
}

struct Pipe {
  int in = -1;
  int out = -1;
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    in = ends[1];
    out = ends[0];
  }
};

record::StationEnds end_in(int how) {
  record::StationEnds end;
  if (WIFEXITED(how)) end.status = WEXITSTATUS(how);
  if (WIFSIGNALED(how)) end.signal = WTERMSIG(how);
  return end;
}

class Program : public Station {
 public:
  explicit Program(Call call)
      : name_(call.words.front()), guardian_([&](int control) {
          close(output_.out);
          guard(call, output_.in, control);
        }) {
    close(output_.in);
    fcntl(output_.out, F_SETFL, O_NONBLOCK);
  }
  ~Program() override { close_output(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void begin() override {
    const char go = 1;
    Report report;
    const bool is_told = send(guardian_.descriptor(), &go, sizeof go, MSG_NOSIGNAL) == sizeof go &&
                         recv(guardian_.descriptor(), &report, sizeof report, 0) == sizeof report;
    if (!is_told) throw NotStarted(name_ + ": expected a process that starts it, found that it was killed");
    if (report.error != 0) throw NotStarted(name_ + ": " + std::strerror(report.error));
  }
  void end(int signal) override { send(guardian_.descriptor(), &signal, sizeof signal, MSG_NOSIGNAL); }

  int descriptor() const override { return output_.out; }
  void receive(const Take& take) override {
    if (has_ended_) return;
    Report report;
    const ssize_t count = recv(guardian_.descriptor(), &report, sizeof report, MSG_DONTWAIT);
    has_ended_ = count >= 0;  // 0: the guardian was killed, and the program with it
    read_lines(take);
    if (!has_ended_) return;
    lines_.take_rest(take);
    take(entry_of(count > 0 ? end_in(report.how) : record::StationEnds(), recorder::now()));
    close_output();
  }

 private:
  static constexpr int kPiecesAtOnce = 16;

  void close_output() {
    if (output_.out >= 0) close(output_.out);
    output_.out = -1;
  }
  void read_lines(const Take& take) {
    std::array<char, 16384> piece = {};
    for (int i = 0; i < kPiecesAtOnce && output_.out >= 0; ++i) {
      const ssize_t count = read(output_.out, piece.data(), piece.size());
      if (count < 0) return;
      if (count == 0) return close_output();
      lines_.add({piece.data(), static_cast<std::size_t>(count)}, take);
    }
  }

  const std::string name_;
  Pipe output_;
  Guardian guardian_;
  recorder::LineSplitter lines_;
  bool has_ended_ = false;
};

}  // namespace

std::unique_ptr<Station> program(const std::vector<std::string>& words, const std::string& folder,
                                 const std::string& path) {
  return std::make_unique<Program>(Call{words, folder, path});
}

}  // namespace trial
