#ifndef ZIRN_RUN_RECORDING_H
#define ZIRN_RUN_RECORDING_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "record/reader.h"
#include "record/run_entry.h"
#include "recorder/recorder.h"
#include "stage/process.h"
#include "stage/wait_until.h"
#include "support/program.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/whole_file.h"

// A recorder at work, as a process.
class Recording {
 public:
  explicit Recording(
      const recorder::Options& options, const std::function<void()>& prepare = [] {})
      : process_(
            [options, prepare] {
              prepare();
              return recorder::record(options);
            },
            [] { append_errors_to("errors"); }),
        part_(options.output + ".part") {}

  pid_t pid() const { return process_.pid(); }
  // Waits until its links are open. False: it has ended.
  bool works() {
    return wait_until([this] {
             std::error_code none;
             return process_.end() || std::filesystem::file_size(part_, none) + 1 > 1;
           }) &&
           !process_.end();
  }
  std::string output() { return output_ += process_.read_text(); }
  void gets_signal(int number) { process_.send_signal(number); }
  int exit_status() { return status_number(process_.wait_for_end()); }
  int stops() {
    gets_signal(SIGTERM);
    return exit_status();
  }

 private:
  Process process_;
  const std::string part_;
  std::string output_;
};

// A scratch directory, and how a station of this machine alone is recorded there.
class RecordsLoopback : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    options_.links = {"lo"};
    options_.station = std::vector<std::string>{"-o", "127.0.0.1"};
    options_.output = "run.pcapng";
  }

  const ScratchDirectory scratch_;
  recorder::Options options_;
};

struct RecordedFrame {
  std::string link;
  std::string bytes;
  std::size_t size = 0;
  record::Nanoseconds at = 0;
};

// All that a record has.
struct Recorded {
  std::vector<record::Interface> links;
  std::vector<RecordedFrame> frames;
  std::vector<record::Entry> entries;
  std::vector<record::Statistics> statistics;
  std::string problem;

  explicit Recorded(std::istream& file) {
    record::Reader reader(file);
    while (auto item = reader.next()) std::visit([this](const auto& it) { take(it); }, *item);
    problem = reader.problem();
  }

  template <typename Said>
  std::vector<Said> said() const {
    std::vector<Said> all;
    for (const record::Entry& entry : entries) {
      const auto what = record::said_by(entry);
      if (what && std::holds_alternative<Said>(*what)) all.push_back(std::get<Said>(*what));
    }
    return all;
  }
  std::vector<std::string> gaps() const {
    std::vector<std::string> texts;
    for (const record::Gap& gap : said<record::Gap>()) texts.push_back(gap.text);
    return texts;
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> texts;
    for (const record::Line& line : said<record::Line>()) texts.push_back(line.text);
    return texts;
  }
  // How many frames of UDP have the text; refusals, which quote it, are none.
  std::size_t count(const std::string& text) const {
    constexpr std::size_t kProtocolAt = 23;
    std::size_t number = 0;
    for (const RecordedFrame& frame : frames)
      number += frame.bytes.at(kProtocolAt) == 17 && frame.bytes.find(text) != std::string::npos ? 1 : 0;
    return number;
  }
  std::size_t frames_of(const std::string& link) const {
    std::size_t number = 0;
    for (const RecordedFrame& frame : frames) number += frame.link == link ? 1 : 0;
    return number;
  }

 private:
  void take(const record::Interface& link) { links.push_back(link); }
  void take(const record::Frame& frame) {
    frames.push_back({links.at(frame.interface).name, std::string(frame.bytes), frame.size, frame.at});
  }
  void take(const record::Entry& entry) { entries.push_back(entry); }
  void take(const record::Statistics& counted) { statistics.push_back(counted); }
};

inline Recorded recorded(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  return Recorded(file);
}

// Sends datagrams from where it was made.
class Sender {
 public:
  Sender(const std::string& address, std::uint16_t port)
      : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &to.sin_addr);
    if (connect(descriptor_, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
      throw std::runtime_error("no way to " + address);
  }
  ~Sender() { close(descriptor_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  // A refusal that comes back for an earlier one is passed over.
  void sends(const std::string& datagram) const {
    for (int i = 0; i < 2 && send(descriptor_, datagram.data(), datagram.size(), 0) < 0; ++i) continue;
  }

 private:
  const int descriptor_;
};

inline std::string data_block(std::size_t size) {
  return std::string("\0\3\0\1", 4) + std::string(size, 'x');
}

#endif
