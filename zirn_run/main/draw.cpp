#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "comparison/comparison.h"
#include "frames/packet.h"
#include "frames/words.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/number.h"
#include "main/run_options.h"
#include "picture/picture.h"

namespace {

struct Options {
  std::shared_ptr<run_files::Files> files;
  std::string beside;  // another run's record; empty: none
  std::string output = "-";
  std::optional<double> from;   // seconds
  std::optional<double> until;  // the same
  std::string unit;
  bool folds = false;
  bool unfolds = false;
};

std::optional<record::Nanoseconds> nanoseconds(const std::optional<double>& seconds) {
  if (!seconds) return std::nullopt;
  return std::llround(*seconds * 1e9);
}

picture::Choice choice_of(const Options& options) {
  using Folding = picture::Choice::Folding;
  picture::Choice choice;
  choice.from = nanoseconds(options.from);
  choice.until = nanoseconds(options.until);
  if (!options.unit.empty()) choice.unit = frames::address_in(options.unit);
  choice.folding = options.folds ? Folding::kFold : options.unfolds ? Folding::kUnfold : Folding::kAsItFits;
  return choice;
}

// Throws NotPossible where the picture would take the place of what it is made of.
void check_output(const Options& options) {
  const run_files::Files& files = *options.files;
  for (const std::string& input :
       {files.record, files.journal.value_or("-"), files.log.value_or("-"), options.beside}) {
    std::error_code none;
    if (std::filesystem::equivalent(input, options.output, none) &&
        std::filesystem::is_regular_file(input, none))
      throw NotPossible(frames::printable(options.output) +
                        ": expected a file for the picture, found what is to be drawn");
  }
}

void write(const std::string& text, const std::string& name) {
  std::ofstream file;
  if (name != "-") file.open(name, std::ios::binary | std::ios::trunc);
  std::ostream& out = name == "-" ? std::cout : file;
  if (!(out << text << std::flush))
    throw NotPossible((name == "-" ? "standard output" : frames::printable(name)) + ": " +
                      std::strerror(errno));
}

picture::Side side_of(const story::Reading& reading, const Options& options, const std::string& file) {
  picture::Side side = {reading, choice_of(options)};
  side.choice.heading = file == "-" ? "standard input" : frames::printable(file);
  return side;
}

// Where the two sentences begin to differ: the word.
std::size_t common_words(const comparison::Difference& found) {
  if (!found.first || !found.other) return 0;
  const std::string &one = found.first->sentence, &other = found.other->sentence;
  const std::size_t most = std::min(one.size(), other.size());
  const auto end = std::mismatch(one.begin(), one.begin() + static_cast<std::ptrdiff_t>(most), other.begin());
  const std::size_t blank = one.rfind(' ', static_cast<std::size_t>(end.first - one.begin()));
  return blank == std::string::npos ? 0 : std::min(blank + 1, most);
}

// event: nothing: the run has not what the other one has. The row itself says the common words.
void mark(const std::optional<comparison::Event>& event, std::size_t step, std::size_t common,
          picture::Side* side) {
  const auto& order = side->reading.order;
  if (step == story::kNone && order.empty()) return;
  const std::string words =
      event ? (common > 0 ? "... " : "") + event->sentence.substr(common) : "nothing of the kind here";
  side->choice.remark = {step == story::kNone ? order.front() : step, "the first difference: " + words};
}

std::string both_drawn(const story::Reading& reading, const Options& options) {
  story::Story story;
  tell_run({options.beside, std::nullopt, std::nullopt}, &story);
  picture::Side left = side_of(reading, options, options.files->record);
  picture::Side right = side_of(story.reading(), options, options.beside);
  if (const auto found = comparison::first_difference(left.reading, right.reading)) {
    const std::size_t common = common_words(*found);
    mark(found->first, found->first_step, common, &left);
    mark(found->other, found->other_step, common, &right);
  }
  return picture_of(left, right);
}

int draw(const Options& options) {
  check_output(options);
  story::Story story;
  tell_run(*options.files, &story);
  write(options.beside.empty() ? picture::picture_of(story.reading(), choice_of(options))
                               : both_drawn(story.reading(), options),
        options.output);
  return kDone;
}

std::string wrong_in_address(const std::string& text) {
  return frames::address_in(text) ? "" : "expected an address as 172.40.0.2, found " + text;
}

}  // namespace

Work draw_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  constexpr double kLongest = 1e9;  // seconds
  options->files = add_run_options(app);
  app.add_option("-o,--output", options->output, "The picture; without it, standard output")
      ->type_name("SVG");
  app.add_option("--beside", options->beside,
                 "Another run's record, to be drawn on the right; the first difference is marked in both")
      ->type_name("FILE");
  const char* const kSeconds = "SECONDS";
  app.add_option("--from", options->from, "Only what is later than so long after the run's first moment")
      ->type_name(kSeconds)
      ->check(number_in(0, kLongest));
  app.add_option("--until", options->until, "Only what is earlier than that")
      ->type_name(kSeconds)
      ->check(number_in(0, kLongest));
  app.add_option("--unit", options->unit, "Only the unit with this address")
      ->type_name("ADDRESS")
      ->check(wrong_in_address);
  CLI::Option* const fold = app.add_flag("--fold", options->folds, "Fold as much as possible");
  app.add_flag("--unfold", options->unfolds, "Fold nothing")->excludes(fold);
  return [options] { return draw(*options); };
}
