// What a scenario's steps do with the unit.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>

#include "bench/run.h"
#include "frames/words.h"

namespace {

namespace fs = std::filesystem;

constexpr double kPatienceSeconds = 10;          // for what is to happen at once
constexpr std::int64_t kProgressTime = 1000000;  // between two lines about one long read, in microseconds
constexpr double kVainSeconds = 3;               // for a question that is not to be answered
constexpr double kBulkBytes = 1024 * 1024;       // from here on a read's rate says something
constexpr int kDeepestScript = 10;               // a script that obeys itself would never end
constexpr char kVerdictPrefix[] = "F_l_m_";

std::string content(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// In bytes; 0 for a file that is not there.
double size_of(const fs::path& file) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(file, error);
  return error ? 0 : static_cast<double>(size);
}

std::string with_digits(double number, int digits) {
  char text[40];
  std::snprintf(text, sizeof text, "%.*f", digits, number);
  return text;
}

std::string in_kib(double bytes) {
  return with_digits(bytes / 1024, 0);
}

// Without what ends a line, and a text's final NUL; empty lines are left out.
std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    line.erase(std::remove_if(line.begin(), line.end(), [](char c) { return c == '\r' || c == '\0'; }),
               line.end());
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

bool is_verdict(const std::string& name) {
  return name.compare(0, sizeof kVerdictPrefix - 1, kVerdictPrefix) == 0;
}

}  // namespace

// Where the station finds a file: below its working directory, or where an absolute name says.
std::string Run::served(const std::string& name) const {
  return fs::path(folder_) / "served" / name;
}

Unit& Run::unit() {
  if (state().has_crashed) throw StepFailed("it has crashed; expected \"" + who() + " boots again\" before");
  return *std::next(neighbours().units.begin(), static_cast<std::ptrdiff_t>(unit_));
}

// Where the unit keeps a file that it read.
std::string Run::local(const std::string& name) const {
  return fs::path(folder_) / who() / fs::path(name).filename();
}

void Run::hear_script() {
  const auto script = unit().hear(station_options_.message_port, kPatienceSeconds);
  if (!script) throw StepFailed("the unit heard nothing");
  state().script = *script;
  timeline_.log(who(), "hears a boot script of " + std::to_string(state().script.size()) + " bytes:");
  for (const std::string& line : lines_of(state().script)) timeline_.log(who(), "> " + line);
}

void Run::hear_nothing(double seconds) {
  const auto heard = unit().hear(station_options_.message_port, seconds);
  if (heard) {
    const std::vector<std::string> lines = lines_of(*heard);
    throw StepFailed("it heard " + std::to_string(heard->size()) + " bytes that begin \"" +
                     (lines.empty() ? "" : lines.front()) + "\"");
  }
  timeline_.log(who(), "hears nothing");
}

void Run::obey_heard_script(const ReadOptions& options) {
  if (state().script.empty()) throw StepFailed("it has heard none");
  obey_script(state().script, options, 0);
}

// "tftp ADDRESS NAME" loads a file; "inst ADDRESS" obeys the script that was loaded there.
void Run::obey_script(const std::string& script, const ReadOptions& options, int depth) {
  if (depth > kDeepestScript) throw StepFailed("the scripts obey each other without an end");
  std::map<std::string, std::string> loaded;
  for (const std::string& line : lines_of(script)) {
    std::istringstream words(line);
    std::string command, address, name, surplus;
    words >> command >> address >> name >> surplus;
    if (!surplus.empty() || address.empty()) continue;
    if (command == "tftp" && !name.empty()) {
      read(name, options);
      loaded[address] = name;
    } else if (command == "inst" && name.empty()) {
      if (loaded.count(address) == 0) throw StepFailed("nothing was loaded to " + address);
      timeline_.log(who(), "obeys " + loaded[address]);
      obey_script(content(local(loaded[address])), options, depth + 1);
    }
  }
}

void Run::read(const std::string& name, const ReadOptions& options) {
  std::optional<std::string> failure;
  for (int attempt = 1; attempt <= options.tries; ++attempt) {
    begin_reading(name, options);
    failure = failure_of_reading(options.longest_seconds);
    if (!failure) return;
  }
  throw StepFailed(name + " was not read: " + *failure);
}

void Run::fail_to_read(const std::string& name, const ReadOptions& options) {
  begin_reading(name, options);
  if (!failure_of_reading()) throw StepFailed("it could");
}

void Run::begin_reading(const std::string& name, const ReadOptions& options) {
  if (state().reading)
    throw StepFailed(state().reading_name + " is still being read; expected \"unit ends reading\" before");
  const NetworkNamespace& place = unit().place();
  timeline_.log(who(), "reads " + name);
  state().reading_name = name;
  state().reading_since = microseconds_since_epoch();
  state().reading =
      std::make_unique<Reading>(place, ReadRequest{station_link_.address, station_options_.tftp_port, name,
                                                   local(name), options.block_size, options.timeout_seconds,
                                                   options.patience, state().habit, options.dies_after});
}

void Run::expect_reading() const {
  if (!state().reading) throw StepFailed("nothing is read; expected \"unit begins reading\" before");
}

void Run::expect_read(double bytes) {
  expect_reading();
  const auto has_read = [&] { return size_of(local(state().reading_name)) >= bytes; };
  until(ReadOptions().longest_seconds, [&] { return has_read() || state().reading->has_ended(); });
  if (!has_read()) throw StepFailed("it has read less");
}

void Run::end_reading() {
  expect_reading();
  if (const auto failure = failure_of_reading())
    throw StepFailed(state().reading_name + " was not read: " + *failure);
}

void Run::fail_to_end_reading() {
  expect_reading();
  if (!failure_of_reading()) throw StepFailed("it could");
}

// A file that arrives otherwise than it is served is wrong whatever the step expects.
std::optional<std::string> Run::failure_of_reading(double seconds) {
  std::int64_t next_report = state().reading_since + kProgressTime;
  const auto has_ended = [&] {
    report_progress(&next_report);
    return state().reading->has_ended();
  };
  if (!until(seconds, has_ended))
    throw StepFailed(state().reading_name + " was not read: it takes longer than " + with_digits(seconds, 0) +
                     " s");
  std::optional<std::string> failure = state().reading->failure();
  state().reading.reset();
  if (failure) {
    timeline_.log(who(), "could not read " + state().reading_name + ": " + *failure);
  } else {
    expect_whole();
  }
  return failure;
}

void Run::report_progress(std::int64_t* next_report) const {
  if (microseconds_since_epoch() < *next_report) return;
  const std::string arrived = in_kib(size_of(local(state().reading_name)));
  const std::string whole = in_kib(size_of(served(state().reading_name)));
  timeline_.log(who(), "has " + arrived + " of " + whole + " KiB of " + state().reading_name);
  *next_report += kProgressTime;
}

// A verdict is answered by an empty file.
void Run::expect_whole() const {
  const std::string& name = state().reading_name;
  const double seconds = static_cast<double>(microseconds_since_epoch() - state().reading_since) / 1e6;
  const std::string arrived = content(local(name));
  const std::string expected = is_verdict(name) ? "" : content(served(name));
  if (arrived != expected) throw StepFailed(name + " arrived, but not as it is served");
  const double bytes = static_cast<double>(arrived.size());
  const std::string rate =
      bytes < kBulkBytes ? "" : ", " + with_digits(bytes / seconds / kBulkBytes, 1) + " MiB/s";
  timeline_.log(who(), "has " + name + ", " + std::to_string(arrived.size()) + " bytes as served, in " +
                           with_digits(seconds, 3) + " s" + rate);
}

void Run::read_until_death(const std::string& name, const ReadOptions& options) {
  begin_reading(name, options);
  if (!until(options.longest_seconds, [&] { return state().reading->has_ended(); }) ||
      state().reading->failure())
    throw StepFailed("the transfer ended before");
  state().reading.reset();
  timeline_.log(who(), "dies");
}

void Run::ask(const std::string& question, const std::string& reply, bool holds) {
  const Unit::Answer answer =
      answer_to(question, kPatienceSeconds, holds ? reply.size() : Unit::kAnyLength, holds);
  if (!answer.came) throw StepFailed(answer.text);
  if (answer.text != reply) throw StepFailed("it was told " + answer.text);
}

void Run::ask_in_vain(const std::string& question) {
  const Unit::Answer answer = answer_to(question, kVainSeconds, Unit::kAnyLength, false);
  if (answer.came) throw StepFailed("it was told " + answer.text);
}

void Run::ask_and_leave(const std::string& question, Unit::Leaves leaves) {
  timeline_.log(who(), "asks " + question + ", and leaves");
  if (const auto why_not = unit().ask_and_leave(station_link_.address, station_options_.message_port,
                                                question, leaves, kPatienceSeconds))
    throw StepFailed(*why_not);
}

void Run::ask_on(const std::string& question, const std::string& reply) {
  if (!question.empty()) timeline_.log(who(), "asks on: " + question);
  const Unit::Answer answer = unit().ask_on(question, kPatienceSeconds, reply.size());
  if (!answer.came) throw StepFailed(answer.text);
  timeline_.log(who(), "is told " + answer.text);
  if (answer.text != reply) throw StepFailed("it was told " + answer.text);
}

void Run::take_habit(const std::string& name) {
  state().habit = std::find_if(std::begin(scenario::kHabits), std::end(scenario::kHabits),
                               [&name](const scenario::Habit& habit) { return habit.name == name; });
}

// Without its address nothing that ends with it comes to the network.
void Run::crash() {
  unit();
  timeline_.log(who(), "crashes");
  if (state().reading) state().reading->freeze();
  neighbours().network.remove_unit(unit_);
  unit().drop_connection();
  state().reading.reset();
  state().script.clear();
  state().has_crashed = true;
}

void Run::boot_again() {
  if (!state().has_crashed) throw StepFailed("it has not crashed");
  timeline_.log(who(), "boots again");
  neighbours().network.restore_unit(unit_);
  state().has_crashed = false;
}

void Run::hang_up() {
  timeline_.log(who(), "hangs up");
  const std::string left = unit().hang_up();
  if (!left.empty()) throw StepFailed("it was told more: " + left);
}

void Run::give_up(const std::string& name, int block_size, int blocks) {
  timeline_.log(who(), "gives up " + name + " after " + std::to_string(blocks) + " blocks");
  if (!unit().gives_up(station_link_.address, station_options_.tftp_port, name, block_size, blocks,
                       kPatienceSeconds))
    throw StepFailed("no answer came");
}

void Run::expect_refusal(const std::string& name, const std::string& mode) {
  timeline_.log(who(), "reads \"" + name + "\" in mode " + mode);
  const std::optional<int> code =
      unit().is_refused(station_link_.address, station_options_.tftp_port, name, mode, kPatienceSeconds);
  if (!code || *code == Unit::kNoError) throw StepFailed(code ? "it could" : "no answer came");
  timeline_.log(who(), "gets ERROR " + std::to_string(*code));
}

void Run::repeat(const std::string& name, int times) {
  timeline_.log(who(), "asks " + std::to_string(times) + " times for " + name);
  if (!unit().repeats(station_link_.address, station_options_.tftp_port, name, times, kPatienceSeconds))
    throw StepFailed("no answer came");
}

void Run::write(const std::string& name) {
  timeline_.log(who(), "writes " + name);
  const std::optional<int> code =
      unit().writes(station_link_.address, station_options_.tftp_port, name, kPatienceSeconds);
  if (code != Unit::kNoError)
    throw StepFailed(code ? "it got ERROR " + std::to_string(*code) : "no answer came");
}

Unit::Answer Run::answer_to(const std::string& question, double seconds, std::size_t longest, bool holds) {
  timeline_.log(who(), "asks " + question);
  Unit::Answer answer =
      unit().ask(station_link_.address, station_options_.message_port, question, seconds, longest, holds);
  timeline_.log(who(), answer.came ? "is told " + answer.text : "gets no answer: " + answer.text);
  return answer;
}

void Run::send(const std::string& text, int port) {
  timeline_.log(who(), "sends \"" + frames::printable(text) + '"');
  if (!unit().send(station_link_.address, port, text)) throw StepFailed("it could not");
}
