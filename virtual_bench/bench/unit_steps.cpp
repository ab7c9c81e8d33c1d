// What a scenario's steps do with the unit.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>

#include "bench/run.h"

namespace {

namespace fs = std::filesystem;

constexpr double kTransferSeconds = 150;    // the longest that a transfer may take
constexpr double kProgressSeconds = 1;      // between two lines about one long read
constexpr double kVainSeconds = 3;          // for a question that is not to be answered
constexpr double kBulkBytes = 1024 * 1024;  // from here on a read's rate says something
constexpr int kDeepestScript = 10;          // a script that obeys itself would never end
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

std::vector<std::string> split(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

bool is_verdict(const std::string& name) {
  return name.compare(0, sizeof kVerdictPrefix - 1, kVerdictPrefix) == 0;
}

}  // namespace

// Where the station finds a file: below its working directory, or where an absolute name says.
std::string Run::served(const std::string& name) const {
  return fs::path(folder_) / "served" / name;
}

// Where the unit keeps a file that it read.
std::string Run::local(const std::string& name) const {
  return fs::path(folder_) / "unit" / fs::path(name).filename();
}

void Run::play_unit_step(const Step& step) {
  network();
  switch (step.act) {
    case Act::kUnitHears:
      return hear_script();
    case Act::kUnitHearsNothing:
      return hear_nothing(step.number_of("SECONDS"));
    case Act::kUnitObeys:
      if (script_.empty()) throw Wrong("it has heard none");
      return obey_script(script_, step, 0);
    case Act::kUnitReads:
      return step.has("UNIT") ? read_until_death(step) : read(step.text_of("NAME"), step);
    case Act::kUnitBeginsReading:
      return begin_reading(step.text_of("NAME"), step);
    case Act::kUnitEndsReading:
      if (!ends_reading()) throw Wrong(reading_.name + " was not read");
      return;
    case Act::kUnitCannotRead:
      begin_reading(step.text_of("NAME"), step);
      if (ends_reading()) throw Wrong("it could");
      return;
    case Act::kUnitSends: {
      const auto unit = unit_does({"send", kStationIp, kRelayPort, step.text_of("TEXT")});
      timeline_.says("unit", "sends '" + step.text_of("TEXT") + "'");
      if (!finished(*unit)) throw Wrong("it could not");
      return;
    }
    default:
      ask(step);
  }
}

void Run::hear_script() {
  const auto unit = unit_does({"hear", kMessagePort, std::to_string(kPatienceSeconds)});
  if (!finished(*unit)) throw Wrong("the unit heard nothing");
  script_ = unit->read_text();
  timeline_.says("unit", "hears a boot script of " + std::to_string(script_.size()) + " bytes:");
  std::istringstream lines(script_);
  for (std::string line; std::getline(lines, line);) {
    line.erase(std::remove_if(line.begin(), line.end(), [](char c) { return c == '\r' || c == '\0'; }),
               line.end());
    if (!line.empty()) timeline_.says("unit", "> " + line);
  }
}

void Run::hear_nothing(double seconds) {
  const auto unit = unit_does({"hear", kMessagePort, std::to_string(seconds)});
  if (finished(*unit)) throw Wrong("it heard " + unit->read_text());
  timeline_.says("unit", "hears nothing");
}

// "tftp ADDRESS NAME" loads a file; "inst ADDRESS" obeys the script that was loaded there.
void Run::obey_script(const std::string& script, const Step& options, int depth) {
  if (depth > kDeepestScript) throw Wrong("the scripts obey each other without an end");
  std::map<std::string, std::string> loaded;
  std::istringstream lines(script);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> words = split(line);
    if (words.size() == 3 && words[0] == "tftp") {
      read(words[2], options);
      loaded[words[1]] = words[2];
    } else if (words.size() == 2 && words[0] == "inst") {
      if (loaded.count(words[1]) == 0) throw Wrong("nothing was loaded to " + words[1]);
      timeline_.says("unit", "obeys " + loaded[words[1]]);
      obey_script(content(local(loaded[words[1]])), options, depth + 1);
    }
  }
}

void Run::read(const std::string& name, const Step& options) {
  const int tries = static_cast<int>(options.number_of("TRIES", 1));
  for (int attempt = 1; attempt <= tries; ++attempt) {
    begin_reading(name, options);
    if (ends_reading()) return;
  }
  throw Wrong(name + " was not read");
}

void Run::begin_reading(const std::string& name, const Step& options) {
  const auto option = [&](const char* word, const char* otherwise) {
    return options.has(word) ? options.text_of(word) : otherwise;
  };
  if (reading_.unit)
    throw Wrong(reading_.name + " is still being read; expected \"unit ends reading\" before");
  timeline_.says("unit", "reads " + name);
  reading_.name = name;
  reading_.since = epoch_seconds();
  reading_.unit = unit_does(
      {"read", kStationIp, kTftpPort, name, local(name), option("BLOCK", "512"), option("TIMEOUT", "5")});
}

// Whether the file has arrived. One that arrives otherwise than it is served is wrong whatever the step
// expects.
bool Run::ends_reading() {
  if (!reading_.unit) throw Wrong("nothing is read; expected \"unit begins reading\" before");
  double next_report = reading_.since + kProgressSeconds;
  const auto has_ended = [&] {
    report_progress(&next_report);
    return reading_.unit->end().has_value();
  };
  const bool arrived = until(kTransferSeconds, has_ended) && reading_.unit->end()->succeeded();
  reading_.unit.reset();
  if (arrived) {
    expect_whole();
  } else {
    timeline_.says("unit", "could not read " + reading_.name);
  }
  return arrived;
}

void Run::report_progress(double* next_report) {
  if (epoch_seconds() < *next_report) return;
  const std::string arrived = in_kib(size_of(local(reading_.name)));
  const std::string whole = in_kib(size_of(served(reading_.name)));
  timeline_.says("unit", "has " + arrived + " of " + whole + " KiB of " + reading_.name);
  *next_report += kProgressSeconds;
}

// A verdict is answered by an empty file.
void Run::expect_whole() const {
  const std::string& name = reading_.name;
  const double seconds = epoch_seconds() - reading_.since;
  const std::string arrived = content(local(name));
  const std::string expected = is_verdict(name) ? "" : content(served(name));
  if (arrived != expected) throw Wrong(name + " arrived, but not as it is served");
  const double bytes = static_cast<double>(arrived.size());
  const std::string rate =
      bytes < kBulkBytes ? "" : ", " + with_digits(bytes / seconds / kBulkBytes, 1) + " MiB/s";
  timeline_.says("unit", "has " + name + ", " + std::to_string(arrived.size()) + " bytes as served, in " +
                             with_digits(seconds, 3) + " s" + rate);
}

void Run::read_until_death(const Step& step) {
  begin_reading(step.text_of("NAME"), step);
  const auto has_enough = [&] { return size_of(local(reading_.name)) >= step.bytes(); };
  const auto has_ended = [&] { return reading_.unit->end().has_value(); };
  if (!until(kTransferSeconds, [&] { return has_enough() || has_ended(); }) || has_ended()) {
    throw Wrong("the transfer ended before");
  }
  reading_.unit.reset();
  timeline_.says("unit", "dies");
}

void Run::ask(const Step& step) {
  const bool in_vain = step.act == Act::kUnitAsksInVain;
  const std::string question = step.text_of("TEXT");
  const std::string patience = std::to_string(in_vain ? kVainSeconds : kPatienceSeconds);
  timeline_.says("unit", "asks " + question);
  const auto unit = unit_does({"ask", kStationIp, kMessagePort, question, patience});
  const bool answered = finished(*unit);
  const std::string answer = unit->read_text();
  timeline_.says("unit", answered ? "is told " + answer : "gets no answer");
  if (answered == in_vain || (answered && answer != step.text_of("REPLY"))) {
    throw Wrong(answered ? "it was told " + answer : "nobody answered");
  }
}

std::unique_ptr<Process> Run::unit_does(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {programs_.unit};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<Process>(command, [this] {
    network_->unit.enter();
    append_errors_to(folder_ + "/errors");
  });
}

bool Run::finished(Process& process) {
  return until(kTransferSeconds, [&] { return process.end().has_value(); }) && process.end()->succeeded();
}
