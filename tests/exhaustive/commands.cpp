// Every sequence of connections, texts, failures and silences at the command receiver, to a stated depth.

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "exhaustive/events.h"
#include "fuzz/connections.h"
#include "fuzz/script.h"
#include "message_server/message_server.h"

namespace {

constexpr std::size_t kDepth = 4;
constexpr std::size_t kMaxText = 254;

// One letter of the script, with what it carries.
struct Step {
  std::string name;
  char letter;
  std::string bytes;
};

std::string script_of(const Step& step) {
  std::string script(1, step.letter);
  if (step.letter == 'D' || step.letter == 'B') {
    script += static_cast<char>(step.bytes.size() >> 8);
    script += static_cast<char>(step.bytes.size() & 0xFF);
  }
  return script + step.bytes;
}

const std::vector<Step>& steps() {
  static const std::vector<Step> all = {
      {"connection", 'C', ""},
      {"end of connection", 'E', ""},
      {"time-out", 'T', ""},
      {"failed wait", 'W', ""},
      {"failed receive", 'R', ""},
      {"nothing there", 'G', ""},
      {"failed send", 'S', ""},
      {"failing command", 'X', ""},
      {"hello", 'D', "hello"},
      {"asks for MAC", 'D', "ZIRN_ASKS_FOR_HIS_MAC"},
      {"text before MAC, DO_PMC_INIT in it", 'D', "DO_PMC_INIT:1 ZIRN_ASKS_FOR_HIS_MAC"},
      {"PMC", 'D', "DO_PMC_INIT"},
      {"PMC 300", 'D', "DO_PMC_INIT:300:9"},
      {"PMC 1", 'D', "DO_PMC_INIT:1"},
      {"254 bytes", 'D', std::string(kMaxText, 'x')},
      {"600 bytes", 'D', std::string(600, 'y')},
      {"text behind NUL", 'D', std::string("\0DO_PMC_INIT", 12)},
      {"board's MAC", 'B', "tempmac=02:00:00:00:00:fe\n"},
      {"board's empty MAC", 'B', "tempmac="},
      {"board's MAC of a newline", 'B', "other\ntempmac=\n"},
      {"board's other line", 'B', "tempmac=02:00:00:00:00:fe\nother\n"},
      {"board's MAC in pieces", 'B', "x=tempmac=1 2"},
  };
  return all;
}

// The command receiver and the system under it, told in other words than the product's. Takes the steps in
// the order in which the system gives them.
class Model {
 public:
  explicit Model(const std::vector<const Step*>& path) : left_(path) {}
  void run();

  std::string printed;
  std::vector<std::string> sent;
  std::vector<std::string> commands;
  std::vector<long> waits;
  bool is_receiving = true;

 private:
  char next() const { return at_ == left_.size() ? '\0' : left_[at_]->letter; }
  bool takes(char letter);
  bool waits_once();
  void accept_all();
  void serve();
  void reply();
  void assign_mac();
  void start_pmc();
  std::string mac_text();

  const std::vector<const Step*>& left_;
  std::size_t at_ = 0;
  int connections_ = 0;
  bool polls_ = false;
  bool has_started_voice_ = false;
  std::string buffer_;  // 255 bytes
};

bool Model::takes(char letter) {
  if (next() != letter) return false;
  ++at_;
  return true;
}

void Model::run() {
  while (waits_once() && is_receiving) {
  }
  printed += "Receiver proc stopped!!!\n";
}

// One wait and what follows from it. False when it failed.
bool Model::waits_once() {
  waits.push_back(polls_ ? 0 : 2);
  const auto is_for_connection = [this] {
    return next() != '\0' && std::string("DERG").find(next()) != std::string::npos;
  };
  while (connections_ == 0 && is_for_connection()) ++at_;
  if (takes('W')) {
    printed += "ERROR:  select() failed\n";
    return false;
  }
  if (next() == 'C') {
    accept_all();
  } else if (is_for_connection()) {
    serve();
  } else {
    if (next() == '\0') is_receiving = false;  // the owner stops it
    if (next() != '\0') ++at_;
    polls_ = true;
  }
  return true;
}

void Model::accept_all() {
  while (takes('C')) ++connections_;
  if (!takes('R')) return;
  printed += "ERROR on accept()\n";
  is_receiving = false;
}

void Model::serve() {
  buffer_.assign(kMaxText + 1, '\0');
  for (;;) {
    if (takes('G')) return;
    if (takes('R')) {
      printed += "  recv() failed\n";
      break;
    }
    if (next() != 'D') {
      takes('E');
      break;
    }
    const std::string text = left_[at_++]->bytes.substr(0, kMaxText);
    if (text.empty()) break;
    buffer_.replace(0, text.size(), text);
    reply();
    sent.emplace_back(buffer_.c_str());
    if (takes('S')) {
      printed += "ERROR on send. \n";
      break;
    }
  }
  --connections_;
}

void Model::reply() {
  const std::string text = buffer_.c_str();
  if (text.find("ZIRN_ASKS_FOR_HIS_MAC") != std::string::npos) {
    assign_mac();
  } else if (text.find("DO_PMC_INIT") != std::string::npos) {
    start_pmc();
  }
}

std::string Model::mac_text() {
  commands.emplace_back("envtool show tempmac");
  if (next() != 'B') return "02:00:00:00:00:01";
  std::string printed_by_board = left_[at_++]->bytes;
  const bool ends_line = !printed_by_board.empty() && printed_by_board.back() == '\n';
  if (ends_line) printed_by_board.pop_back();
  const std::size_t start = printed_by_board.rfind('\n');
  const std::string last =
      printed_by_board.substr(start == std::string::npos ? 0 : start + 1) + (ends_line ? "\n" : "");
  if (last.find("tempmac=") == std::string::npos) return "02:00:00:00:00:01";
  return last.substr(last.rfind('=') + 1);
}

void Model::assign_mac() {
  const std::string text = mac_text();
  if (text.empty()) return;
  std::uint64_t mac = 0;
  std::uint64_t group = 0;
  bool is_in_group = false;
  for (char character : text + " ") {
    if (character == ':') continue;
    if (std::string("0123456789abcdef").find(character) != std::string::npos) {
      group = group * 16 + std::string("0123456789abcdef").find(character);
      is_in_group = true;
    } else if (is_in_group) {
      mac = (mac << 8) + group;
      group = 0;
      is_in_group = false;
    }
  }
  mac += 2;
  char words[18];
  std::snprintf(words, sizeof words, "%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>(mac >> 40 & 255),
                static_cast<unsigned>(mac >> 32 & 255), static_cast<unsigned>(mac >> 24 & 255),
                static_cast<unsigned>(mac >> 16 & 255), static_cast<unsigned>(mac >> 8 & 255),
                static_cast<unsigned>(mac & 255));
  buffer_.replace(0, sizeof words, words, sizeof words);
  printed += "Assigned MAC is " + std::string(words) + "\n";
}

void Model::start_pmc() {
  const std::string text = buffer_.c_str();
  int mode = 0;
  const std::size_t first = text.find_first_not_of(':');
  const std::size_t colon = text.find(':', first);
  const std::size_t second = text.find_first_not_of(':', colon);
  const bool has_mode = colon != std::string::npos && second != std::string::npos;
  // The first separator's place is where the text ends from now on.
  if (colon != std::string::npos) buffer_[colon] = '\0';
  if (has_mode) {
    mode = std::atoi(text.substr(second).c_str()) % 256;
    printed += "Mode detected: " + std::to_string(mode) + "\n";
    const std::size_t behind = text.find(':', second);
    if (behind != std::string::npos) buffer_[behind] = '\0';
  }
  if (!has_started_voice_) {
    commands.emplace_back("/etc/init.d/voice stop");
    takes('X');
    commands.emplace_back("/etc/init.d/voice start_ppt");
    takes('X');
  }
  has_started_voice_ = true;
  const std::string command = "/mnt/ramdisk/t1-e1 " + std::to_string(mode) + " -1";
  commands.push_back(command);
  buffer_.replace(0, command.size() + 1, command.c_str(), command.size() + 1);
  const std::string answer = takes('X') ? "READY" : "FAIL";
  buffer_.replace(0, answer.size() + 1, answer.c_str(), answer.size() + 1);
}

std::string list(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) result += "[" + text + "]";
  return result;
}

class Receivers {
 public:
  // Every sequence behind those steps.
  void run(const std::vector<const Step*>& first);
  long sequences = 0;

 private:
  void branch(std::size_t left);
  void play();

  std::vector<const Step*> path_;
  MessageServer record_{12345};
};

void Receivers::run(const std::vector<const Step*>& first) {
  path_ = first;
  branch(kDepth);
}

void Receivers::branch(std::size_t left) {
  if (left == 0) return play();
  for (const Step& step : steps()) {
    path_.push_back(&step);
    branch(left - 1);
    path_.pop_back();
  }
}

void Receivers::play() {
  ++sequences;
  std::string script;
  played_so_far.clear();
  for (const Step* step : path_) {
    script += script_of(*step);
    played_so_far += step->name + "; ";
  }
  Model model(path_);
  model.run();
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  record_.receive_socket = connections::listener = played.new_descriptor();
  record_.receiving = true;
  record_.receiver_thread = 1;
  played.cleared_at_end = &record_.receiving;
  const Printed printed;
  ReceiverProc(&record_);
  must_be_same("printed", model.printed, printed.text());
  must_be_same("sent", list(model.sent), list(played.sent));
  must_be_same("commands", list(model.commands), list(played.commands));
  must_be_same("waits", model.waits.size(), played.waits.size());
  for (std::size_t i = 0; i < model.waits.size(); ++i)
    must_be_same("wait in seconds", model.waits[i], played.waits[i]);
  must_be_same("receiving", model.is_receiving, record_.receiving);
  must_be_same("handle of the thread", pthread_t{0}, record_.receiver_thread);
  record_.receive_socket = -1;
}

}  // namespace

int main() {
  prepare_process();
  Receivers receivers;
  const Step* const connection = &steps()[0];
  receivers.run({});
  receivers.run({connection});
  std::printf("%ld sequences to depth %zu, after nothing and after a connection\n", receivers.sequences,
              kDepth);
  std::fflush(stdout);
  return 0;
}
