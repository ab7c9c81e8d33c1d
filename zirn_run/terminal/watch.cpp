#include "terminal/watch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string_view>
#include <system_error>

#include "frames/words.h"
#include "picture/picture.h"
#include "picture/words.h"
#include "record/gzip.h"
#include "record/reader.h"
#include "station/child.h"
#include "story/story.h"
#include "terminal/display.h"
#include "terminal/judgement.h"
#include "terminal/plain_lines.h"
#include "terminal/stream.h"
#include "terminal/told.h"

namespace terminal {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds kBetweenScreens{100};
constexpr unsigned kItemsBetweenLooks = 64;
constexpr Nanoseconds kFramesTake = 1000000000;  // from a link to us, at the most
constexpr std::array<int, 4> kEndingSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile std::sig_atomic_t signal_that_came = 0;

// While it is there, a signal that ends the process only says so; afterwards it does.
class HeldSignals {
 public:
  HeldSignals() {
    struct sigaction action = {};
    action.sa_handler = [](int number) { signal_that_came = number; };
    for (const int number : kEndingSignals) sigaction(number, &action, nullptr);
  }
  ~HeldSignals() {
    for (const int number : kEndingSignals) std::signal(number, SIG_DFL);
    if (signal_that_came != 0) std::raise(signal_that_came);
  }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;
};

Nanoseconds time_of(const record::Item& item) {
  if (const auto* const frame = std::get_if<record::Frame>(&item)) return frame->at;
  if (const auto* const entry = std::get_if<record::Entry>(&item)) return entry->at;
  return 0;
}

std::string pace_in_words(double speed) {
  if (speed == 1) return "at its own pace";
  return picture::decimal(speed, speed == std::floor(speed) ? 0 : 3) + " times as fast";
}

// A name that no file has yet.
std::string free_name(const std::string& stem, const std::string& ending) {
  std::string name = stem + ending;
  for (int i = 2; std::filesystem::exists(name); ++i)
    name = std::string(stem).append("-").append(std::to_string(i)).append(ending);
  return name;
}

// A file is unpacked; what comes through a pipe is taken as it comes.
const char* advice_for(std::string_view found) {
  return found.find("gzip") == std::string_view::npos ? "" : "; before the pipe, \"gzip -dc\" unpacks it";
}

// What the recorder says of its work while the terminal shows something else.
class Errors {
 public:
  Errors() : file_(memfd_create("errors", MFD_CLOEXEC)) {}
  ~Errors() {
    std::cerr << text() << std::flush;
    close(file_);
  }
  Errors(const Errors&) = delete;
  Errors& operator=(const Errors&) = delete;

  int descriptor() const { return file_; }
  // The last sentence, where there is a new one.
  std::string news() {
    const std::string all = text();
    if (all.size() == told_ || all.back() != '\n') return "";
    told_ = all.size();
    const std::size_t begin = all.rfind('\n', all.size() - 2);
    return all.substr(begin == std::string::npos ? 0 : begin + 1, all.size() - 1 - (begin + 1));
  }

 private:
  std::string text() const {
    struct stat about = {};
    fstat(file_, &about);
    std::string all(static_cast<std::size_t>(about.st_size), '\0');
    const ssize_t count = pread(file_, all.data(), all.size(), 0);
    all.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return all;
  }

  const int file_;
  std::size_t told_ = 0;
};

class Watch {
 public:
  explicit Watch(const Options& options)
      : options_(options),
        is_shown_(Display::is_possible()),
        view_(story_.reading()),
        lines_(story_.reading(), std::cout) {}

  void run();

 private:
  bool is_live() const { return !options_.recorder.empty(); }
  std::string name() const;
  void open();
  bool may_go_on() const { return !is_quit_ && signal_that_came == 0 && lines_.error() == 0; }
  bool wait(int descriptor);
  void wait_for_keys(milliseconds most);
  void rest_while_paused();
  void wait_for_its_time(Nanoseconds at);
  void take(const record::Item& item);
  void look();
  void draw();
  Heading heading() const;
  void press(Key key);
  std::string stem() const;
  void save();
  void save_picture();
  void show_end(const std::string& problem);

  const Options& options_;
  const bool is_shown_;
  std::unique_ptr<Errors> errors_;
  station::Child recorder_;
  std::unique_ptr<std::streambuf> bytes_;
  Stream* stream_ = nullptr;  // where these are one
  story::Story story_;
  View view_;
  Judgement judgement_;
  PlainLines lines_;
  std::unique_ptr<Display> display_;
  Clock::time_point drawn_;
  std::uint64_t drawn_revision_ = 0;
  std::optional<std::pair<Clock::time_point, Nanoseconds>> origin_;  // of a file that is played at its pace
  unsigned taken_ = 0;
  bool must_draw_ = true;
  bool is_paused_ = false;
  bool is_quit_ = false;
  bool has_ended_ = false;
};

void Watch::open() {
  int descriptor = STDIN_FILENO;
  if (is_live()) {
    if (is_shown_) errors_ = std::make_unique<Errors>();
    recorder_ = station::Child(options_.recorder, errors_ ? errors_->descriptor() : -1);
    descriptor = recorder_.descriptor();
  } else if (options_.file != "-") {
    if (!std::filesystem::is_fifo(options_.file)) {
      bytes_ = std::make_unique<record::UnpackedFile>(options_.file);
      return;
    }
    descriptor = ::open(options_.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category());
  }
  auto stream = std::make_unique<Stream>(descriptor, [this](int it) { return wait(it); });
  stream_ = stream.get();
  bytes_ = std::move(stream);
}

std::string Watch::name() const {
  if (is_live()) return frames::printable(options_.links);
  return options_.file == "-" ? "standard input" : frames::printable(options_.file);
}

void Watch::run() {
  std::optional<record::Reader> reader;
  std::optional<std::istream> file;
  try {
    open();
    reader.emplace(file.emplace(bytes_.get()));
  } catch (const std::system_error& error) {
    throw NotWatchable(name() + ": " + error.code().message());
  } catch (const record::NotARecord& error) {
    throw NotWatchable(is_live() ? "" : name() + ": " + error.what() + advice_for(error.what()));
  }
  std::optional<HeldSignals> signals;
  if (is_shown_) {
    signals.emplace();
    display_ = std::make_unique<Display>();
  }
  while (may_go_on()) {
    const auto item = reader->next();
    if (!item) break;
    take(*item);
  }
  if (may_go_on()) show_end(reader->problem());
  display_.reset();
  if (lines_.error() != 0)
    throw NotWatchable(std::string("standard output: ") + std::strerror(lines_.error()));
}

void Watch::take(const record::Item& item) {
  if (options_.speed) wait_for_its_time(time_of(item));
  if (is_paused_) rest_while_paused();
  story_.take(item);
  if (!display_) lines_.look();
  if (++taken_ % kItemsBetweenLooks == 0) look();
}

void Watch::wait_for_its_time(Nanoseconds at) {
  if (at == 0) return;
  if (!origin_) origin_.emplace(Clock::now(), at);
  const auto due = [&] {
    return origin_->first +
           nanoseconds(std::llround(static_cast<double>(at - origin_->second) / *options_.speed));
  };
  while (may_go_on() && Clock::now() < due()) {
    if (is_paused_) rest_while_paused();
    const auto left = std::chrono::duration_cast<milliseconds>(due() - Clock::now());
    wait_for_keys(std::clamp(left + milliseconds(1), milliseconds(0), kBetweenScreens));
  }
}

// What comes meanwhile is kept for later; a file's time stands still.
void Watch::rest_while_paused() {
  const Clock::time_point begin = Clock::now();
  bool keeps = stream_ != nullptr;
  while (is_paused_ && may_go_on()) {
    pollfd event = {keeps ? stream_->descriptor() : -1, POLLIN, 0};
    pollfd events[] = {{display_->descriptor(), POLLIN, 0}, event};
    poll(events, std::size(events), static_cast<int>(kBetweenScreens.count()));
    if (events[1].revents != 0) keeps = stream_->keep();
    look();
  }
  if (origin_) origin_->first += Clock::now() - begin;
}

bool Watch::wait(int descriptor) {
  while (may_go_on()) {
    look();
    pollfd events[] = {{descriptor, POLLIN, 0}, {display_ ? display_->descriptor() : -1, POLLIN, 0}};
    const int ready = poll(events, std::size(events), static_cast<int>(kBetweenScreens.count()));
    if (ready > 0 && events[0].revents != 0) return true;
  }
  return false;
}

void Watch::wait_for_keys(milliseconds most) {
  pollfd event = {display_ ? display_->descriptor() : -1, POLLIN, 0};
  poll(&event, 1, static_cast<int>(most.count()));
  look();
}

// Keys, and the screen when it is time.
void Watch::look() {
  if (is_live() && !has_ended_) {
    const nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
    if (story_.reading().first != 0) story_.pass_time(now.count() - kFramesTake);
  }
  const Clock::time_point now = Clock::now();
  if (!display_) {
    if ((stream_ != nullptr || options_.speed) && judgement_.look_at(story_.reading(), now))
      lines_.tell(judgement_);
    return;
  }
  while (const std::optional<Key> key = display_->key()) press(*key);
  const std::string error = errors_ ? errors_->news() : "";
  if (!error.empty()) view_.say(error);
  must_draw_ = must_draw_ || !error.empty() || judgement_.look_at(story_.reading(), now);
  if (must_draw_ || (now - drawn_ >= kBetweenScreens && drawn_revision_ != story_.reading().revision)) draw();
}

void Watch::draw() {
  view_.set_size(display_->lines(), display_->columns());
  view_.look();
  display_->draw(view_.screen(heading()));
  drawn_ = Clock::now();
  drawn_revision_ = story_.reading().revision;
  must_draw_ = false;
}

Heading Watch::heading() const {
  Heading heading;
  heading.title = "zirn-run watch  " + name();
  heading.state = has_ended_           ? "ended"
                  : is_paused_         ? "PAUSED"
                  : stream_ != nullptr ? "live"
                  : options_.speed     ? pace_in_words(*options_.speed)
                                       : "reading";
  heading.how_far = judgement_.how_far();
  picture::add_words(&heading.how_far, under_way(story_.reading()));
  heading.how_far_style = judgement_.style_of_how_far();
  heading.fault = judgement_.fault();
  return heading;
}

void Watch::press(Key key) {
  must_draw_ = true;
  switch (view_.press(key)) {
    case View::Wish::kNothing:
      break;
    case View::Wish::kPause:
      is_paused_ = !is_paused_ && !has_ended_;
      break;
    case View::Wish::kSave:
      save();
      break;
    case View::Wish::kDraw:
      save_picture();
      break;
    case View::Wish::kQuit:
      is_quit_ = true;
      break;
  }
}

// Of the names of what is saved: that of the file, or when the run began.
std::string Watch::stem() const {
  if (!is_live() && options_.file != "-") return std::filesystem::path(options_.file).stem().string();
  const auto seconds = static_cast<std::time_t>(story_.reading().first / 1000000000);
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  std::array<char, 40> text = {};
  std::strftime(text.data(), text.size(), "run-%Y%m%dT%H%M%SZ", &parts);
  return text.data();
}

void Watch::save() {
  if (stream_ == nullptr) return view_.say("the record is " + frames::printable(options_.file) + " already");
  try {
    const std::string name = free_name(stem(), ".pcapng");
    stream_->save(name);
    view_.say("saved: " + frames::printable(name));
  } catch (const std::system_error& error) {
    view_.say(std::string("not saved: ") + error.what());
  }
}

void Watch::save_picture() {
  const std::string name = free_name(stem(), ".svg");
  std::ofstream file(name, std::ios::binary);
  const bool is_written = static_cast<bool>(file << picture::picture_of(story_.reading()) << std::flush);
  view_.say((is_written ? "drawn: " : "not drawn: ") + frames::printable(name) +
            (is_written ? "" : std::string(": ") + std::strerror(errno)));
}

// problem: why the record ends before its end; empty: it does not.
void Watch::show_end(const std::string& problem) {
  story_.finish(!problem.empty());
  has_ended_ = true;
  is_paused_ = false;
  judgement_.judge(story_.reading());
  if (!display_) {
    lines_.finish(judgement_);
    if (!problem.empty()) std::cerr << "zirn-run: " << name() << ": " << problem << std::endl;
    return;
  }
  if (!problem.empty()) view_.say(name() + ": " + problem);
  must_draw_ = true;
  look();
  while (may_go_on()) wait_for_keys(kBetweenScreens);
}

}  // namespace

void watch(const Options& options) {
  Watch(options).run();
}

}  // namespace terminal
