#include "comparison/strands.h"

#include <algorithm>
#include <set>

#include "explanation/explanation.h"
#include "frames/words.h"

namespace comparison {

namespace {

using story::Connection;
using story::PassedOn;
using story::Reading;
using story::Role;
using story::Step;
using story::Transfer;

// Whether the station prints it depends on the moment: on what was under way, how long something took, whether there was
// time for it before the end, or which of two threads was the first to take a port.
constexpr std::string_view kOfTheMoment[] = {"Client timeout",
                                             "Stopping server. Active ",
                                             "Error in select():",
                                             "Unexpected packet",
                                             "Sender proc stopped!!!",
                                             "UDP Server exited...",
                                             "Message Sender initialized. IP: 0.0.0.0 ",
                                             "Can't bind socket by the reason of Address already in use",
                                             "Error: Failed to initialize sender",
                                             "UDP: ERROR on binding. Address already in use"};

constexpr Nanoseconds kLineIsLate = 500000000;  // at the most, after what it tells of

bool is_of_the_moment(std::string_view line) {
  return std::any_of(std::begin(kOfTheMoment), std::end(kOfTheMoment), [line](std::string_view beginning) {
    return line.substr(0, beginning.size()) == beginning;
  });
}

std::string in_words(const Transfer::Options& options) {
  std::string text;
  for (const auto& [name, value] : options) {
    text += text.empty() ? "" : " ";
    text.append(name).append("=").append(value);
  }
  return text;
}

std::string asked_by(const Transfer& one) {
  if (one.kind != Transfer::Kind::kRead && one.kind != Transfer::Kind::kWrite)
    return "sends something that is no request";
  std::string text = one.kind == Transfer::Kind::kRead ? "reads " : "writes ";
  text += one.name;
  if (one.mode != "octet") text += " in mode " + one.mode;
  if (!one.asked.empty()) text += ", asks for " + in_words(one.asked);
  return text;
}

bool arrives(const Transfer& one) {
  return one.end == Transfer::End::kFinished || (one.is_last_sent && one.end != Transfer::End::kError);
}

std::string outcome_of(const Transfer& one) {
  std::string text = one.acknowledged.empty() ? "" : ", is granted " + in_words(one.acknowledged);
  if (arrives(one)) return text + ": arrives, " + frames::counted(one.bytes, "byte");
  if (one.end != Transfer::End::kError) return text + ": does not arrive";
  text += ": ERROR " + std::to_string(one.error_code);
  if (one.ended_by != story::kStation) return text + " by the unit";
  return text + (one.error.text.empty() ? "" : ' ' + one.error.text) + " by the station";
}

const char* in_words(PassedOn outcome) {
  switch (outcome) {
    case PassedOn::kNotDue:
      return "is final";
    case PassedOn::kNotSeen:
      return "is not passed on";
    case PassedOn::kWaiting:
      return "is passed on, and waits for its answer";
    case PassedOn::kAnswered:
      return "is passed on and answered";
    case PassedOn::kRefused:
      return "is passed on and refused";
    case PassedOn::kClosedPort:
      return "is passed on to a closed port";
    case PassedOn::kSilent:
      return "is passed on and not answered";
  }
  return "";
}

std::string in_words(const Connection& one, const std::string& who) {
  std::string text = who + (one.opened ? " connects" : " connects in vain");
  for (const Connection::Text& said : one.texts)
    text += (said.is_from_client ? ", asks " : ", is told ") + frames::quoted(said.said.text);
  return text;
}

class Telling {
 public:
  Telling(const Reading& reading, const Known& known) : reading_(reading), known_(known) {
    steps_of_transfers_.assign(reading.transfers.size(), story::kNone);
    steps_of_connections_ = std::vector<std::size_t>(reading.connections.size(), story::kNone);
    steps_of_relayed_ = std::vector<std::size_t>(reading.relayed.size(), story::kNone);
    for (std::size_t place = 0; place < reading.steps.size(); ++place) note(place);
    for (const Transfer& one : reading.transfers) {
      if (one.second_answer_of != story::kNone && arrives(one)) arriving_second_[one.second_answer_of] = &one;
    }
  }

  std::map<std::string, Strand> told() {
    if (known_.networks) {
      tell_boot_script();
      tell_transfers();
      tell_verdicts();
      tell_connections();
      tell_relayed();
    }
    tell_steps();
    tell_ppt_flag();
    const explanation::Claim fault = explanation::explain(reading_).fault;
    Event event;
    event.at = reading_.last;
    if (!fault.statements.empty()) {
      event.frames = fault.statements[0].evidence.frames;
      event.lines = fault.statements[0].evidence.lines;
    }
    add("the fault",
        "the fault is " + std::string(name_of(fault.cause->owner)) + " by " + std::string(fault.cause->id),
        event);
    return std::move(strands_);
  }

 private:
  void note(std::size_t place) {
    const Step& step = reading_.steps[place];
    if (step.thread == story::kNone) return;
    const auto note_first = [&](std::vector<std::size_t>* steps) {
      if ((*steps)[step.thread] == story::kNone) (*steps)[step.thread] = place;
    };
    if (step.kind >= Step::Kind::kRequest && step.kind <= Step::Kind::kClosedPort)
      note_first(&steps_of_transfers_);
    else if (step.kind >= Step::Kind::kConnect && step.kind <= Step::Kind::kBreaksOff)
      note_first(&steps_of_connections_);
    else if (step.kind == Step::Kind::kDatagram || step.kind == Step::Kind::kRelayed)
      note_first(&steps_of_relayed_);
  }

  void add(const std::string& strand, std::string words, Event event) {
    event.sentence = frames::printable_sentence(words);
    strands_[strand].items.push_back({std::move(words), std::move(event)});
  }
  // Unless it was the last thing, too.
  void add_unless_repeated(const std::string& strand, const std::string& words, const Event& event) {
    const auto& items = strands_[strand].items;
    if (items.empty() || items.back().words != words) add(strand, words, event);
  }
  void add_once(const std::string& strand, const std::string& words, const Event& event) {
    strands_[strand].is_ordered = false;
    if (told_.insert(strand + ' ' + words).second) add(strand, words, event);
  }

  // "unit", and of several "unit b", in the order in which they came.
  std::string name_of_party(std::size_t place) const {
    const auto is_unit = [](const story::Party& party) { return party.role == Role::kUnit; };
    if (place >= reading_.parties.size() || !is_unit(reading_.parties[place])) return "somebody";
    const auto begin = reading_.parties.begin();
    const auto before = std::count_if(begin, begin + static_cast<std::ptrdiff_t>(place), is_unit);
    return before == 0 ? "unit"
                       : "unit " + std::string(1, static_cast<char>('b' + std::min<long>(before - 1, 24)));
  }

  Event event_of(const Transfer& one) const {
    const auto place = static_cast<std::size_t>(&one - reading_.transfers.data());
    return {"", one.frames, {}, steps_of_transfers_[place], one.from};
  }

  void tell_boot_script() {
    if (!reading_.boot_script) return;
    const auto step = std::find_if(reading_.steps.begin(), reading_.steps.end(),
                                   [](const Step& one) { return one.kind == Step::Kind::kBootScript; });
    const auto place =
        step == reading_.steps.end() ? story::kNone : static_cast<std::size_t>(step - reading_.steps.begin());
    add("the boot script", "station sends the boot script",
        {"", reading_.boot_script->frames, {}, place, reading_.boot_script->first});
  }

  // Of two answers to one request, the one that the unit goes on with.
  const Transfer& answered(const Transfer& first) const {
    const auto second = arriving_second_.find(static_cast<std::size_t>(&first - reading_.transfers.data()));
    return arrives(first) || second == arriving_second_.end() ? first : *second->second;
  }

  // Tries of one file, the last of which counts, are one read.
  void tell_transfers() {
    struct Last {
      std::string asked;
      bool arrives = false;
    };
    std::map<std::string, Last> last;
    for (const Transfer& one : reading_.transfers) {
      if (one.server != story::kStation || one.second_answer_of != story::kNone) continue;
      const std::string who = name_of_party(one.client);
      const std::string asked = asked_by(one);
      auto& items = strands_[who + " reads"].items;
      if (!items.empty() && last[who].asked == asked && !last[who].arrives) items.pop_back();
      last[who] = {asked, arrives(answered(one)) || one.end == Transfer::End::kError};
      std::string words = who;
      words.append(" ").append(asked).append(outcome_of(answered(one)));
      add_unless_repeated(who + " reads", words, event_of(one));
    }
  }

  // Of tries of one verdict, those that did not come through count only where none did.
  void tell_verdicts() {
    std::map<std::string, const story::Verdict*> last;
    for (const story::Verdict& one : reading_.verdicts) {
      const std::string strand = name_of_party(one.unit) + " gives verdicts";
      const story::Verdict*& before = last[strand];
      const bool is_try = before != nullptr && before->name == one.name;
      if (is_try && one.queries.empty()) continue;
      if (is_try && before->queries.empty()) strands_[strand].items.pop_back();
      before = &one;
      Event event = {"", {}, {}, story::kNone, one.at};
      if (one.transfer != story::kNone) event = event_of(reading_.transfers[one.transfer]);
      if (!one.queries.empty()) event.frames.add(reading_.transfers[one.queries.back()].frames);
      std::string words = "verdict " + one.name;
      const std::size_t certain = words.size() + 1;
      if (known_.ppt_network) words.append(" ").append(in_words(passed_on(reading_, one)));
      add_unless_repeated(strand, words, event);
      if (is_cut_short(one)) strands_[strand].items.back().certain = certain;
    }
  }

  // Whether the alarm comes while the station waits for its answer or just after, the moment decides.
  bool is_cut_short(const story::Verdict& one) const {
    return std::any_of(reading_.steps.begin(), reading_.steps.end(), [&](const Step& step) {
      return story::is_by_alarm(reading_, step) &&
             std::any_of(one.queries.begin(), one.queries.end(), [&](std::size_t place) {
               const Transfer& query = reading_.transfers[place];
               return step.from >= query.from && step.from <= query.until + kLineIsLate;
             });
    });
  }

  void tell_connections() {
    for (const Connection& one : reading_.connections) {
      const auto place = static_cast<std::size_t>(&one - reading_.connections.data());
      const Event event = {"", one.frames, {}, steps_of_connections_[place], one.from};
      if (one.client != story::kStation)
        add(name_of_party(one.client) + " asks", in_words(one, name_of_party(one.client)), event);
      else if (known_.ppt_network)
        add_unless_repeated(
            "station connects",
            one.opened ? "station connects to the PPT server" : "station connects to the PPT server in vain",
            event);
    }
  }

  void tell_relayed() {
    for (const story::Relayed& one : reading_.relayed) {
      const auto place = static_cast<std::size_t>(&one - reading_.relayed.data());
      std::string words = "datagram " + frames::quoted(one.said.text);
      if (known_.ppt_network) words += one.passed_on > 0 ? " is passed on" : " is not passed on";
      add(name_of_party(one.unit) + " sends datagrams", words,
          {"", one.frames, {}, steps_of_relayed_[place], one.from});
    }
  }

  void tell_steps() {
    for (std::size_t place = 0; place < reading_.steps.size(); ++place) {
      const Step& step = reading_.steps[place];
      const Event event = {"", step.frames, step.lines, place, step.from};
      if (step.kind == Step::Kind::kLine) tell_line(step.said.text, event);
      if (step.kind == Step::Kind::kBoardCall && known_.board)
        add_unless_repeated("board runs", "board runs " + step.said.text, event);
      if (step.kind == Step::Kind::kStationEnds && known_.end)
        add("station ends", "station ends: " + story::in_words(*reading_.station_end), event);
    }
    for (const story::UntimedLine& line : reading_.untimed_lines)
      tell_line(line.text, {"", {}, line.lines, story::kNone, reading_.last});
  }

  void tell_line(const std::string& text, const Event& event) {
    if (known_.lines && !is_of_the_moment(text))
      add_once("station says", "station says " + frames::quoted(text), event);
  }

  void tell_ppt_flag() {
    if (!known_.board || !reading_.run_end) return;
    const std::string& flag = reading_.run_end->ppt_flag;
    add("board keeps", "board keeps ppt_flag " + (flag.empty() ? "nothing" : flag),
        {"", {}, {}, story::kNone, reading_.last});
  }

  const Reading& reading_;
  const Known& known_;
  std::vector<std::size_t> steps_of_transfers_, steps_of_connections_, steps_of_relayed_;  // the first ones
  std::map<std::size_t, const Transfer*> arriving_second_;  // answers, by the first
  std::set<std::string> told_;
  std::map<std::string, Strand> strands_;
};

}  // namespace

Known known_of(const Reading& reading) {
  Known known;
  known.networks = reading.has_frames || !reading.networks.empty();
  known.ppt_network = known.networks &&
                      (reading.networks.size() > 1 ||
                       std::any_of(reading.parties.begin(), reading.parties.end(),
                                   [](const story::Party& party) { return party.role == Role::kPptServer; }));
  known.board = reading.run_end && !reading.run_end->judged.empty();  // the bench alone watches it
  known.lines = known.board || !reading.untimed_lines.empty() ||
                std::any_of(reading.steps.begin(), reading.steps.end(),
                            [](const Step& step) { return step.kind == Step::Kind::kLine; });
  const auto& end = reading.station_end;
  known.end = end && (end->status || end->signal != 0);
  return known;
}

std::map<std::string, Strand> strands_of(const Reading& reading, const Known& known) {
  return Telling(reading, known).told();
}

}  // namespace comparison
