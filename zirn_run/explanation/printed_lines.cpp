#include "explanation/printed_lines.h"

#include <optional>

namespace explanation {

namespace {

using Says = PrintedLine::Says;

// What ends a line does not count, on either side.
std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\r' || text.back() == '\0'))
    text.remove_suffix(1);
  return text;
}

std::optional<std::vector<std::string_view>> match(std::string_view pattern, std::string_view line) {
  std::vector<std::string_view> values;
  while (true) {
    const std::size_t open = pattern.find('<');
    const std::string_view fixed = pattern.substr(0, open);
    if (open == std::string_view::npos) {
      if (line != fixed) return std::nullopt;
      return values;
    }
    const bool is_cut = trimmed(fixed) == line;  // the value is empty
    if (!is_cut && line.substr(0, fixed.size()) != fixed) return std::nullopt;
    line.remove_prefix(is_cut ? line.size() : fixed.size());
    pattern.remove_prefix(pattern.find('>', open) + 1);
    const std::string_view next = pattern.substr(0, pattern.find('<'));
    const std::size_t end = next.empty() ? line.size() : line.find(next);
    if (end == std::string_view::npos) return std::nullopt;
    values.push_back(line.substr(0, end));
    line.remove_prefix(end);
  }
}

bool has_value(const PrintedLine& printed, const std::vector<std::string_view>& values) {
  return printed.value.empty() ||
         (!values.empty() && values.back().substr(0, printed.value.size()) == printed.value);
}

}  // namespace

const std::vector<PrintedLine>& printed_lines() {
  static const std::vector<PrintedLine> kLines = {
      {"Starting TFTP server on <ADDRESS>:<PORT> PPT Server: <ADDRESS>", Says::kEvidence, "", ""},
      {"Server started , waiting for connections", Says::kHarmless, "", ""},
      {"Message Sender initialized. IP: <ADDRESS> Port=<PORT>", Says::kEvidence, "", ""},
      {"Cmd received: <NAME>", Says::kEvidence, "", ""},
      {"Message receiver initialized. IP: <ADDRESS> Port=<PORT>", Says::kHarmless, "", ""},
      {"Sender proc stopped!!!", Says::kHarmless, "", ""},
      {"Receiver proc stopped!!!", Says::kEvidence, "", ""},
      {"Message Server was shut down", Says::kHarmless, "", ""},
      {"Stopping server. Active <NUMBER> connections", Says::kHarmless, "", ""},
      {"TFTP Server was shut down", Says::kEvidence, "", ""},
      {"Socket Bind exception: <REASON>", Says::kCause, "start.port-in-use", "Address already in use"},
      {"Socket Bind exception: <REASON>", Says::kCause, "start.no-address",
       "Cannot assign requested address"},
      {"Socket Bind exception: <REASON>", Says::kCause, "start.no-right", "Permission denied"},
      {"Socket Bind exception: <REASON>", Says::kCause, "start.no-port", ""},
      {"Socket create exception: <REASON>", Says::kCause, "start.no-socket", ""},

      {"RRQ <NAME>", Says::kEvidence, "", ""},
      {"WRQ", Says::kCause, "file.written", ""},
      {"Requested blksize=<NUMBER> we support <NUMBER>", Says::kHarmless, "", ""},
      {"Filename is not set", Says::kCause, "file.no-name", ""},
      {"Mode <MODE> not supported", Says::kCause, "file.wrong-mode", ""},
      {"Unexpected packet", Says::kCause, "net.stray", ""},
      {"Client timeout", Says::kEvidence, "", ""},

      {"Error! Error code: <NUMBER>", Says::kCause, "ppt.error", ""},
      {"Error message: <TEXT>", Says::kEvidence, "", ""},
      {"Error in select():", Says::kCause, "station.wait-failed", ""},
      {"Connection was closed by server", Says::kCause, "ppt.odd-answer", ""},
      {"recv() error in waitForPackage()", Says::kCause, "ppt.odd-answer", ""},
      {"ERROR on connect() to <ADDRESS>:<PORT>. <REASON>", Says::kCause, "ppt.refused", "Connection refused"},
      {"ERROR on connect() to <ADDRESS>:<PORT>. <REASON>", Says::kCause, "ppt.no-route",
       "Network is unreachable"},
      {"ERROR on connect() to <ADDRESS>:<PORT>. <REASON>", Says::kCause, "ppt.absent", "No route to host"},
      {"ERROR on connect() to <ADDRESS>:<PORT>. <REASON>", Says::kCause, "ppt.dropped",
       "Connection timed out"},
      {"ERROR on connect() to <ADDRESS>:<PORT>. <REASON>", Says::kCause, "ppt.not-connected", ""},
      {"Error: Failed to initialize receiver", Says::kEvidence, "", ""},

      {"Assigned MAC is <MAC>", Says::kCause, "board.mac-default", "02:00:00:00:00:03"},
      {"Assigned MAC is <MAC>", Says::kCause, "board.mac-empty", "00:00:00:00:00:02"},
      {"Assigned MAC is <MAC>", Says::kHarmless, "", ""},
      {"Mode detected: <NUMBER>", Says::kEvidence, "", ""},
      {"  recv() failed", Says::kCause, "command.broke", ""},
      {"ERROR on send.", Says::kCause, "command.broke", ""},
      {"ERROR on accept()", Says::kCause, "command.port-closed", ""},
      {"ERROR:  select() failed", Says::kCause, "command.port-closed", ""},
      {"UDP: ERROR on binding. <REASON>", Says::kCause, "relay.none", ""},
      {"UDP:ERROR in sendto. <REASON>", Says::kCause, "relay.no-route", ""},
      {"UDP: ERROR in recvfrom", Says::kCause, "relay.ended", ""},
      {"Error in UDP select():", Says::kCause, "relay.ended", ""},
      {"UDP Server exited...", Says::kEvidence, "", ""},

      {"Error: Failed to initialize sender", Says::kEvidence, "", ""},
      {"Can't create socket for ioctl calls  because of : <REASON>", Says::kCause, "boot.no-right",
       "Operation not permitted"},
      {"Can't create socket for ioctl calls  because of : <REASON>", Says::kCause, "boot.no-socket", ""},
      {"Can't get ioctl answer because of : <REASON>", Says::kCause, "boot.no-link", ""},
      {"error in proto entry", Says::kCause, "boot.no-protocols", ""},
      {"Can't bind socket by the reason of <REASON>", Says::kCause, "boot.link-down",
       "Cannot assign requested address"},
      {"Can't bind socket by the reason of <REASON>", Says::kCause, "boot.no-broadcast",
       "Address already in use"},
      {"Can't bind socket by the reason of <REASON>", Says::kCause, "boot.none", ""},
      {"Error in \"sendto\":  the reason is <REASON>", Says::kCause, "boot.not-sent", ""},
      {"Can't set the socket options the reason is <REASON>", Says::kEvidence, "", ""},
      {"Ioctl failed", Says::kCause, "command.no-port", ""},
      {"Failed to create receive socket", Says::kCause, "command.no-port", ""},
      {"Failed to create sender socket. <REASON>", Says::kCause, "command.no-port", ""},
      {"ERROR on binding. <REASON>", Says::kCause, "command.port-in-use", "Address already in use"},
      {"ERROR on binding. <REASON>", Says::kCause, "command.no-address", "Cannot assign requested address"},
      {"ERROR on binding. <REASON>", Says::kCause, "command.no-port", ""},
      {"ERROR on listen. <REASON>", Says::kCause, "command.no-port", ""},
      {"ERROR opening socket", Says::kCause, "relay.none", ""},
      {"ERROR opening sender socket", Says::kCause, "relay.none", ""},

      {"Usage: TFTP [-h] [-p port] [-s server]", Says::kEvidence, "", ""},
      {" -h Prints this help", Says::kHarmless, "", ""},
      {" -n Specifies the server port, if none is specified default 69 is used", Says::kHarmless, "", ""},
      {" -o Specifies the server ip, if none is specified default 127.0.0.1 is used", Says::kHarmless, "",
       ""},
      {" -p Specifies the PPT server port", Says::kHarmless, "", ""},
      {" -s Specifies the PPT server ip", Says::kHarmless, "", ""},
      {" -m Specifies the PPT message port", Says::kHarmless, "", ""},
      {"OPTIONS ERROR : Failed allocating memory", Says::kCause, "start.no-memory", ""},
      {"Exiting.", Says::kEvidence, "", ""},
  };
  return kLines;
}

const PrintedLine* printed_line(std::string_view line) {
  line = trimmed(line);
  for (const PrintedLine& printed : printed_lines()) {
    const auto values = match(printed.text, line);
    if (values && has_value(printed, *values)) return &printed;
  }
  return nullptr;
}

std::vector<std::string_view> values_in(const PrintedLine& printed, std::string_view line) {
  return match(printed.text, trimmed(line)).value_or(std::vector<std::string_view>());
}

}  // namespace explanation
