#ifndef ZIRN_RUN_SCRATCH_SERVER_H
#define ZIRN_RUN_SCRATCH_SERVER_H

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "stage/process.h"
#include "support/program.h"
#include "support/whole_file.h"

// A PostgreSQL server with a cluster of its own in a scratch folder, for whom the folder's socket is the only way in. It
// refuses root, for whom `nobody` runs it.
class ScratchServer {
 public:
  // Where Debian has its programs; empty: it is not installed.
  static std::string programs() {
    std::error_code none;
    for (const auto& version : std::filesystem::directory_iterator("/usr/lib/postgresql", none)) {
      if (exists(version.path() / "bin/initdb", none)) return version.path() / "bin/";
    }
    return "";
  }

  explicit ScratchServer(const std::string& scratch) : folder_(scratch + "/server") {
    std::filesystem::permissions(scratch, std::filesystem::perms(0711));
    std::filesystem::create_directory(folder_);
    if (is_root() && chown(folder_.c_str(), kNobody, kNobody) != 0)
      throw std::runtime_error("cannot give it away");
    Process made({programs() + "initdb", "--no-sync", "-A", "trust", "-U", "owner", "--encoding=UTF8",
                  "--locale=C.UTF-8", "-D", data()},
                 becomes_ordinary());
    made.close_input();
    const auto end = made.wait_for_end(kLong);
    if (!end || !end->succeeded())
      throw std::runtime_error("initdb: " + made.read_text() + whole_file(log()));
    start();
  }
  ~ScratchServer() { ends_by(SIGQUIT); }

  // Returns once it answers.
  void start() {
    const bool has_begun = wait_until(
        [this] {  // not before the processes of one that was killed are gone
          if (process_ && !process_->end()) return true;
          process_ = std::make_unique<Process>(Process::Arguments{programs() + "postgres", "-D", data(), "-k",
                                                                  folder_, "-c", "listen_addresses="},
                                               becomes_ordinary());
          return wait_until([this] { return answers() || process_->end(); }, kLong) && !process_->end();
        },
        kLong);
    if (!has_begun) throw std::runtime_error("the server does not answer: " + whole_file(log()));
  }
  // SIGQUIT, which is its immediate shutdown, or SIGKILL, of the first of its processes alone.
  void ends_by(int signal) {
    if (!process_) return;
    process_->send_signal(signal);
    process_->wait_for_end(kLong);
    process_.reset();
  }

  std::string url(const std::string& user = "owner") const {
    return "postgresql://" + user + "@/postgres?host=" + folder_;
  }

 private:
  static constexpr uid_t kNobody = 65534;
  static constexpr std::chrono::seconds kLong{60};

  static bool is_root() { return geteuid() == 0; }
  std::string data() const { return folder_ + "/data"; }
  std::string log() const { return folder_ + "/log"; }
  bool answers() const {
    Process asked({programs() + "pg_isready", "-q", "-h", folder_}, becomes_ordinary());
    const auto end = asked.wait_for_end(kLong);
    return end && end->succeeded();
  }
  Process::Prepare becomes_ordinary() const {
    return [log = log()] {
      if (is_root() && (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0))
        throw std::runtime_error("cannot become an ordinary user");
      prctl(PR_SET_PDEATHSIG, SIGQUIT);
      append_errors_to(log);
    };
  }

  const std::string folder_;
  std::unique_ptr<Process> process_;
};

#endif
