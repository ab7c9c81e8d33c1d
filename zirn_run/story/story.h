#ifndef STORY_STORY_H
#define STORY_STORY_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "frames/decoder.h"
#include "frames/packet.h"
#include "record/item.h"
#include "record/run_entry.h"
#include "story/book.h"
#include "story/connections.h"
#include "story/datagrams.h"
#include "story/reading.h"
#include "story/roles.h"
#include "story/transfers.h"

namespace story {

// Makes a reading out of a record's items, which are told one at a time in the order of their times. What comes
// out of order is put where it belongs, at most Book::kOrderWindow steps back.
//
// What repeats is folded as it comes, and nothing is kept of a transfer or a connection beyond what its thread
// in the reading has room for, however long it lasts: mostly 6 KiB, and at most 40, by the length of its options. The
// lists of threads and steps have a greatest length (Book); things beyond are counted in `left_out`. Any bytes and any
// times may be told.
class Story {
 public:
  explicit Story(const Given& given = {});
  Story(const Story&) = delete;
  Story& operator=(const Story&) = delete;

  // Any item of a record. Entries that say nothing of the run are passed over.
  void take(const record::Item& item);
  void take(const record::Interface& network);
  void take(const record::Frame& frame) { decoder_.take(frame); }
  void take(const frames::Packet& packet);
  void take(const record::Statistics& statistics);
  // What the journal entry with this number says. A line without a time, which is 0, is kept at the side.
  void take(const record::RunEntry& entry, Nanoseconds at, std::uint64_t number);

  // So many more things were not told, because there was no room to hold them.
  void leave_out(std::uint64_t count) { book_.reading.left_out += count; }

  // Nothing was told until then: whoever has been silent for long is.
  void pass_time(Nanoseconds now);

  // No more is told. `is_cut_short`: there was more, which the record lacks.
  void finish(bool is_cut_short);

  const Reading& reading() const { return book_.reading; }

 private:
  struct Moment {
    Nanoseconds at;
    Numbers lines;
  };

  Nanoseconds meet(Nanoseconds at);
  void take_udp(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source,
                std::size_t target);
  void note_answer_to_boot_script(const frames::Packet& packet, const frames::TftpMessage& message,
                                  std::size_t source, std::size_t target);
  Step step_of(Step::Kind kind, const Moment& moment) const;
  void tell(const record::RunBegins& run, const Moment& moment);
  void tell(const record::Line& line, const Moment& moment);
  void tell(const record::BoardCall& call, const Moment& moment);
  void tell(const record::Cut& cut, const Moment& moment);
  void tell(const record::StationEnds& end, const Moment& moment);
  void tell(const record::RunEnds& end, const Moment& moment);
  void tell(const record::Gap& gap, const Moment& moment);
  void tell(const record::Timeout& timeout, const Moment& moment);

  Book book_;
  Roles roles_;
  Transfers transfers_;
  Connections connections_;
  Datagrams datagrams_;
  frames::Decoder decoder_;
  std::size_t line_step_ = kNone;  // of the last line
  std::size_t end_step_ = kNone;   // of the station's end
  bool has_begun_ = false;
};

}  // namespace story

#endif
