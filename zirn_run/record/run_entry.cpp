#include "record/run_entry.h"

#include <array>
#include <charconv>
#include <csignal>
#include <string_view>

namespace record {

namespace {

// Fields of our own entries, and what the first of them may say. docs/run-record.md lists them.
constexpr char kKind[] = "ZIRN_ENTRY";
constexpr char kRunBegins[] = "run-begins";
constexpr char kLine[] = "line";
constexpr char kBoardCall[] = "board-call";
constexpr char kCut[] = "cut";
constexpr char kStationEnds[] = "station-ends";
constexpr char kRunEnds[] = "run-ends";
constexpr char kGap[] = "gap";
constexpr char kTimeout[] = "timeout";
constexpr char kName[] = "ZIRN_NAME";
constexpr char kTitle[] = "ZIRN_TITLE";
constexpr char kCommand[] = "ZIRN_COMMAND";
constexpr char kStatus[] = "ZIRN_STATUS";
constexpr char kSignal[] = "ZIRN_SIGNAL";
constexpr char kLasts[] = "ZIRN_LASTS_NANOSECONDS";
constexpr char kAfter[] = "ZIRN_AFTER_NANOSECONDS";
constexpr char kPptFlag[] = "ZIRN_PPT_FLAG";
constexpr char kJudged[] = "ZIRN_JUDGED";

// Fields of the journal (systemd.journal-fields(7)), and what the station's are.
constexpr char kMessage[] = "MESSAGE";
constexpr char kIdentifier[] = "SYSLOG_IDENTIFIER";
constexpr char kPriority[] = "PRIORITY";
constexpr char kInformation[] = "6";
constexpr char kStation[] = "TFTP";
constexpr char kRecorder[] = "zirn-run";
constexpr std::string_view kUnit = "zirn-test-station.service";

// Kinds of systemd's own entries: a process has ended with an EXIT_STATUS; a unit has ended well.
constexpr std::string_view kProcessExit = "98e322203f7a4ed290d09fe03c09fe15";
constexpr std::string_view kUnitSuccess = "7ad2d189f7e94e70a38c781354912448";
constexpr std::string_view kMainProcess = "ExecStart";

template <typename Number>
std::optional<Number> number_in(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

Entry entry_with(std::string message, std::string_view kind, const char* identifier) {
  Entry entry;
  entry.fields = {{kMessage, std::move(message)},
                  {kPriority, kInformation},
                  {kIdentifier, identifier},
                  {kKind, std::string(kind)}};
  return entry;
}

void put(const char* name, const std::string& value, Entry* entry) {
  if (!value.empty()) entry->fields.emplace_back(name, value);
}

Entry entry_that(const RunBegins& run) {
  Entry entry =
      entry_with("the run begins" + (run.name.empty() ? "" : ": " + run.name), kRunBegins, kRecorder);
  put(kName, run.name, &entry);
  put(kTitle, run.title, &entry);
  put(kCommand, run.command, &entry);
  return entry;
}

Entry entry_that(const Line& line) {
  return entry_with(line.text, kLine, kStation);
}

Entry entry_that(const BoardCall& call) {
  const std::string status = call.status ? std::to_string(*call.status) : "";
  Entry entry = entry_with("the board runs " + call.command + (status.empty() ? "" : ": status " + status),
                           kBoardCall, kRecorder);
  put(kCommand, call.command, &entry);
  put(kStatus, status, &entry);
  return entry;
}

std::string milliseconds(Nanoseconds time) {
  constexpr Nanoseconds kMillisecond = 1000000;
  return std::to_string(time / kMillisecond) + " ms";
}

Entry entry_that(const Cut& cut) {
  Entry entry = entry_with("the cable is out for " + milliseconds(cut.lasts), kCut, kRecorder);
  put(kLasts, std::to_string(cut.lasts), &entry);
  return entry;
}

Entry entry_that(const StationEnds& end) {
  const std::string how = end.signal != 0 ? " by signal " + std::to_string(end.signal)
                          : end.status    ? " with status " + std::to_string(*end.status)
                                          : "";
  Entry entry = entry_with("the station ends" + how, kStationEnds, kRecorder);
  if (end.status) put(kStatus, std::to_string(*end.status), &entry);
  if (end.signal != 0) put(kSignal, std::to_string(end.signal), &entry);
  return entry;
}

Entry entry_that(const RunEnds& end) {
  Entry entry =
      entry_with("the run ends" + (end.judged.empty() ? "" : ": " + end.judged), kRunEnds, kRecorder);
  put(kPptFlag, end.ppt_flag, &entry);
  put(kJudged, end.judged, &entry);
  return entry;
}

Entry entry_that(const Gap& gap) {
  return entry_with(gap.text, kGap, kRecorder);
}

Entry entry_that(const Timeout& timeout) {
  Entry entry =
      entry_with("the run takes longer than " + milliseconds(timeout.after) + ": the station is asked to end",
                 kTimeout, kRecorder);
  put(kAfter, std::to_string(timeout.after), &entry);
  return entry;
}

std::optional<RunEntry> said_by_ours(const Entry& entry, std::string_view kind) {
  const auto text = [&entry](const char* name) { return std::string(entry.value(name)); };
  const auto number = [&entry](const char* name) { return number_in<int>(entry.value(name)); };
  const auto time = [&entry](const char* name) {
    return number_in<Nanoseconds>(entry.value(name)).value_or(0);
  };
  if (kind == kRunBegins) return RunBegins{text(kName), text(kTitle), text(kCommand)};
  if (kind == kLine) return Line{text(kMessage)};
  if (kind == kBoardCall) return BoardCall{text(kCommand), number(kStatus)};
  if (kind == kCut) return Cut{time(kLasts)};
  if (kind == kStationEnds) return StationEnds{number(kStatus), number(kSignal).value_or(0)};
  if (kind == kRunEnds) return RunEnds{text(kPptFlag), text(kJudged)};
  if (kind == kGap) return Gap{text(kMessage)};
  if (kind == kTimeout) return Timeout{time(kAfter)};
  return std::nullopt;
}

// As systemd tells it: a number, or a name without "SIG"; 0: neither.
int signal_in(std::string_view text) {
  constexpr std::array<std::pair<std::string_view, int>, 19> kNames = {{{"HUP", SIGHUP},
                                                                        {"INT", SIGINT},
                                                                        {"QUIT", SIGQUIT},
                                                                        {"ILL", SIGILL},
                                                                        {"TRAP", SIGTRAP},
                                                                        {"ABRT", SIGABRT},
                                                                        {"BUS", SIGBUS},
                                                                        {"FPE", SIGFPE},
                                                                        {"KILL", SIGKILL},
                                                                        {"USR1", SIGUSR1},
                                                                        {"SEGV", SIGSEGV},
                                                                        {"USR2", SIGUSR2},
                                                                        {"PIPE", SIGPIPE},
                                                                        {"ALRM", SIGALRM},
                                                                        {"TERM", SIGTERM},
                                                                        {"XCPU", SIGXCPU},
                                                                        {"XFSZ", SIGXFSZ},
                                                                        {"IO", SIGIO},
                                                                        {"SYS", SIGSYS}}};
  for (const auto& [name, number] : kNames) {
    if (name == text) return number;
  }
  return number_in<int>(text).value_or(0);
}

std::optional<RunEntry> end_in(const Entry& entry) {
  if (entry.value("UNIT") != kUnit) return std::nullopt;
  if (entry.value("MESSAGE_ID") == kUnitSuccess) return StationEnds{};
  const std::string_view command = entry.value("COMMAND");
  const bool is_main_process = command == kMainProcess || command.empty();
  if (entry.value("MESSAGE_ID") != kProcessExit || !is_main_process) return std::nullopt;
  const std::string_view code = entry.value("EXIT_CODE");
  const std::string_view status = entry.value("EXIT_STATUS");
  if (code == "exited") return StationEnds{number_in<int>(status), 0};
  if (code == "killed" || code == "dumped") return StationEnds{std::nullopt, signal_in(status)};
  return std::nullopt;
}

}  // namespace

Entry entry_of(const RunEntry& said, Nanoseconds at) {
  Entry entry = std::visit([](const auto& it) { return entry_that(it); }, said);
  entry.at = at;
  return entry;
}

std::optional<RunEntry> said_by(const Entry& entry) {
  const std::string_view kind = entry.value(kKind);
  if (!kind.empty()) return said_by_ours(entry, kind);
  const bool is_of_unit = entry.value("_SYSTEMD_UNIT") == kUnit && entry.value("_TRANSPORT") == "stdout";
  if (is_of_unit || entry.value(kIdentifier) == kStation) return Line{std::string(entry.value(kMessage))};
  return end_in(entry);
}

}  // namespace record
