// What is set up before the station starts, and what station and board were seen to do.
#include <algorithm>
#include <set>
#include <sstream>
#include <string_view>

#include "scenario/writing.h"

namespace scenario {

namespace {

using story::Reading;
using story::Step;

constexpr char kUsualAddress[] = "172.40.0.1";
constexpr char kUsualPptServer[] = "172.30.0.254";
constexpr std::uint16_t kUsualTftpPort = 69;
constexpr std::uint16_t kUsualMessagePort = 12345;

// What makes a cause. An empty step: the language has none.
struct Setting {
  const char* cause;
  const char* step;
};
constexpr Setting kSettings[] = {
    {"start.no-right", "station lacks CAP_NET_BIND_SERVICE"},
    {"start.no-socket", ""},
    {"start.no-memory", ""},
    {"boot.no-right", "station lacks CAP_NET_RAW"},
    {"boot.no-link", "board link is called lan1"},
    {"boot.no-protocols", "board lacks /etc/protocols"},
    {"boot.link-down", "board link is down"},
    {"boot.no-broadcast", "board link has no broadcast address"},
    {"boot.no-socket", "station has 4 descriptors"},
    {"command.no-port", "station has 7 descriptors"},
    {"command.port-closed", "station has 9 descriptors"},
    {"board.mac-default", "board lacks envtool"},
    {"board.mac-empty", "board has tempmac \"\""},
};

// Lines that are waited for; the others follow from what else is waited for.
constexpr std::string_view kTold[] = {"ERROR on ",
                                      "UDP:ERROR ",
                                      "Socket Bind exception",
                                      "error in proto entry",
                                      "Connection was closed by server",
                                      "Error! Error code",
                                      "Error message: ",
                                      "Unexpected packet"};
constexpr std::string_view kInterrupted = "Error in select(): ";

bool begins(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

// "-s 10.11.12.13": what the station was started with, besides the address that the bench gives it.
struct Call {
  std::string address = kUsualAddress;
  std::string more;
};

Call call_of(const Reading& reading) {
  Call call;
  std::istringstream words(reading.run ? reading.run->command : "");
  std::string word;
  words >> word;
  for (bool is_first = true; words >> word; is_first = false) {
    if (is_first && word == "-o" && words >> call.address) continue;
    call.more += (call.more.empty() ? "" : " ") + word;
  }
  if (!call.more.empty() || (reading.run && !reading.run->command.empty())) return call;
  const auto add = [&call](const char* option, std::uint16_t port, std::uint16_t usual) {
    if (port != usual)
      call.more += (call.more.empty() ? "" : " ") + std::string(option) + std::to_string(port);
  };
  add("-n ", reading.tftp_port, kUsualTftpPort);
  add("-p ", reading.ppt_port, kUsualTftpPort);
  add("-m ", reading.message_port, kUsualMessagePort);
  for (const story::Party& party : reading.parties) {
    if (party.role != story::Role::kPptServer || party.addresses.empty()) continue;
    const std::string address = frames::dotted(party.addresses[0]);
    if (address != kUsualPptServer) call.more += (call.more.empty() ? "-s " : " -s ") + address;
  }
  return call;
}

// What the station's shell named.
void write_missing_tools(Writing* writing) {
  const explanation::Claim* const claim = writing->claim_of("board.tool-missing");
  if (claim == nullptr) return;
  for (const std::string_view tool : explanation::kBoardTools) {
    if (std::any_of(claim->statements.begin(), claim->statements.end(), [tool](const auto& statement) {
          return statement.sentence.find(tool) != std::string::npos;
        }))
      writing->script.sets("board lacks NAME", {std::string(tool)});
  }
}

// Before the first question that was never answered, since others may have been.
void write_hanging_tool(Writing* writing) {
  constexpr char kHangs[] = "board tool hangs";
  if (!writing->has_cause("board.tool-hangs")) return;
  for (const story::Connection& one : writing->reading.connections) {
    if (one.client == story::kStation || one.texts.empty() || !one.texts.back().is_from_client) continue;
    return writing->script.acts(one.from - 1, one.from - 1, kHangs, {}, one.frames);
  }
  writing->script.sets(kHangs);
}

void write_line(const Step& line, std::set<std::string>* told, Writing* writing) {
  const std::string& text = line.said.text;
  Script* const script = &writing->script;
  if (is_interruption(writing->reading, line)) {
    script->acts(line.from, line.from, "station gets SIGSTOP", {}, line.lines);
    script->acts(line.from, line.from + kSecond / 10, "bench waits 0.1 s", {}, line.lines);
    script->acts(line.from, line.from, "station gets SIGCONT", {}, line.lines);
    return;
  }
  for (const std::string_view beginning : kTold) {
    if (begins(text, beginning) && told->insert(text).second)
      script->follows(line.from, "station says TEXT", {text}, line.lines);
  }
}

void write_steps(Writing* writing) {
  Script& script = writing->script;
  std::set<std::string> told;
  for (const Step& step : writing->reading.steps) {
    if (step.kind == Step::Kind::kLine) write_line(step, &told, writing);
    if (step.kind == Step::Kind::kBoardCall && told.insert("board " + step.said.text).second)
      script.follows(step.from, "board ran TEXT", {step.said.text}, step.lines);
    if (step.kind == Step::Kind::kCut)
      script.acts(step.from, step.from, "wire is cut for SECONDS s",
                  {in_tenths(static_cast<double>(step.until - step.from) / kSecond)}, step.lines);
  }
}

}  // namespace

bool is_interruption(const Reading& reading, const Step& step) {
  return step.kind == Step::Kind::kLine && begins(step.said.text, kInterrupted) &&
         !story::is_by_alarm(reading, step);
}

void write_board(Writing* writing) {
  Script& script = writing->script;
  const Reading& reading = writing->reading;
  for (const auto& [cause, step] : kSettings) {
    if (!writing->has_cause(cause)) continue;
    if (*step != '\0') script.sets(step);
    if (*step == '\0') script.cannot_say(reading.first, "what led to " + std::string(cause), {});
  }
  write_missing_tools(writing);
  const Call call = call_of(reading);
  if (call.address != kUsualAddress) script.sets("board address is ADDRESS", {call.address});
  if (writing->has_cause("start.port-in-use"))
    script.sets("board has port PORT taken", {std::to_string(reading.tftp_port)});
  if (writing->has_cause("boot.port-in-use"))
    script.sets("board has port PORT taken", {std::to_string(reading.message_port)});
  if (writing->has_cause("command.port-in-use"))
    script.sets("board has TCP port " + std::to_string(reading.message_port) + " taken");
  if (call.more.empty())
    script.starts("station starts");
  else
    script.starts("station starts with TEXT", {call.more});
  if (writing->has_cause("boot.not-sent")) script.starts("board link is down");
  write_hanging_tool(writing);
  write_steps(writing);
}

}  // namespace scenario
