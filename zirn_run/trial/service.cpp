// The station's systemd unit. systemd runs it; a guardian has it stopped when we are gone.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <utility>

#include "record/run_entry.h"
#include "recorder/clock.h"
#include "recorder/waits.h"
#include "station/child.h"
#include "station/settings.h"
#include "trial/guardian.h"
#include "trial/station.h"

namespace trial {

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kStarts{90};                           // a job of systemd's
constexpr record::Nanoseconds kJournalTakes = 3 * recorder::kSecond;  // to say that the unit has ended

station::Words systemctl(station::Words words, const std::string& unit) {
  words.insert(words.begin(), {"systemctl", "--no-ask-password"});
  words.insert(words.end(), {"--", unit});
  return words;
}

// Waits until the program has ended.
void wait_for(const station::Child& child, milliseconds patience) {
  pollfd wait = {child.descriptor(), POLLIN, 0};
  poll(&wait, 1, static_cast<int>(patience.count()));
}

std::string shown(const std::string& property, const std::string& unit) {
  return station::output_of(systemctl({"show", "--value", "--property=" + property}, unit));
}

// Whether systemd gave up before the program began: such statuses are its own (systemd.exec(5)).
bool is_before_program(const std::string& status) {
  constexpr long kFirst = 200;
  return std::strtol(status.c_str(), nullptr, 10) >= kFirst;
}

// The word that the unit keeps of its end: a status, or the name of a signal, which is not needed here.
record::StationEnds kept_end(const std::string& unit) {
  std::ifstream file("/run/" + unit + "/exit_status");
  record::StationEnds end;
  int status = 0;
  if (file >> status) end.status = status;
  return end;
}

void stop_when_alone(int control, const std::string& unit) {
  char done = 0;
  if (recv(control, &done, sizeof done, 0) > 0) return;
  wait_for(station::Child(systemctl({"stop"}, unit)), Station::kPatience * 2);
}

class Service : public Station {
 public:
  explicit Service(std::string unit)
      : unit_(std::move(unit)), guardian_([this](int control) {
          char go = 0;
          if (recv(control, &go, sizeof go, 0) > 0) stop_when_alone(control, unit_);
        }) {}
  ~Service() override { tell_guardian(); }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  void begin() override {
    const std::string before = shown("InvocationID", unit_);
    journal_.emplace(unit_ + ".service", recorder::now());
    tell_guardian();
    wait_for(station::Child(systemctl({"start"}, unit_)), kStarts);
    if (shown("InvocationID", unit_) == before || is_before_program(shown("ExecMainStatus", unit_))) {
      tell_guardian();
      throw NotStarted("systemd did not start " + unit_);
    }
    const pid_t process = station::service_of(unit_).process;
    if (process > 0) process_.emplace(process);
  }
  void end(int signal) override {
    const station::Words stop = {"stop", "--no-block"};
    const station::Words kill = {"kill", "--signal=KILL"};
    ending_ = station::Child(systemctl(signal == SIGKILL ? kill : stop, unit_));
  }

  int descriptor() const override { return journal_->descriptor(); }
  // The journal says when the unit has ended; where it does not, the process does.
  void receive(const Take& take) override {
    journal_->receive([&](const record::Entry& entry) {
      const auto said = record::said_by(entry);
      has_said_end_ = has_said_end_ || (said && std::holds_alternative<record::StationEnds>(*said));
      take(entry);
    });
    if (has_said_end_ || (process_ && !process_->has_ended())) return;
    if (ended_ == 0) ended_ = recorder::now();
    if (recorder::now() - ended_ < kJournalTakes) return;
    has_said_end_ = true;
    take(entry_of(kept_end(unit_), ended_));
  }

 private:
  void tell_guardian() const {
    const char word = 1;
    send(guardian_.descriptor(), &word, sizeof word, MSG_NOSIGNAL);
  }

  const std::string unit_;
  Guardian guardian_;
  std::optional<recorder::Journal> journal_;
  std::optional<recorder::Process> process_;  // the unit's main one; nothing: it had ended at once
  station::Child ending_;
  record::Nanoseconds ended_ = 0;  // the process; 0: not yet
  bool has_said_end_ = false;
};

}  // namespace

std::unique_ptr<Station> service(const std::string& unit) {
  return std::make_unique<Service>(unit);
}

}  // namespace trial
