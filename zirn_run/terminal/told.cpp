#include "terminal/told.h"

#include <algorithm>

#include "frames/words.h"
#include "picture/row.h"
#include "picture/telling.h"
#include "picture/words.h"
#include "story/track.h"

namespace terminal {

namespace {

using picture::add_words;
using story::Connection;
using story::kNone;
using story::Reading;
using story::Step;
using story::Transfer;

constexpr Nanoseconds kSilence = 1000000000;  // that is worth a word
constexpr std::size_t kMostDetails = 200;
constexpr std::size_t kMostUnderWay = 3;
constexpr std::size_t kLookedBack = 64;  // transfers

bool is_under_way(const Reading& reading, const Transfer& transfer) {
  return transfer.end == Transfer::End::kOpen && !reading.has_ended && transfer.second_answer_of == kNone;
}

// Bytes of the file; 0: nobody said.
std::size_t size_of_file(const Transfer& transfer) {
  const std::size_t size = story::number_of(transfer.acknowledged, "tsize");
  return size > 0 ? size : story::number_of(transfer.asked, "tsize");
}

std::optional<double> fraction_of(const Transfer& transfer) {
  const std::size_t size = size_of_file(transfer);
  if (size == 0) return std::nullopt;
  return std::min(static_cast<double>(transfer.bytes) / static_cast<double>(size), 1.0);
}

std::string percent(double fraction) {
  return std::to_string(static_cast<int>(fraction * 100)) + " %";
}

std::string silence(const Reading& reading, const Transfer& transfer) {
  const Nanoseconds since = reading.last - transfer.until;
  if (since < kSilence) return "";
  return (transfer.answered ? "silent for " : "no answer for ") + picture::seconds(since, 0) + " s";
}

// Bytes a second.
double rate_of(const Reading& reading, const Transfer& transfer) {
  const double seconds = static_cast<double>(reading.last - transfer.data_from) / 1e9;
  return seconds > 0 ? static_cast<double>(transfer.bytes) / seconds : 0;
}

// "1.1 s left", or for how long there is silence.
std::string time_left(const Reading& reading, const Transfer& transfer) {
  std::string silent = silence(reading, transfer);
  const double rate = rate_of(reading, transfer);
  const std::size_t size = size_of_file(transfer);
  if (!silent.empty() || rate <= 0 || size <= transfer.bytes) return silent;
  return picture::decimal(static_cast<double>(size - transfer.bytes) / rate, 1) + " s left";
}

std::string progress(const Reading& reading, const Transfer& transfer) {
  std::string text = transfer.name.empty() ? "a transfer" : frames::printable(transfer.name);
  add_words(&text, time_left(reading, transfer));
  const std::uint64_t lost = transfer.data.lost + transfer.acks.lost;
  const std::uint64_t again = transfer.data.again + transfer.acks.again;
  if (lost > 0) add_words(&text, std::to_string(lost) + " lost");
  if (again > 0) add_words(&text, std::to_string(again) + " sent again");
  const double rate = rate_of(reading, transfer);
  if (rate > 0) add_words(&text, picture::size_in_words(rate) + "/s");
  const std::size_t size = size_of_file(transfer);
  const std::string of_all = size > 0 ? " of " + picture::size_in_words(static_cast<double>(size)) : "";
  add_words(&text, picture::size_in_words(static_cast<double>(transfer.bytes)) + of_all);
  return text;
}

Style style_of(const Reading& reading, const Transfer& transfer) {
  const bool is_query = transfer.client == story::kStation;
  if (transfer.verdict != kNone && !is_query) {
    switch (reading.verdicts[transfer.verdict].says) {
      case story::Verdict::Says::kPassed:
        return Style::kPassed;
      case story::Verdict::Says::kFailed:
      case story::Verdict::Says::kStepFailed:
        return Style::kFailed;
      case story::Verdict::Says::kStep:
        return Style::kVerdict;
    }
  }
  const bool is_bad = transfer.end == Transfer::End::kError || transfer.end == Transfer::End::kUnanswered ||
                      transfer.end == Transfer::End::kAbandoned;
  return is_bad && transfer.second_answer_of == kNone ? Style::kFailed : Style::kPlain;
}

void tell(const Reading& reading, const Transfer& transfer, Told* told) {
  told->is_bulk = transfer.blocks > 0 && transfer.bytes > 0;
  const bool to_client = told->is_bulk && transfer.kind != Transfer::Kind::kWrite;
  told->source = to_client ? transfer.server : transfer.client;
  told->target = to_client ? transfer.client : transfer.server;
  told->style = style_of(reading, transfer);
  const bool goes_on = is_under_way(reading, transfer);
  if (goes_on && told->is_bulk) {
    told->text = progress(reading, transfer);
    told->fraction = fraction_of(transfer);
    return;
  }
  Transfer brief = transfer;
  brief.asked.clear();  // that is in the details
  told->text = picture::in_short(reading, brief);
  if (transfer.requests > 1) add_words(&told->text, "asked " + std::to_string(transfer.requests) + " times");
  if (goes_on) add_words(&told->text, silence(reading, transfer));
}

void tell(const Reading& reading, const Connection& connection, Told* told) {
  told->source = connection.client;
  told->target = connection.server;
  told->text = picture::opening_in_words(connection, true);
  add_words(&told->text, picture::closing_in_words(reading, connection, false));
  const bool is_bad =
      connection.state == Connection::State::kRefused || connection.state == Connection::State::kBrokenOff;
  if (is_bad) told->style = Style::kFailed;
}

void tell(const Reading& reading, const Step& step, Told* told) {
  told->text = picture::step_in_words(reading, step);
  if (step.count > 1 && step.kind != Step::Kind::kDrops)
    add_words(&told->text, std::to_string(step.count) + " times");
  if (step.lost > 0) add_words(&told->text, std::to_string(step.lost) + " lost");
  if (step.kind == Step::Kind::kDrops || step.kind == Step::Kind::kCut) told->style = Style::kFailed;
}

Told told_of_step(const Reading& reading, const Step& step) {
  Told told;
  told.at = step.from;
  told.source = step.source;
  told.target = step.target;
  if (step.thread != kNone && picture::is_of_transfer(step.kind)) {
    tell(reading, reading.transfers[step.thread], &told);
  } else if (step.thread != kNone && picture::is_of_connection(step.kind)) {
    tell(reading, reading.connections[step.thread], &told);
  } else {
    tell(reading, step, &told);
  }
  return told;
}

// "frames 12 to 40"
std::string in_words(const frames::Numbers& numbers, const std::string& thing) {
  if (numbers.count == 0) return "";
  if (numbers.first == numbers.last) return thing + " " + std::to_string(numbers.first);
  return thing + "s " + std::to_string(numbers.first) + " to " + std::to_string(numbers.last);
}

std::string detail(const Reading& reading, const Step& step) {
  Told told;
  told.source = step.source;
  told.target = step.target;
  std::string text = time_in_words(reading, step.from) + "  " + who(reading, told) + ": ";
  text += picture::step_in_words(reading, step);
  if (step.count > 1 && step.kind != Step::Kind::kBlocks)
    add_words(&text, std::to_string(step.count) + " times");
  return text;
}

}  // namespace

Told told(const Reading& reading, const Row& row) {
  if (!row.is_gap) return told_of_step(reading, reading.steps[row.place]);
  Told told;
  told.at = reading.gaps[row.place].at;
  told.text = frames::printable(reading.gaps[row.place].text);
  told.style = Style::kFailed;
  return told;
}

std::vector<std::string> details(const Reading& reading, const Row& row) {
  if (row.is_gap) return {in_words(reading.gaps[row.place].lines, "line")};
  const Step& first = reading.steps[row.place];
  const bool is_of_transfer = picture::is_of_transfer(first.kind);
  const bool is_thread = first.thread != kNone && (is_of_transfer || picture::is_of_connection(first.kind));
  std::vector<std::string> lines;
  frames::Numbers of_frames;
  frames::Numbers of_lines;
  for (std::size_t i = row.place; i < reading.steps.size() && lines.size() < kMostDetails; ++i) {
    const Step& step = reading.steps[i];
    const bool is_same =
        is_thread && step.thread == first.thread &&
        (is_of_transfer ? picture::is_of_transfer(step.kind) : picture::is_of_connection(step.kind));
    if (i != row.place && !is_same) {
      if (is_thread) continue;
      break;
    }
    lines.push_back(detail(reading, step));
    of_frames.add(step.frames);
    of_lines.add(step.lines);
    if (step.kind != Step::Kind::kBlocks || step.thread == kNone) continue;
    for (const std::string& fact : picture::facts_of(reading, reading.transfers[step.thread]))
      lines.push_back(std::string(kTimeColumns + 2, ' ') + fact);
  }
  std::string numbers = in_words(of_frames, "frame");
  add_words(&numbers, in_words(of_lines, "line"));
  if (!numbers.empty()) lines.push_back(std::string(kTimeColumns + 2, ' ') + numbers);
  return lines;
}

std::string short_name(const Reading& reading, std::size_t party) {
  const std::string name = picture::name_of(reading, party);
  constexpr std::string_view kThe = "the ";
  return name.rfind(kThe, 0) == 0 ? name.substr(kThe.size()) : name;
}

std::string who(const Reading& reading, const Told& told) {
  if (told.source == kNone) return told.target == kNone ? "" : short_name(reading, told.target);
  const std::string from = short_name(reading, told.source);
  return told.target == kNone ? from : from + " > " + short_name(reading, told.target);
}

std::string time_in_words(const Reading& reading, Nanoseconds at) {
  const std::string text = picture::seconds(at - reading.first, 3);
  return std::string(kTimeColumns - std::min(kTimeColumns, text.size()), ' ') + text;
}

std::string under_way(const Reading& reading) {
  std::string text;
  std::size_t told = 0;
  const std::size_t count = reading.transfers.size();
  for (std::size_t i = count; i > count - std::min(count, kLookedBack) && told < kMostUnderWay; --i) {
    const Transfer& transfer = reading.transfers[i - 1];
    if (!is_under_way(reading, transfer)) continue;
    ++told;
    const std::optional<double> fraction = fraction_of(transfer);
    const std::string verb = transfer.kind == Transfer::Kind::kWrite ? " writes " : " reads ";
    add_words(&text, short_name(reading, transfer.client) + verb +
                         (transfer.name.empty() ? "a file" : frames::printable(transfer.name)) +
                         (fraction ? ": " + percent(*fraction) : ""));
    add_words(&text, time_left(reading, transfer));
  }
  return text;
}

}  // namespace terminal
