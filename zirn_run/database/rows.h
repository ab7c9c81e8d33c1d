#ifndef DATABASE_ROWS_H
#define DATABASE_ROWS_H

#include <optional>
#include <string>

// The tables' rows, which docs/factory.md describes. `columns` names each column once, for writing and for reading.
// Times are UTC, "2026-11-22T03:12:40.123Z", so that they sort as text.
namespace database {

struct Run {
  long long id = 0;  // given by the database
  std::string content;
  std::string station;
  std::string name;
  std::optional<std::string> started;
  std::optional<std::string> day;
  double duration = 0;  // seconds
  std::string verdict;  // "passed", "failed" or "none"
  std::optional<long long> exit_status;
  std::optional<long long> exit_signal;
  std::optional<std::string> exit_meaning;
  std::optional<std::string> unit_address;
  std::optional<std::string> unit_mac;
  std::string fault_owner;
  std::string fault_cause;
  std::string fault_sentence;
  std::optional<std::string> failed_step;
  long long frames_lost = 0;
  long long blocks_repeated = 0;
  long long incomplete = 0;
  std::string record_host;
  std::string record;
  std::string explained_by;
  std::string collected;

  static constexpr char kTable[] = "runs";
  template <typename Self, typename Visit>
  static void columns(Self& run, const Visit& visit) {
    visit("content", run.content);
    visit("station", run.station);
    visit("name", run.name);
    visit("started", run.started);
    visit("day", run.day);
    visit("duration", run.duration);
    visit("verdict", run.verdict);
    visit("exit_status", run.exit_status);
    visit("exit_signal", run.exit_signal);
    visit("exit_meaning", run.exit_meaning);
    visit("unit_address", run.unit_address);
    visit("unit_mac", run.unit_mac);
    visit("fault_owner", run.fault_owner);
    visit("fault_cause", run.fault_cause);
    visit("fault_sentence", run.fault_sentence);
    visit("failed_step", run.failed_step);
    visit("frames_lost", run.frames_lost);
    visit("blocks_repeated", run.blocks_repeated);
    visit("incomplete", run.incomplete);
    visit("record_host", run.record_host);
    visit("record", run.record);
    visit("explained_by", run.explained_by);
    visit("collected", run.collected);
  }
};

// The rows below are of a run, and counted from 1.

struct Read {
  long long run = 0;
  long long position = 0;
  std::string file;
  std::optional<long long> bytes;
  std::optional<long long> block_size;
  std::optional<double> seconds;
  std::optional<long long> blocks;
  std::optional<long long> repeated;
  std::optional<long long> finished;  // 1 or 0

  static constexpr char kTable[] = "reads";
  template <typename Self, typename Visit>
  static void columns(Self& read, const Visit& visit) {
    visit("run", read.run);
    visit("position", read.position);
    visit("file", read.file);
    visit("bytes", read.bytes);
    visit("block_size", read.block_size);
    visit("seconds", read.seconds);
    visit("blocks", read.blocks);
    visit("repeated", read.repeated);
    visit("finished", read.finished);
  }
};

struct Step {
  long long run = 0;
  long long position = 0;
  std::string name;
  std::string result;  // "passed", "failed" or "reported"

  static constexpr char kTable[] = "steps";
  template <typename Self, typename Visit>
  static void columns(Self& step, const Visit& visit) {
    visit("run", step.run);
    visit("position", step.position);
    visit("name", step.name);
    visit("result", step.result);
  }
};

// A sentence about the fault (`position` 1), or about what was also seen (2 and on).
struct Finding {
  long long run = 0;
  long long position = 0;
  long long sentence_number = 0;
  std::string role;  // "fault" or "also"
  std::string owner;
  std::string cause;
  std::string sentence;
  std::string evidence;  // "seen" or "inferred"
  std::optional<long long> first_frame;
  std::optional<long long> last_frame;
  std::optional<long long> first_line;
  std::optional<long long> last_line;

  static constexpr char kTable[] = "findings";
  template <typename Self, typename Visit>
  static void columns(Self& finding, const Visit& visit) {
    visit("run", finding.run);
    visit("position", finding.position);
    visit("sentence_number", finding.sentence_number);
    visit("role", finding.role);
    visit("owner", finding.owner);
    visit("cause", finding.cause);
    visit("sentence", finding.sentence);
    visit("evidence", finding.evidence);
    visit("first_frame", finding.first_frame);
    visit("last_frame", finding.last_frame);
    visit("first_line", finding.first_line);
    visit("last_line", finding.last_line);
  }
};

// A file that was looked into: either it is a run's record, or `reason` says why it is not.
struct File {
  std::string host;
  std::string path;
  long long size = 0;      // bytes; -1: it could not be opened or read
  long long modified = 0;  // nanoseconds since 1970
  std::optional<long long> run;
  std::optional<std::string> reason;
  std::string collected;

  static constexpr char kTable[] = "files";
  template <typename Self, typename Visit>
  static void columns(Self& file, const Visit& visit) {
    visit("host", file.host);
    visit("path", file.path);
    visit("size", file.size);
    visit("modified", file.modified);
    visit("run", file.run);
    visit("reason", file.reason);
    visit("collected", file.collected);
  }
};

}  // namespace database

#endif
