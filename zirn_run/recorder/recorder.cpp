#include "recorder/recorder.h"

#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <list>
#include <memory>
#include <system_error>
#include <thread>

#include "record/run_entry.h"
#include "record/writer.h"
#include "recorder/clock.h"
#include "recorder/file.h"
#include "recorder/held.h"
#include "recorder/lines.h"
#include "recorder/link.h"
#include "recorder/runs.h"
#include "recorder/station.h"

namespace recorder {

namespace {

constexpr int kWrongCall = 2;
constexpr int kUnusable = 3;

constexpr std::size_t kRingBytes = std::size_t{1536} << 10;  // of all links
constexpr std::size_t kBlockBytes = std::size_t{256} << 10;
constexpr std::size_t kFramesAtOnce = 1024;
constexpr std::size_t kRunsKept = 200;

// How long a frame or a line may be on its way to us.
constexpr record::Nanoseconds kFramesTake = 100 * kMillisecond;
constexpr record::Nanoseconds kLinesTake = 500 * kMillisecond;
constexpr record::Nanoseconds kFlushTime = 100 * kMillisecond;
constexpr record::Nanoseconds kAfterTheEnd = kSecond;
constexpr record::Nanoseconds kStationStops = 12 * kSecond;  // it is killed after ten
constexpr int kTickMilliseconds = 50;

// What systemd says of a unit (systemd.journal-fields(7), sd-messages.h).
constexpr char kUnitStarting[] = "7d4958e842da4a678f6c1cdc7b36dcc5";
constexpr char kUnitStopping[] = "de5b426a63be47a7b6ac3eaac82e2f6f";
constexpr std::array<std::string_view, 2> kUnitEnded = {"7ad2d189f7e94e70a38c781354912448",   // well
                                                        "d9b373ed55a64feb8242e02dbe79a49c"};  // badly

struct WrongCall : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct Unusable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void say(const std::string& text) {
  std::cerr << "zirn-run: " << text << std::endl;
}

// SIGINT and SIGTERM, to be waited for with all else.
class Signals {
 public:
  Signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    descriptor_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  }
  ~Signals() { close(descriptor_); }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  int descriptor() const { return descriptor_; }
  bool came() const {
    signalfd_siginfo signal = {};
    return read(descriptor_, &signal, sizeof signal) > 0;
  }

 private:
  int descriptor_;
};

// Tells systemd, where it has started us.
void notify_ready() {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address = {};
  if (name == nullptr || std::strlen(name) >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, name);
  if (*name == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name));
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  constexpr std::string_view kReady = "READY=1";
  sendto(descriptor, kReady.data(), kReady.size(), 0, reinterpret_cast<const sockaddr*>(&address), size);
  close(descriptor);
}

record::Maker this_machine() {
  utsname name = {};
  uname(&name);
  record::Maker maker;
  maker.hardware = name.machine;
  maker.os = std::string(name.sysname) + " " + name.release;
  return maker;
}

std::string joined(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

std::string links_that_are_there() {
  Words names;
  struct if_nameindex* const all = if_nameindex();
  for (const struct if_nameindex* it = all; it != nullptr && it->if_index != 0; ++it)
    names.emplace_back(it->if_name);
  if_freenameindex(all);
  return joined(names);
}

// The exit status that unit and init script keep of the last run; systemd has none of a run that ended well.
std::optional<int> kept_status(const std::string& unit) {
  std::ifstream file("/run/" + unit.substr(0, unit.rfind(".service")) + "/exit_status");
  int status = 0;
  return file >> status ? std::optional<int>(status) : std::nullopt;
}

// The end of a process, to be waited for with all else.
class Process {
 public:
  explicit Process(pid_t pid)
      : descriptor_(pid == 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {
    is_gone_ = pid != 0 && descriptor_ < 0;
  }
  ~Process() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  int descriptor() const { return descriptor_; }
  bool has_ended() const {
    pollfd event = {descriptor_, POLLIN, 0};
    return is_gone_ || poll(&event, 1, 0) > 0;
  }

 private:
  int descriptor_;
  bool is_gone_ = false;
};

class Recording {
 public:
  // Lines from then on.
  Recording(const Options& options, const std::string& file_name, record::Nanoseconds since);

  // Until the end. False: it could not all be written.
  bool run();
  // Whether anything came.
  bool has_anything() const { return held_.frames() > 0 || has_lines_; }
  // When the station began another run behind this one.
  std::optional<record::Nanoseconds> next_run() const { return next_run_; }
  RecordFile& file() { return file_; }

 private:
  struct Source {
    Link link;
    std::optional<std::uint32_t> interface;  // in the record, since it was first there
  };

  void begin();
  void open_links();
  bool open(Source* source);
  void look_at_links();
  void tell_gap(const std::string& text) { held_.add(entry_of(record::Gap{text}, now())); }
  void wait();
  void receive();
  std::size_t receive(Source* source);
  void take(const record::Entry& entry);
  void look_at_process();
  void end_by(record::Nanoseconds at) { ends_at_ = at; }
  void station_ended(record::Nanoseconds at, std::optional<int> status);
  void stop_wanted();
  void write();
  void flush();
  void show_progress();
  void finish();

  const Options& options_;
  const Signals signals_;
  RecordFile file_;
  std::ostream stream_{&file_};
  record::Writer writer_{stream_, this_machine()};
  Held held_{&writer_};
  const Words station_options_;
  const Filter filter_;
  record::RunBegins run_;
  LinkNews news_;
  std::list<Source> sources_;
  std::unique_ptr<Lines> lines_;
  const record::Nanoseconds since_;
  const Process station_;
  std::string unit_;  // with its ending
  record::Nanoseconds ends_at_ = std::numeric_limits<record::Nanoseconds>::max();
  record::Nanoseconds flushed_ = 0;
  record::Nanoseconds shown_ = 0;
  std::optional<record::Nanoseconds> next_run_;
  bool is_stop_wanted_ = false;
  bool is_stopping_ = false;  // the station
  bool has_ended_ = false;    // the station
  bool has_lines_ = false;
  bool is_full_ = false;
};

Filter filter_of(const Options& options, const Words& station_options) {
  Station station = station_of(station_options);
  if (station_options.empty() && !options.station && options.unit.empty()) station.address.clear();
  Filter filter;
  filter.is_whole = options.is_whole;
  filter.whole_ports = ports_without_files(station);
  filter.expression =
      options.filter.empty() ? expression_for(station, addresses_of(options.links)) : options.filter;
  return filter;
}

Recording::Recording(const Options& options, const std::string& file_name, record::Nanoseconds since)
    : options_(options),
      file_(file_name, signals_.descriptor()),
      station_options_(options.station        ? *options.station
                       : options.unit.empty() ? Words()
                                              : options_of_unit(options.unit)),
      filter_(filter_of(options, station_options_)),
      since_(since),
      station_(options.pid) {
  if (!options.unit.empty())
    unit_ = options.unit.find('.') == std::string::npos ? options.unit + ".service" : options.unit;
  run_.name = std::filesystem::path(file_name).stem().string();
  if (!station_options_.empty()) run_.command = "TFTP " + joined(station_options_);
}

void Recording::begin() {
  try {
    held_.add(entry_of(run_, since_));
    if (now() - since_ > kFramesTake) tell_gap("frames before here are in the record of the run before");
    open_links();
    if (!unit_.empty()) lines_ = std::make_unique<Journal>(unit_, since_);
    if (!options_.log.empty()) lines_ = std::make_unique<Log>(options_.log, options_.is_service);
  } catch (...) {
    file_.discard();
    throw;
  }
}

void Recording::open_links() {
  const std::size_t blocks = std::max<std::size_t>(kRingBytes / kBlockBytes / options_.links.size(), 2);
  bool has_one = false;
  for (const std::string& name : options_.links) {
    Source& source = sources_.emplace_back(Source{Link(name, blocks * kBlockBytes), std::nullopt});
    if (open(&source)) {
      has_one = true;
      continue;
    }
    const std::string problem = name + ": " + source.link.problem();
    if (source.link.lacks_right()) throw Unusable(problem);
    say(problem + "; there are: " + links_that_are_there());
    tell_gap("frames are missing: " + problem);
  }
  if (!has_one) throw Unusable("expected a link that can be recorded");
}

bool Recording::open(Source* source) {
  if (!source->link.open(filter_)) return false;
  if (!source->interface)
    source->interface =
        writer_.add(record::Interface{source->link.name(), filter_.expression, source->link.link_type(), 0});
  return true;
}

void Recording::look_at_links() {
  for (Source& source : sources_) {
    if (source.link.is_open() && !source.link.is_there()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2 * Link::kBlockMilliseconds));  // the last block
      while (receive(&source) > 0) continue;
      source.link.close();
      tell_gap("frames are missing from here on: " + source.link.name() + " is gone or down");
    } else if (!source.link.is_open() && open(&source)) {
      tell_gap("frames are no longer missing: " + source.link.name() + " is back");
    }
  }
}

bool Recording::run() {
  begin();
  notify_ready();
  while (now() < ends_at_) {
    wait();
    receive();
    write();
    show_progress();
  }
  finish();
  return !is_full_;
}

void Recording::wait() {
  std::vector<pollfd> events = {{signals_.descriptor(), POLLIN, 0}, {news_.descriptor(), POLLIN, 0}};
  if (!has_ended_) events.push_back({station_.descriptor(), POLLIN, 0});
  if (lines_) events.push_back({lines_->descriptor(), POLLIN, 0});
  for (const Source& source : sources_) events.push_back({source.link.descriptor(), POLLIN, 0});
  poll(events.data(), events.size(), kTickMilliseconds);
  if (signals_.came()) stop_wanted();
  if (is_full_) return;
  if (events[1].revents != 0) {
    news_.clear();
    look_at_links();
  }
}

void Recording::receive() {
  for (Source& source : sources_) receive(&source);
  if (lines_) lines_->receive([this](const record::Entry& entry) { take(entry); });
  look_at_process();
  if (has_ended_ && lines_ && lines_->are_put_away()) end_by(now());
}

std::size_t Recording::receive(Source* source) {
  const std::uint32_t interface = source->interface.value_or(0);
  return source->link.receive(kFramesAtOnce,
                              [&](record::Nanoseconds at, std::string_view bytes, std::uint32_t size) {
                                held_.add(interface, at, bytes, size);
                              });
}

void Recording::take(const record::Entry& entry) {
  held_.add(entry);
  has_lines_ = true;
  if (unit_.empty() || entry.value("UNIT") != unit_) return;
  const std::string_view message = entry.value("MESSAGE_ID");
  if (message == kUnitStarting && has_ended_ && !is_stop_wanted_) {
    next_run_ = entry.at;
    end_by(now());
  }
  if (message == kUnitStopping) is_stopping_ = true;
  if (message == kUnitStopping && is_stop_wanted_) end_by(now() + kStationStops);
  if (std::find(kUnitEnded.begin(), kUnitEnded.end(), message) == kUnitEnded.end()) return;
  const bool is_well = message == kUnitEnded[0];
  station_ended(entry.at, is_well ? kept_status(unit_) : std::nullopt);
}

void Recording::look_at_process() {
  if (has_ended_ || !station_.has_ended()) return;
  const std::optional<int> status =
      options_.is_service ? kept_status("zirn-test-station.service") : std::nullopt;
  held_.add(entry_of(record::StationEnds{status, 0}, now()));
  station_ended(now(), std::nullopt);
}

void Recording::station_ended(record::Nanoseconds at, std::optional<int> status) {
  if (status) held_.add(entry_of(record::StationEnds{status, 0}, at));
  has_ended_ = true;
  end_by(now() + kAfterTheEnd);
}

// A station that is being stopped is waited for. By hand, twice is at once.
void Recording::stop_wanted() {
  const bool is_again = is_stop_wanted_;
  is_stop_wanted_ = true;
  if (has_ended_ && !is_again) return;
  const record::Nanoseconds patience = is_again                              ? 0
                                       : options_.is_service && is_stopping_ ? kStationStops
                                       : options_.is_service                 ? kAfterTheEnd
                                       : unit_.empty()                       ? kFramesTake
                                                                             : kLinesTake;
  end_by(now() + patience);
}

void Recording::write() {
  const record::Nanoseconds time = now();
  held_.write_until(time - (unit_.empty() ? kFramesTake : kLinesTake));
  if (time - flushed_ < kFlushTime && time >= flushed_) return;
  flushed_ = time;
  flush();
}

void Recording::flush() {
  file_.flush();
  if (file_.problem().empty() || is_full_) return;
  is_full_ = true;
  say(options_.output + ": " + file_.problem() + "; nothing more is recorded");
  for (Source& source : sources_) {
    if (source.link.is_open()) source.link.close();
  }
  if (options_.output == "-") end_by(now());
}

void Recording::show_progress() {
  if (isatty(STDERR_FILENO) == 0 || now() - shown_ < kSecond) return;
  shown_ = now();
  std::cerr << "\rrecording: " << held_.frames() << " frames, " << held_.entries() << " entries"
            << std::flush;
}

void Recording::finish() {
  receive();
  if (lines_) lines_->finish([this](const record::Entry& entry) { take(entry); });
  held_.write_until(std::numeric_limits<record::Nanoseconds>::max());
  for (const Source& source : sources_) {
    if (!source.interface) continue;
    const std::uint64_t dropped = source.link.dropped();
    writer_.add(record::Statistics{*source.interface, now(), source.link.received(), dropped});
    if (dropped > 0) say(source.link.name() + ": the kernel dropped " + std::to_string(dropped) + " frames");
  }
  if (isatty(STDERR_FILENO) != 0) std::cerr << "\n";
  flush();
}

int record_by_hand(const Options& options) {
  Recording recording(options, options.output, now());
  const bool is_whole = recording.run();
  recording.file().finish();
  return is_whole ? 0 : kUnusable;
}

// One run, and those that the station begins before this one is put away: systemd starts nothing that still runs.
int record_into_folder(const Options& options) {
  std::filesystem::create_directories(options.folder);
  bool is_whole = true;
  for (std::optional<record::Nanoseconds> start = now(); start;) {
    Recording recording(options, options.folder + "/" + name_of_run(options.folder, *start) + ".pcapng",
                        *start);
    is_whole = recording.run() && is_whole;
    recording.has_anything() ? recording.file().finish() : recording.file().discard();
    start = recording.next_run();
  }
  complete_runs(options.folder);
  limit_runs(options.folder, kRunsKept, options.limit);
  return is_whole ? 0 : kUnusable;
}

void check(const Options& options) {
  if (options.links.empty()) throw WrongCall("expected a link (-i)");
  if (!options.unit.empty() && !options.log.empty()) throw WrongCall("expected --unit or --log, not both");
  if (options.pid != 0 && options.log.empty()) throw WrongCall("--pid: expected --log with it");
  if (options.is_service != options.output.empty())
    throw WrongCall("expected either a file (-o) or --service");
}

}  // namespace

int record(const Options& options) {
  try {
    check(options);
    return options.is_service ? record_into_folder(options) : record_by_hand(options);
  } catch (const WrongCall& error) {
    say(error.what());
    return kWrongCall;
  } catch (const WrongFilter& error) {
    say(std::string("the filter is wrong: ") + error.what());
    return kWrongCall;
  } catch (const std::exception& error) {
    say(error.what());
    return kUnusable;
  }
}

}  // namespace recorder
