#include "explanation/text.h"

#include <cstdio>
#include <ctime>

#include "frames/words.h"

namespace explanation {

namespace {

constexpr std::size_t kMostListed = 20;  // reads, or steps

std::string line(const std::string& text) {
  return "  " + text + "\n";
}

std::string time_of_day(Nanoseconds at) {
  const auto seconds = static_cast<std::time_t>(at / 1000000000);
  std::tm parts = {};
  localtime_r(&seconds, &parts);
  char text[40];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
}

std::string duration(Nanoseconds time) {
  char text[40];
  std::snprintf(text, sizeof text, time < 10000000000 ? "%.1f s" : "%.0f s", static_cast<double>(time) / 1e9);
  return text;
}

std::string in_capitals(Outcome outcome) {
  switch (outcome) {
    case Outcome::kPassed:
      return "PASSED";
    case Outcome::kFailed:
      return "FAILED";
    case Outcome::kNone:
      break;
  }
  return "no verdict";
}

std::string numbers(const Numbers& numbers, const std::string& thing) {
  if (numbers.count == 0) return "";
  if (numbers.first == numbers.last) return thing + " " + std::to_string(numbers.first);
  return thing + "s " + std::to_string(numbers.first) + (numbers.count == 2 ? " and " : " to ") +
         std::to_string(numbers.last);
}

std::string in_words(const Evidence& evidence) {
  std::string text = numbers(evidence.frames, "frame");
  const std::string lines = numbers(evidence.lines, "line");
  if (!text.empty() && !lines.empty()) text += ", ";
  text += lines;
  if (evidence.is_inferred) text += text.empty() ? "inferred" : "; inferred";
  return text.empty() ? "" : " (" + text + ")";
}

std::string statements(const Claim& claim) {
  std::string text;
  for (const Statement& statement : claim.statements) {
    std::string sentence = statement.sentence;
    if (!sentence.empty() && sentence[0] >= 'a' && sentence[0] <= 'z') sentence[0] -= 'a' - 'A';
    text += line(sentence + in_words(statement.evidence) + ".");
  }
  if (claim.left_out > 0) text += line("And " + std::to_string(claim.left_out) + " more of the kind.");
  return text;
}

std::string also(const Claim& claim) {
  const std::uint64_t count = claim.statements.size() + claim.left_out;
  std::string text = "Also seen, " + std::string(words_for(claim.cause->owner)) + " (" +
                     std::string(claim.cause->id) + "): ";
  for (std::size_t i = 0; i < (count == 2 ? 2 : 1); ++i) {
    const Statement& statement = claim.statements[i];
    text += (i > 0 ? "; " : "") + statement.sentence + in_words(statement.evidence);
  }
  return line(text + (count > 2 ? ", and " + std::to_string(count - 1) + " more" : ""));
}

std::string about(const Read& read) {
  std::string text = "Read: " + read.file;
  if (read.bytes) {
    char rate[80];
    std::snprintf(rate, sizeof rate, " in %.2f s", *read.seconds);
    text += ", " + frames::counted(*read.bytes, "byte") + " in " + frames::counted(*read.blocks, "block") +
            " of " + std::to_string(*read.block_size) + rate;
    if (*read.repeated > 0) text += ", " + frames::counted(*read.repeated, "block") + " sent again";
  }
  if (read.finished && !*read.finished) text += read.bytes ? "; it was not finished" : "; nothing of it came";
  return line(text);
}

std::string steps(const Explanation& explanation) {
  std::string text;
  std::size_t listed = 0;
  for (const Step& step : explanation.steps) {
    if (++listed > kMostListed) break;
    const char* const result = step.result == Step::Result::kPassed   ? " passed"
                               : step.result == Step::Result::kFailed ? " FAILED"
                                                                      : " reported";
    text += (text.empty() ? "" : ", ") + step.name + result;
  }
  if (explanation.steps.size() > kMostListed) {
    text += ", and " + std::to_string(explanation.steps.size() - kMostListed) + " more";
  }
  return text.empty() ? "" : line("Steps: " + text);
}

std::string facts(const Explanation& explanation) {
  std::string text;
  if (explanation.exit) text += line("Exit status: " + explanation.exit->meaning);
  for (const Unit& unit : explanation.units) {
    text += line("Unit: " + unit.address + (unit.mac.empty() ? "" : ", " + unit.mac));
  }
  std::size_t listed = 0;
  for (const Read& read : explanation.reads) {
    if (++listed > kMostListed) break;
    text += about(read);
  }
  if (explanation.reads.size() > kMostListed) {
    text += line("And " + std::to_string(explanation.reads.size() - kMostListed) + " reads more.");
  }
  text += steps(explanation);
  for (const std::string& lacking : explanation.incomplete) text += line("The record lacks: " + lacking);
  return text;
}

}  // namespace

std::string_view name_of(Outcome outcome) {
  return outcome == Outcome::kPassed ? "passed" : outcome == Outcome::kFailed ? "failed" : "none";
}

std::string in_utc(Nanoseconds at) {
  const auto seconds = static_cast<std::time_t>(at / 1000000000);
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  char text[40];
  const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  char fraction[20];
  std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>(at / 1000000 % 1000));
  return std::string(text, size) + fraction;
}

std::string text_of(const Explanation& explanation, const std::string& name) {
  const Cause& cause = *explanation.fault.cause;
  std::string text = explanation.name.empty() ? frames::printable(name) : explanation.name;
  if (explanation.start)
    text += "  " + time_of_day(*explanation.start) + "  " + duration(explanation.duration);
  text += "  " + in_capitals(explanation.verdict) + "\n";
  text += line("Fault: " + std::string(words_for(cause.owner)) +
               (cause.owner == Owner::kNone ? "" : " (" + std::string(cause.id) + ")"));
  if (cause.owner != Owner::kNone) text += line(explanation.fault.meaning);
  text += statements(explanation.fault);
  if (!explanation.fault.advice.empty()) text += line("What to do: " + explanation.fault.advice);
  for (const Claim& claim : explanation.also) text += also(claim);
  return text + facts(explanation);
}

std::string text_of_causes() {
  std::string text;
  for (const Cause& cause : causes()) {
    text += std::string(cause.id) + "  " + std::string(words_for(cause.owner)) + "\n" +
            line(filled(cause.meaning));
    if (!cause.advice.empty()) text += line(filled(cause.advice));
  }
  return text;
}

}  // namespace explanation
