#include "recorder/recording.h"

#include <link.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/utsname.h>

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
#include <thread>

#include "recorder/say.h"

namespace recorder {

namespace {

// The station comes first: where both want the same processor, it gets three times as much. What comes meanwhile waits in
// the links' rings.
void give_way_to_the_station() {
  constexpr int kNicer = 5;
  setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + kNicer);
}

// Pages of program and libraries that were needed to start: what is needed again is read again. The recorder takes as
// little as a small program, however much the other commands stand on.
void give_back_pages() {
  const auto give_back = [](dl_phdr_info* part, std::size_t, void*) {
    const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    for (int i = 0; i < part->dlpi_phnum; ++i) {
      const ElfW(Phdr)& segment = part->dlpi_phdr[i];
      if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
      const std::uintptr_t begin = part->dlpi_addr + segment.p_vaddr;
      const std::uintptr_t end = (begin + segment.p_memsz) & ~(page - 1);
      const std::uintptr_t first = (begin + page - 1) & ~(page - 1);
      // NOLINTNEXTLINE(performance-no-int-to-ptr): the system tells it as a number
      if (first < end) madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
    }
    return 0;
  };
  dl_iterate_phdr(give_back, nullptr);
}

// Of all links. With fewer than four blocks the kernel drops a frame now and then that comes while it closes one.
constexpr std::size_t kRingBytes = std::size_t{2} << 20;
constexpr std::size_t kLeastBlocks = 4;
constexpr std::size_t kBlockBytes = std::size_t{256} << 10;
constexpr std::size_t kFramesAtOnce = 1024;
constexpr int kTimesAtOnce = 8;  // then the other links, lines and signals

// How long a frame or a line may be on its way to us.
constexpr record::Nanoseconds kFramesTake = 250 * kMillisecond;
constexpr record::Nanoseconds kLinesTake = 500 * kMillisecond;
constexpr record::Nanoseconds kFlushTime = 100 * kMillisecond;
constexpr record::Nanoseconds kAfterTheEnd = kSecond;
constexpr record::Nanoseconds kStationStops = 12 * kSecond;  // it is killed after ten
constexpr int kTickMilliseconds = 50;

// What systemd says of a unit (systemd.journal-fields(7), sd-messages.h).
constexpr char kUnitStarting[] = "7d4958e842da4a758f6c1cdc7b36dcc5";
constexpr char kUnitStopping[] = "de5b426a63be47a7b6ac3eaac82e2f6f";
constexpr std::array<std::string_view, 2> kUnitEnded = {"7ad2d189f7e94e70a38c781354912448",   // well
                                                        "d9b373ed55a64feb8242e02dbe79a49c"};  // badly

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
  if (all != nullptr) if_freenameindex(all);
  return joined(names);
}

// The exit status that unit and init script keep of the run that had ended by then; systemd has none of one that ended
// well. Nothing where another run has begun since.
std::optional<int> kept_status(const std::string& unit, record::Nanoseconds by) {
  const std::string name = "/run/" + unit.substr(0, unit.rfind(".service")) + "/exit_status";
  std::ifstream file(name);
  int status = 0;
  struct stat about = {};
  const bool is_there = file >> status && stat(name.c_str(), &about) == 0;
  const bool is_its_own = about.st_mtim.tv_sec * kSecond + about.st_mtim.tv_nsec <= by;
  return is_there && is_its_own ? std::optional<int>(status) : std::nullopt;
}

Filter filter_of(const Options& options, const Words& station_options) {
  Station station = station::station_of(station_options);
  if (station_options.empty() && !options.station && options.unit.empty()) station.address.clear();
  Filter filter;
  filter.is_whole = options.is_whole;
  filter.whole_ports = ports_without_files(station);
  filter.expression =
      options.filter.empty() ? expression_for(station, addresses_of(options.links)) : options.filter;
  return filter;
}

}  // namespace

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

Recording::Record::Record(const std::string& name, int gives_up)
    : file(name, gives_up), writer(stream, this_machine()) {}

Recording::Recording(const Options& options, Name name, Run* run)
    : options_(options),
      name_(std::move(name)),
      run_(run),
      signals_(run != nullptr),
      station_options_(options.station        ? *options.station
                       : options.unit.empty() ? Words()
                                              : station::service_of(options.unit).options),
      filter_(filter_of(options, station_options_)),
      station_(options.pid) {
  if (!options.unit.empty())
    unit_ = options.unit.find('.') == std::string::npos ? options.unit + ".service" : options.unit;
}

bool Recording::run() {
  give_back_pages();
  const record::Nanoseconds start = now();
  begin_record(start);
  try {
    open_links();
    begin_lines(start);
  } catch (...) {
    record_->file.discard();
    throw;
  }
  give_way_to_the_station();  // which may have been started by us, and inherits nothing of it
  notify_ready();
  while (now() < ends_at_) {
    wait();
    receive();
    write();
    run_ != nullptr ? run_->look() : show_progress();
  }
  receive();
  if (lines_) lines_->finish([this](const record::Entry& entry) { take(entry); });
  if (next_run_) begin_next_run();
  end_record(kNever);
  return is_whole_;
}

// A run begins once there is a record that would survive us.
void Recording::begin_lines(record::Nanoseconds start) {
  if (run_ != nullptr) {
    held_.write_until(now());
    record_->file.flush();
    lines_ = run_->begin();
    return;
  }
  if (!unit_.empty()) own_lines_ = std::make_unique<Journal>(unit_, start);
  if (!options_.log.empty()) own_lines_ = std::make_unique<Log>(options_.log, options_.is_service);
  lines_ = own_lines_.get();
}

void Recording::begin_record(record::Nanoseconds at) {
  record_name_ = name_(at);
  record_ = std::make_unique<Record>(record_name_, signals_.descriptor());
  held_.write_to(
      &record_->writer, run_ == nullptr ? Held::Told() : [this](const auto& item) { tell(item); });
  for (Source& source : sources_) {
    source.is_described = false;
    source.received_before = source.link.received();
    source.dropped_before = source.dropped_told = source.link.dropped();
    if (source.link.is_open()) describe(&source);
  }
  record::RunBegins run;
  run.name = std::filesystem::path(record_name_).stem().string();
  if (!station_options_.empty()) run.command = "TFTP " + joined(station_options_);
  held_.add(entry_of(run, at));
}

void Recording::end_record(record::Nanoseconds until) {
  held_.write_until(until);
  for (const Source& source : sources_) {
    if (!source.is_described) continue;
    const std::uint64_t dropped = source.link.dropped() - source.dropped_before;
    const std::uint64_t received = source.link.received() - source.received_before;
    const record::Statistics counted = {source.interface, now(), received, dropped};
    record_->writer.add(counted);
    tell(counted);
    if (dropped > 0) say(source.link.name() + ": the kernel dropped " + std::to_string(dropped) + " frames");
  }
  if (run_ == nullptr && isatty(STDERR_FILENO) != 0) std::cerr << "\n";
  flush();
  const bool has_anything = (record_->has_lines || held_.frames() > 0) && !record_->file.is_empty();
  has_anything || !options_.is_service ? record_->file.finish() : record_->file.discard();
}

// To be called once all frames of the run before are here; nothing of the next one was written by then.
void Recording::begin_next_run() {
  const record::Nanoseconds at = *next_run_;
  next_run_.reset();
  end_record(at);
  begin_record(at);
}

void Recording::describe(Source* source) {
  if (source->is_described) return;
  const record::Interface link = {source->link.name(), filter_.expression, source->link.link_type(), 0};
  source->interface = record_->writer.add(link);
  tell(link);
  source->is_described = true;
  held_.set_interface(source->number, source->interface);
}

void Recording::open_links() {
  const std::size_t blocks =
      std::max<std::size_t>(kRingBytes / kBlockBytes / options_.links.size(), kLeastBlocks);
  bool has_one = false;
  for (const std::string& name : options_.links) {
    Source& source = sources_.emplace_back(Source{Link(name, blocks * kBlockBytes), sources_.size()});
    if (source.link.open(filter_)) {
      describe(&source);
      has_one = true;
      continue;
    }
    const std::string problem = name + ": " + source.link.problem();
    if (source.link.lacks_right() && run_ == nullptr) throw Unusable(problem);
    say(source.link.lacks_right() ? problem : problem + "; there are: " + links_that_are_there());
    tell_gap(record::kFramesNeverCame, problem);
  }
  if (!has_one && run_ == nullptr) throw Unusable("expected a link that can be recorded");
}

void Recording::look_at_links() {
  for (Source& source : sources_) {
    if (source.link.is_open() && !source.link.is_there()) {
      std::this_thread::sleep_for(
          std::chrono::milliseconds(3 * Link::kBlockMilliseconds / 2));  // the last block
      while (receive(&source) > 0) continue;
      source.link.close();
      tell_gap(record::kFramesMissing, source.link.name() + " is gone or down");
    } else if (!source.link.is_open() && source.link.open(filter_)) {
      describe(&source);
      tell_gap(record::kFramesBack, source.link.name() + " is back");
    }
  }
}

void Recording::wait() {
  std::vector<pollfd> events = {{signals_.descriptor(), POLLIN, 0}, {news_.descriptor(), POLLIN, 0}};
  if (!has_ended_) events.push_back({station_.descriptor(), POLLIN, 0});
  if (lines_) events.push_back({lines_->descriptor(), POLLIN, 0});
  for (const Source& source : sources_) events.push_back({source.link.descriptor(), POLLIN, 0});
  poll(events.data(), events.size(), kTickMilliseconds);
  if (const int signal = signals_.came(); signal != 0) stop_wanted(signal);
  if (events[1].revents == 0) return;
  news_.clear();
  look_at_links();
}

void Recording::receive() {
  for (Source& source : sources_) {
    for (int i = 0; i < kTimesAtOnce && receive(&source) == kFramesAtOnce; ++i) continue;
  }
  if (lines_) lines_->receive([this](const record::Entry& entry) { take(entry); });
  look_at_process();
  if (has_ended_ && lines_ && lines_->are_put_away()) end_by(now());
}

std::size_t Recording::receive(Source* source) {
  return source->link.receive(kFramesAtOnce,
                              [&](record::Nanoseconds at, std::string_view bytes, std::uint32_t size) {
                                held_.add(source->number, at, bytes, size);
                              });
}

void Recording::take(const record::Entry& entry) {
  held_.add(entry);
  record_->has_lines = true;
  const std::string_view message = entry.value("MESSAGE_ID");
  const auto said = run_ != nullptr && message.empty() ? said_by(entry) : std::nullopt;
  if (said && std::holds_alternative<record::StationEnds>(*said)) station_ended(entry.at, std::nullopt);
  if (unit_.empty() || entry.value("UNIT") != unit_) return;
  if (message == kUnitStarting && options_.is_service && has_ended_ && !is_stop_wanted_) {
    next_run_ = entry.at - kMillisecond;
    has_ended_ = is_stopping_ = false;
    end_by(kNever);
  }
  if (message == kUnitStopping) is_stopping_ = true;
  if (message == kUnitStopping && is_stop_wanted_) end_by(now() + kStationStops);
  if (std::find(kUnitEnded.begin(), kUnitEnded.end(), message) == kUnitEnded.end()) return;
  const bool is_well = message == kUnitEnded[0];
  station_ended(entry.at, is_well ? kept_status(unit_, entry.at) : std::nullopt);
}

void Recording::look_at_process() {
  if (has_ended_ || !station_.has_ended()) return;
  const std::optional<int> status =
      options_.is_service ? kept_status("zirn-test-station.service", now()) : std::nullopt;
  held_.add(entry_of(record::StationEnds{status, 0}, now()));
  station_ended(now(), std::nullopt);
}

void Recording::station_ended(record::Nanoseconds at, std::optional<int> status) {
  if (status) held_.add(entry_of(record::StationEnds{status, 0}, at));
  has_ended_ = true;
  const bool is_by_journal = run_ == nullptr || !unit_.empty();
  end_by(now() + (is_by_journal ? kAfterTheEnd : 2 * kFramesTake));
}

// A station that is being stopped is waited for. By hand, twice is at once.
void Recording::stop_wanted(int signal) {
  if (run_ != nullptr) return run_->end(signal);
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
  if (next_run_ && time - *next_run_ > kFramesTake) begin_next_run();
  held_.write_until(time - (unit_.empty() ? kFramesTake : kLinesTake));
  if (time - flushed_ < kFlushTime && time >= flushed_) return;
  flushed_ = time;
  tell_drops(time);
  flush();
}

// The record says so as it comes, for who reads it meanwhile.
void Recording::tell_drops(record::Nanoseconds time) {
  if (time - drops_told_ < kSecond && time >= drops_told_) return;
  drops_told_ = time;
  for (Source& source : sources_) {
    const std::uint64_t dropped = source.is_described ? source.link.dropped() : 0;
    if (dropped <= source.dropped_told) continue;
    source.dropped_told = dropped;
    record_->writer.add(record::Statistics{source.interface, time,
                                           source.link.received() - source.received_before,
                                           dropped - source.dropped_before});
  }
}

void Recording::flush() {
  record_->file.flush();
  if (record_->file.problem().empty() || record_->is_full) return;
  record_->is_full = true;
  is_whole_ = false;
  say(record_name_ + ": " + record_->file.problem() + "; nothing more is recorded");
  if (options_.output == "-") end_by(now());
}

void Recording::show_progress() {
  if (isatty(STDERR_FILENO) == 0 || now() - shown_ < kSecond) return;
  shown_ = now();
  std::cerr << "\rrecording: " << held_.frames() << " frames, " << held_.entries() << " entries"
            << std::flush;
}

}  // namespace recorder
