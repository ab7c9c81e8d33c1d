#ifndef EXPLANATION_CASE_H
#define EXPLANATION_CASE_H

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "explanation/explanation.h"
#include "explanation/printed_lines.h"

namespace explanation {

inline constexpr Nanoseconds kSecond = 1000000000;

// Something that was found. It counts as a fault where its cause can be one and `can_explain` holds.
struct Finding {
  const Cause* cause = nullptr;
  Nanoseconds at = 0;
  Statement statement;
  bool can_explain = true;
  std::string subject;  // the file, the tool or the verdict that it is about; empty: none
};

// What is known of a run, in the order that the causes look at it.
struct Case {
  struct Line {
    std::string_view text;
    Nanoseconds at = 0;  // of one without a time: that of the one before it
    Numbers numbers;
    std::uint64_t count = 1;
    const PrintedLine* printed = nullptr;
    bool is_shown = true;  // the frames show what it says of a request or of a command
  };
  // A verdict that the station took.
  struct Verdict {
    std::string name;
    story::Verdict::Says says = story::Verdict::Says::kStep;
    Nanoseconds at = 0;
    Evidence evidence;
    std::size_t place = story::kNone;  // in the reading; none: only a line tells of it
  };

  explicit Case(const story::Reading& reading);

  const story::Reading& reading;
  std::vector<Line> lines;
  std::vector<Verdict> verdicts;         // in the order of their times
  std::vector<const story::Step*> cuts;  // of the cable
  std::vector<Finding> findings;
  bool is_a_run = false;         // of a station
  Nanoseconds last_read = 0;     // that came to its end, also of an empty file
  bool has_unit = false;         // one was heard
  Nanoseconds last_success = 0;  // of the unit
  std::map<std::string, Nanoseconds, std::less<>>
      read_at;  // files, when the last read that came to its end began

  void find(std::string_view cause, Nanoseconds at, std::string sentence, Evidence evidence,
            bool can_explain = true, std::string subject = "");
  // Where the line is one of these texts of docs/operations.md.
  std::vector<const Line*> lines_with(std::string_view printed) const;
  bool has_line(std::string_view printed) const { return !lines_with(printed).empty(); }

  // Whether a transfer is of a file by a unit.
  bool is_read_of_file(const story::Transfer& transfer) const;
  // The transfer by which the unit was served: this one, or the second answer to its request.
  const story::Transfer& served_by(const story::Transfer& transfer) const;
  // Whether the station was waiting then for a PPT server that did not answer.
  bool waits_for_ppt(Nanoseconds when) const;
  // Whether what the unit said to the station, or the other way, is not in the record.
  bool lacks_a_side() const;
  bool sees_test_network() const;
  // Whether the recorder had no frames of a link for a part of that time, or nothing at all.
  bool has_gap(Nanoseconds from, Nanoseconds until) const;
  // Whether all that the unit and the station said to each other from then until then is in the record.
  bool sees_unit(Nanoseconds from, Nanoseconds until) const;
  // Whether the record tells what became of the verdicts of that time.
  bool sees_ppt(Nanoseconds from, Nanoseconds until) const;
  // Whether the record tells that a tool was missing which the unit had run in that time: the shell's complaint stands
  // in the lines alone.
  bool sees_tools(Nanoseconds from, Nanoseconds until) const;
  // All of these.
  bool is_all_seen(Nanoseconds from, Nanoseconds until) const;

 private:
  void note_unread();
  void take_steps();
  void take_verdicts();
  bool was_taken(const story::Verdict& verdict) const;
  void take_waits();
  void take_successes();
  void note_shown_lines();
  bool is_shown_by_requests(std::string_view name) const;
  bool may_be_cut_by_alarm(const Verdict& verdict, Nanoseconds until) const;
  bool is_ppt_known(const Verdict& verdict) const;

  std::set<std::string_view> requested_;         // names
  std::set<std::string_view> requested_so_far_;  // what is there of those that the capture has cut
  std::map<std::size_t, std::size_t>
      by_second_answer_;             // transfers, and the second answers that served the unit
  std::vector<Nanoseconds> waits_;   // when those began for a PPT server that did not answer
  std::vector<Nanoseconds> unread_;  // when something was said of which the capture has cut what counts
};

// Whether the reader had everything: of a transfer whose last ACK is all that is not there, too.
bool has_come_to_its_end(const story::Transfer& transfer);

// Whether the capture has not kept all of a text.
bool is_cut(const story::Said& said);

std::string seconds(Nanoseconds time);
// "the cable was out from 0.3 s on"
std::string cut_in_words(const Case& c, const story::Step& cut);
// "12.4 s", since the reading's first moment.
std::string moment(const Case& c, Nanoseconds when);
// " at 12.4 s"; empty where there are no times.
std::string at(const Case& c, Nanoseconds when);
// "172.40.0.2", or "the unit", where the party has no address.
std::string address_of(const story::Reading& reading, std::size_t party);

inline Evidence seen(const Numbers& frames, const Numbers& lines = {}) {
  return {frames, lines, false};
}
inline Evidence inferred(const Numbers& frames, const Numbers& lines = {}) {
  return {frames, lines, true};
}

// Each looks for the causes of its subject (the file of that name).
void find_boot(Case* c);
void find_reads(Case* c);
void find_network(Case* c);
void find_ppt(Case* c);
void find_commands(Case* c);
void find_lines(Case* c);
void find_end(Case* c);

// The cause's meaning and advice, in the words of the run (advice.cpp).
void tell_cause(const Case& c, Claim* claim);

// How the station ended, and why as far as the record shows it (end.cpp). The reading has a station's end.
std::string end_in_words(const Case& c);

// What the recorder says that it lacks from then until then.
struct Gap {
  Nanoseconds from = 0;
  std::optional<Nanoseconds> until;  // nothing: the end
  std::string_view what;             // how its text begins (record/run_entry.h); empty: otherwise
  std::string_view why;
};
std::vector<Gap> gaps_in(const story::Reading& reading);

// What the record lacks (incomplete.cpp).
std::vector<std::string> incomplete(const Case& c);

}  // namespace explanation

#endif
