#ifndef RECORDER_RECORDING_H
#define RECORDER_RECORDING_H

#include <functional>
#include <limits>
#include <list>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#include "record/run_entry.h"
#include "record/writer.h"
#include "recorder/clock.h"
#include "recorder/file.h"
#include "recorder/filter.h"
#include "recorder/held.h"
#include "recorder/lines.h"
#include "recorder/link.h"
#include "recorder/recorder.h"
#include "recorder/run.h"
#include "recorder/station.h"
#include "recorder/waits.h"

namespace recorder {

// Nothing can be recorded; says why.
struct Unusable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The work of one call: links and lines into a record, until the end. Where the station begins another run at once, as
// a service does, another record is begun with what belongs to it.
class Recording {
 public:
  // The name of a record that begins then.
  using Name = std::function<std::string(record::Nanoseconds)>;

  // `run`: begun and told; without a link that can be recorded it goes on with its lines. Null: a run that others begin.
  Recording(const Options& options, Name name, Run* run = nullptr);

  // Returns at the end. False: it could not all be written. Throws Unusable, WrongFilter, std::system_error, and what
  // the run throws when it is begun.
  bool run();

 private:
  struct Record {
    Record(const std::string& name, int gives_up);

    RecordFile file;
    std::ostream stream{&file};
    record::Writer writer;
    bool has_lines = false;
    bool is_full = false;  // which is said
  };
  struct Source {
    Link link;
    std::size_t number;         // of the sources
    bool is_described = false;  // in the record
    std::uint32_t interface = 0;
    std::uint64_t received_before = 0;  // the record
    std::uint64_t dropped_before = 0;
    std::uint64_t dropped_told = 0;
  };

  void begin_record(record::Nanoseconds at);
  void end_record(record::Nanoseconds until);
  void describe(Source* source);
  void open_links();
  void begin_lines(record::Nanoseconds start);
  void tell(const record::Item& item) const {
    if (run_ != nullptr) run_->take(item);
  }
  void look_at_links();
  void tell_gap(std::string_view what, const std::string& why) {
    held_.add(entry_of(record::gap(what, why), now()));
  }
  void wait();
  void receive();
  std::size_t receive(Source* source);
  void take(const record::Entry& entry);
  void look_at_process();
  void end_by(record::Nanoseconds at) { ends_at_ = at; }
  void station_ended(record::Nanoseconds at, std::optional<int> status);
  void begin_next_run();
  void stop_wanted(int signal);
  void write();
  void tell_drops(record::Nanoseconds time);
  void flush();
  void show_progress();

  static constexpr record::Nanoseconds kNever = std::numeric_limits<record::Nanoseconds>::max();

  const Options& options_;
  const Name name_;
  Run* const run_;
  const Signals signals_;
  const Words station_options_;
  const Filter filter_;
  const Process station_;
  std::string unit_;  // with its ending
  std::unique_ptr<Record> record_;
  std::string record_name_;
  Held held_;
  LinkNews news_;
  std::list<Source> sources_;
  std::unique_ptr<Lines> own_lines_;
  Lines* lines_ = nullptr;  // these, or the run's
  record::Nanoseconds ends_at_ = kNever;
  record::Nanoseconds flushed_ = 0;
  record::Nanoseconds shown_ = 0;
  record::Nanoseconds drops_told_ = 0;
  std::optional<record::Nanoseconds> next_run_;  // when it began, behind the one that is recorded
  bool is_stop_wanted_ = false;
  bool is_stopping_ = false;  // the station
  bool has_ended_ = false;    // the station
  bool is_whole_ = true;      // so far, each record
};

}  // namespace recorder

#endif
