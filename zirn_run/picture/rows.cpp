#include "picture/rows.h"

#include <algorithm>
#include <string>

#include "frames/words.h"
#include "picture/folding.h"
#include "picture/telling.h"
#include "picture/words.h"

namespace picture {

namespace {

using frames::counted;
using frames::printable;
using story::Connection;
using story::Reading;
using story::Step;
using story::Transfer;
using Kind = Row::Kind;
using Look = Row::Look;

constexpr Nanoseconds kLongestRest = 2000000000;

// Tells a run step by step.
class Teller {
 public:
  Teller(const Reading& reading, const Choice& choice, Detail detail, const Outcome& outcome,
         bool adds_short = false)
      : reading_(reading), choice_(choice), detail_(detail), outcome_(outcome), adds_short_(adds_short) {
    first_of_transfer_.assign(reading.transfers.size(), kNone);
    last_of_transfer_ = marked_of_transfer_ = first_of_transfer_;
    first_of_connection_.assign(reading.connections.size(), kNone);
    closes_.assign(reading.connections.size(), 0);
    for (const std::size_t place : reading.order) note(place);
  }

  std::vector<Row> told() {
    for (const std::size_t place : reading_.order) {
      place_ = place;
      const Step& step = reading_.steps[place];
      if (is_chosen(step)) tell(step);
    }
    for (const story::Gap& gap : reading_.gaps) rows_.push_back(row_of(gap));
    const Nanoseconds from = reading_.first + choice_.from.value_or(0);
    const auto is_outside = [&](const Row& row) {
      return row.until < from || (choice_.until && row.from > reading_.first + *choice_.until);
    };
    rows_.erase(std::remove_if(rows_.begin(), rows_.end(), is_outside), rows_.end());
    std::stable_sort(rows_.begin(), rows_.end(),
                     [](const Row& one, const Row& other) { return one.from < other.from; });
    return std::move(rows_);
  }

 private:
  void note(std::size_t place) {
    const Step& step = reading_.steps[place];
    if (step.thread == kNone) return;
    if (is_of_transfer(step.kind)) {
      std::size_t& first = first_of_transfer_[step.thread];
      if (first == kNone) first = place;
      if (step.kind != Step::Kind::kClosedPort) last_of_transfer_[step.thread] = place;
      if (outcome_.marks.count(place) > 0) marked_of_transfer_[step.thread] = place;
    } else if (is_of_connection(step.kind)) {
      std::size_t& first = first_of_connection_[step.thread];
      if (first == kNone) first = place;
      if (step.kind == Step::Kind::kCloses) ++closes_[step.thread];
    }
  }

  bool is_chosen(const Step& step) const {
    const std::size_t unit = unit_of(reading_, step);
    if (!choice_.unit || unit == kNone) return true;
    const std::vector<std::uint32_t>& addresses = reading_.parties[unit].addresses;
    return std::count(addresses.begin(), addresses.end(), *choice_.unit) > 0;
  }

  Row& add(Kind kind, const Step& step, std::string text, Look look = Look::kDatagram) {
    Row row;
    row.kind = kind;
    row.look = look;
    if (is_of_transfer(step.kind)) row.transfer = step.thread;
    row.frames = step.frames;
    row.lines = step.lines;
    row.from = step.from;
    row.until = step.until;
    row.source = step.source;
    row.target = step.target;
    row.turn = outcome_.turn_of_step[place_];
    row.text = std::move(text);
    row.key = std::to_string(static_cast<int>(kind)) + " " + std::to_string(step.source) + " " +
              std::to_string(step.target) + " " + row.text;
    row.times = std::max<std::uint64_t>(step.count, 1);
    row.lost = step.lost;
    row.duplicated = step.duplicated;
    row.swapped = step.swapped;
    const auto mark = outcome_.marks.find(place_);
    if (mark != outcome_.marks.end()) std::tie(row.mark, row.mark_words) = mark->second;
    rows_.push_back(std::move(row));
    return rows_.back();
  }

  // Of no unit: whatever is folded, it stays.
  static Row row_of(const story::Gap& gap) {
    Row row;
    row.kind = Kind::kWords;
    row.from = row.until = gap.at;
    row.text = printable(gap.text);
    row.lines = gap.lines;
    row.key = "gap " + row.text;
    return row;
  }

  void tell(const Step& step) {
    if (is_of_transfer(step.kind) && step.thread != kNone) {
      if (detail_ < Detail::kTransfersInARow) {
        if (adds_short_) add_short(step);
        tell_of_transfer(step);
      } else if (first_of_transfer_[step.thread] == place_) {
        tell_transfer(step);
      }
    } else if (is_of_connection(step.kind) && step.thread != kNone) {
      if (detail_ == Detail::kEverything) {
        tell_of_connection(step);
      } else if (first_of_connection_[step.thread] == place_) {
        tell_connection(step);
      }
    } else {
      tell_else(step);
    }
  }

  // A transfer of one step is short already.
  void add_short(const Step& step) {
    if (first_of_transfer_[step.thread] != place_ || last_of_transfer_[step.thread] == place_) return;
    tell_transfer(step);
    rows_.back().is_short = true;
  }

  void tell_else(const Step& step) {
    const std::string text = step_in_words(reading_, step);
    switch (step.kind) {
      case Step::Kind::kRunBegins:
        if (!rows_.empty()) add(Kind::kWords, step, text);
        break;
      case Step::Kind::kStationEnds:
        add(Kind::kStationEnd, step, text);
        break;
      case Step::Kind::kLine:
        // Without words there is nothing to stand in the picture.
        if (step.said.text.find_first_not_of(" \t\r\n") != std::string::npos) add(Kind::kOutput, step, text);
        break;
      case Step::Kind::kBoardCall:
        add(Kind::kBoardCall, step, text);
        break;
      case Step::Kind::kCut:
        add(Kind::kCut, step, text);
        break;
      case Step::Kind::kTimeout:
        add(Kind::kWords, step, text);
        break;
      case Step::Kind::kDrops:
        add(Kind::kWords, step, text).times = 1;
        break;
      case Step::Kind::kBootScript:
        add(Kind::kArrow, step, text, Look::kBroadcast);
        break;
      case Step::Kind::kOtherClosedPort:
        add(Kind::kArrow, step, text, Look::kClosedPort);
        break;
      case Step::Kind::kRelayed:
        add(Kind::kArrow, step, text);
        break;
      case Step::Kind::kDatagram:
        add(Kind::kArrow, step, text, step.target == story::kEveryone ? Look::kBroadcast : Look::kDatagram);
        break;
      default:
        add(Kind::kWords, step, text);
    }
  }

  Look look_of(const Transfer& transfer) const {
    return transfer.verdict != kNone && transfer.client != story::kStation ? Look::kVerdict : Look::kDatagram;
  }

  // One step of a transfer; the last one says how it ended.
  void tell_of_transfer(const Step& step) {
    const Transfer& transfer = reading_.transfers[step.thread];
    if (step.kind == Step::Kind::kClosedPort) return tell_closed_port(step);
    if (step.kind == Step::Kind::kBlocks && !few_blocks_in_words(transfer)) return tell_band(step, transfer);
    std::string text = step_in_words(reading_, step);
    const Look look = step.kind == Step::Kind::kRequest ? look_of(transfer) : Look::kDatagram;
    if (transfer.second_answer_of != kNone) add_words(&text, "for " + printable(transfer.name));
    const bool is_unanswered = transfer.end == Transfer::End::kUnanswered;
    const std::size_t told_with =
        is_unanswered ? first_of_transfer_[step.thread] : last_of_transfer_[step.thread];
    if (told_with == place_) add_words(&text, end_in_words(reading_, transfer));
    Row& row = add(Kind::kArrow, step, text, look);
    if (step.kind != Step::Kind::kBlocks) return;
    if (transfer.blocks == 0) std::swap(row.source, row.target);
    if (transfer.blocks == 0) return;
    row.times = 1;
    row.until = row.from;
  }

  void tell_band(const Step& step, const Transfer& transfer) {
    Row& row =
        add(Kind::kBand, step, transfer.name.empty() ? request_in_words(transfer) : printable(transfer.name));
    row.facts = facts_of(reading_, transfer);
    row.thread = step.thread;
    row.times = 1;
    row.is_inferred = transfer.kind == Transfer::Kind::kMidway || transfer.is_end_inferred;
    row.key += std::to_string(transfer.bytes) + end_in_words(reading_, transfer);
    Row end;
    end.kind = Kind::kBandEnd;
    end.from = end.until = step.until;
    end.source = step.source;
    end.target = step.target;
    end.thread = end.transfer = step.thread;
    end.frames = step.frames;
    end.turn = row.turn;
    end.text = "end of " + row.text;
    const std::string client = name_of(reading_, transfer.client);
    if (client.rfind("the ", 0) != 0) add_words(&end.text, client);
    end.key = end.text;
    rows_.push_back(end);
  }

  void tell_closed_port(const Step& step) {
    const bool harmless = is_harmless(reading_, step);
    Row& row = add(Kind::kArrow, step, step_in_words(reading_, step),
                   harmless ? Look::kHarmless : Look::kClosedPort);
    if (harmless) row.key = "harmless " + std::to_string(step.target);
  }

  void tell_transfer(const Step& step) {
    const Transfer& transfer = reading_.transfers[step.thread];
    const bool is_long = transfer.blocks > 0 && transfer.bytes > 0;
    Row& row =
        add(is_long ? Kind::kBand : Kind::kArrow, step, in_short(reading_, transfer), look_of(transfer));
    row.until = std::max(row.until, transfer.until);
    row.thread = step.thread;
    row.frames = transfer.frames;
    row.key = std::to_string(transfer.client) + request_in_words(transfer) + end_in_words(reading_, transfer);
    const bool to_client = is_long && transfer.kind != Transfer::Kind::kWrite;
    row.source = to_client ? transfer.server : transfer.client;
    row.target = to_client ? transfer.client : transfer.server;
    row.times = transfer.requests > 1 && !transfer.answered ? transfer.requests : 1;
    const auto mark = outcome_.marks.find(marked_of_transfer_[step.thread]);
    if (mark != outcome_.marks.end()) std::tie(row.mark, row.mark_words) = mark->second;
  }

  void tell_of_connection(const Step& step) {
    const Connection& connection = reading_.connections[step.thread];
    add(Kind::kArrow, step, step_in_words(reading_, step), Look::kTcp);
    if (step.kind == Step::Kind::kConnect && connection.opened) tell_accepted(step, connection);
  }

  void tell_accepted(const Step& connect, const Connection& connection) {
    Step accepts = connect;
    accepts.from = accepts.until = *connection.opened;
    accepts.source = connection.server;
    accepts.target = connection.client;
    accepts.count = 1;
    accepts.lost = accepts.duplicated = accepts.swapped = 0;
    add(Kind::kArrow, accepts, "accepts the connection", Look::kTcp);
  }

  // Its opening, with all that was said; what was said last, or its end. The server's only answer is part of the end.
  void tell_connection(const Step& first) {
    const Connection& connection = reading_.connections[first.thread];
    const bool is_exchange = is_one_exchange(connection);
    const std::string ending = closing_in_words(reading_, connection, closes_[first.thread] > 1);
    Step step = first;
    step.source = connection.client;
    step.target = connection.server;
    step.frames = connection.frames;
    if (first.kind != Step::Kind::kConnect) step.count = 1;
    std::string text = opening_in_words(connection, !is_exchange);
    const bool is_short = detail_ >= Detail::kTransfersInARow || connection.attempts > 1 ||
                          connection.state == Connection::State::kRefused;
    if (is_short && is_exchange) add_words(&text, "is told " + answers_in_words(connection));
    if (is_short || (!is_exchange && !connection.ended)) add_words(&text, ending);
    add(Kind::kArrow, step, text, Look::kTcp);
    if (is_short || (!is_exchange && !connection.ended)) return;
    step.count = 1;
    step.lost = step.duplicated = step.swapped = 0;
    if (is_exchange) {
      const auto& texts = connection.texts;
      step.from =
          std::find_if(texts.begin(), texts.end(), [](const auto& one) { return !one.is_from_client; })->at;
      text = answers_in_words(connection);
      add_words(&text, ending);
    } else {
      step.from = *connection.ended;
      text = ending;
    }
    const bool is_by_client = !is_exchange && connection.ended_by == connection.client;
    step.source = is_by_client ? connection.client : connection.server;
    step.target = is_by_client ? connection.server : connection.client;
    step.until = step.from;
    add(Kind::kArrow, step, text, Look::kTcp);
  }

  const Reading& reading_;
  const Choice& choice_;
  const Detail detail_;
  const Outcome& outcome_;
  const bool adds_short_;
  std::vector<std::size_t> first_of_transfer_;  // steps
  std::vector<std::size_t> last_of_transfer_;
  std::vector<std::size_t> marked_of_transfer_;
  std::vector<std::size_t> first_of_connection_;
  std::vector<int> closes_;  // of connections
  std::size_t place_ = 0;    // of the step that is told
  std::vector<Row> rows_;
};

// The end of a band that goes on until nothing else has begun is told by the band.
void drop_ends_of_whole_bands(std::vector<Row>* rows) {
  std::vector<Row> kept;
  for (Row& row : *rows) {
    const bool is_told = row.kind == Kind::kBandEnd && !kept.empty() && kept.back().kind == Kind::kBand &&
                         kept.back().thread == row.thread;
    if (is_told) {
      kept.back().is_whole = true;
    } else {
      kept.push_back(std::move(row));
    }
  }
  *rows = std::move(kept);
}

void leave_out_the_middle(std::vector<Row>* rows) {
  if (rows->size() <= kMaxRows) return;
  const auto begin = rows->begin() + kMaxRows / 2;
  const auto end = rows->end() - kMaxRows / 2;
  Row gap;
  gap.kind = Kind::kWords;
  gap.from = begin->from;
  gap.until = (end - 1)->until;
  gap.text = counted(static_cast<std::uint64_t>(end - begin), "further row") + " left out";
  gap.key = gap.text;
  *begin = gap;
  rows->erase(begin + 1, end);
}

// Whether something that is drawn only once, folded or as a band, may have gone on in that time.
bool something_goes_on(const std::vector<Row>& rows, Nanoseconds from, Nanoseconds until) {
  return std::any_of(rows.begin(), rows.end(), [from, until](const Row& row) {
    return (row.times > 1 || row.kind == Kind::kBand) && row.from < until && row.until > from;
  });
}

std::vector<Row> with_pauses(std::vector<Row> rows) {
  std::vector<Row> result;
  Nanoseconds busy_until = rows.empty() ? 0 : rows.front().from;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Row& row = rows[i];
    if (row.from - busy_until > kLongestRest) {
      Row pause;
      pause.kind = Kind::kPause;
      pause.from = busy_until;
      pause.until = row.from;
      pause.text = seconds(row.from - busy_until, 1) + " s nothing" +
                   (something_goes_on(rows, busy_until, row.from) ? " else" : "");
      result.push_back(pause);
    }
    // A band that is divided does not keep others from beginning.
    const bool is_divided = row.kind == Kind::kBand && i + 1 < rows.size() && rows[i + 1].from < row.until;
    busy_until = std::max(busy_until, is_divided ? row.from : row.busy_until());
    result.push_back(row);
  }
  return result;
}

}  // namespace

std::vector<Row> rows_of(const Reading& reading, const Choice& choice, Detail detail,
                         const Outcome& outcome) {
  std::vector<Row> rows = Teller(reading, choice, detail, outcome).told();
  if (detail >= Detail::kUnitsInARow) {
    rows = with_units_folded(std::move(rows), reading, outcome, detail == Detail::kUnitsTogether);
  }
  drop_ends_of_whole_bands(&rows);
  if (detail >= Detail::kRepetitionsFolded) rows = with_repetitions_folded(std::move(rows));
  leave_out_the_middle(&rows);
  return detail >= Detail::kUnitsInARow ? rows : with_pauses(std::move(rows));
}

std::vector<Row> rows_to_fold(const Reading& reading, const Outcome& outcome) {
  std::vector<Row> rows = Teller(reading, {}, Detail::kEverything, outcome, true).told();
  drop_ends_of_whole_bands(&rows);
  if (rows.size() > kMaxRows) rows = with_repetitions_folded(std::move(rows));
  leave_out_the_middle(&rows);
  return with_pauses(std::move(rows));
}

}  // namespace picture
