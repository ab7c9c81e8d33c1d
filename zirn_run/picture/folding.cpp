#include "picture/folding.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <utility>

#include "frames/words.h"
#include "picture/telling.h"
#include "picture/words.h"

namespace picture {

namespace {

using frames::counted;

void add_counts(const Row& more, Row* row) {
  row->lost += more.lost;
  row->duplicated += more.duplicated;
  row->swapped += more.swapped;
  row->until = std::max(row->until, more.until);
  row->frames.add(more.frames);
  row->lines.add(more.lines);
}

// What the rows say, as numbers: equal ones are equal.
std::vector<std::size_t> numbers_of(const std::vector<Row>& rows) {
  std::map<std::string, std::size_t> numbers;
  std::vector<std::size_t> result;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const std::string unique = rows[i].mark == Mark::kUnmarked ? "" : "\n" + std::to_string(i);
    result.push_back(numbers.emplace(rows[i].key + unique, numbers.size()).first->second);
  }
  return result;
}

// How often the group of so many rows that begins there comes, one after the other.
std::size_t times_of(const std::vector<std::size_t>& numbers, std::size_t begin, std::size_t group) {
  const auto sorted = [&](std::size_t from) {
    const auto first = numbers.begin() + static_cast<std::ptrdiff_t>(from);
    std::vector<std::size_t> part(first, first + static_cast<std::ptrdiff_t>(group));
    std::sort(part.begin(), part.end());
    return part;
  };
  if (begin + kLeastTimes * group > numbers.size()) return 1;
  const std::vector<std::size_t> pattern = sorted(begin);
  std::size_t times = 1;
  while (begin + (times + 1) * group <= numbers.size() && sorted(begin + times * group) == pattern) ++times;
  return times;
}

// A row that repeats itself counts in its own words, others in a row below them.
void add_folded(const std::vector<Row>& rows, std::size_t begin, std::size_t group, std::size_t times,
                std::vector<Row>* result) {
  for (std::size_t i = begin; i < begin + group; ++i) result->push_back(rows[i]);
  const Row& first = rows[begin];
  const bool counts_itself =
      group == 1 && (first.kind == Row::Kind::kArrow || first.kind == Row::Kind::kOutput ||
                     first.kind == Row::Kind::kBoardCall);
  if (!counts_itself) {
    Row fold;
    fold.kind = Row::Kind::kFold;
    fold.from = rows[begin + group].from;
    fold.group_from = first.from;
    fold.key = "fold " + std::to_string(fold.from);
    fold.times = times;
    fold.text = first.kind == Row::Kind::kUnit ? counted(times, "unit") + " PASSED" : "";
    result->push_back(fold);
  }
  Row& folded = result->back();
  for (std::size_t i = begin + group; i < begin + times * group; ++i) {
    add_counts(rows[i], &folded);
    if (counts_itself) folded.times += rows[i].times;
  }
}

std::vector<Row> with_equal_groups_folded(std::vector<Row> rows) {
  const std::vector<std::size_t> numbers = numbers_of(rows);
  std::vector<Row> result;
  for (std::size_t i = 0; i < rows.size();) {
    std::size_t best = 1;
    std::size_t times = 1;
    for (std::size_t group = 1; group <= kMaxGroup; ++group) {
      const std::size_t found = times_of(numbers, i, group);
      if (found >= kLeastTimes && found * group > times * best)
        std::tie(best, times) = std::pair(group, found);
    }
    if (times < kLeastTimes) {
      result.push_back(std::move(rows[i++]));
      continue;
    }
    add_folded(rows, i, best, times, &result);
    i += best * times;
  }
  return result;
}

struct Sums {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t lost = 0;
};

// first: the first row that it stands for.
Row unit_row(const Row& first, const story::Reading& reading, const Turn& turn, const Sums& sums,
             bool together) {
  Row row;
  row.kind = Row::Kind::kUnit;
  row.source = turn.unit;
  row.from = first.from;
  row.until = std::max(first.from, turn.until);
  const std::vector<std::uint32_t>& addresses = reading.parties[turn.unit].addresses;
  row.text = (addresses.empty() ? "a unit" : frames::dotted(addresses.front())) + " PASSED";
  row.facts = {counted(sums.files, "file") + ", " + size_in_words(static_cast<double>(sums.bytes)) + " in " +
               seconds(turn.until - turn.from, 1) + " s" +
               (sums.lost > 0 ? ", " + std::to_string(sums.lost) + " lost" : "")};
  row.key = together ? "unit" : "unit " + std::to_string(turn.last_step);
  return row;
}

}  // namespace

// What counts itself already may stand anywhere between the rows of a group, and is no part of it.
std::vector<Row> with_repetitions_folded(std::vector<Row> rows) {
  const auto counted_rows =
      std::stable_partition(rows.begin(), rows.end(), [](const Row& row) { return row.times == 1; });
  const std::vector<Row> others(counted_rows, rows.end());
  rows.erase(counted_rows, rows.end());
  const std::vector<Row> folded = with_equal_groups_folded(std::move(rows));
  std::vector<Row> all;
  std::merge(folded.begin(), folded.end(), others.begin(), others.end(), std::back_inserter(all),
             [](const Row& one, const Row& other) { return one.from < other.from; });
  return with_equal_groups_folded(std::move(all));
}

std::vector<Row> with_units_folded(std::vector<Row> rows, const story::Reading& reading,
                                   const Outcome& outcome, bool together) {
  const auto is_folded = [&](std::size_t turn) {
    return turn != kNone && outcome.turns[turn].verdict != kNone &&
           reading.verdicts[outcome.turns[turn].verdict].says == story::Verdict::Says::kPassed;
  };
  std::vector<Sums> sums(outcome.turns.size());
  for (const story::Step& step : reading.steps) {
    const std::size_t turn = outcome.turn_of_step[static_cast<std::size_t>(&step - reading.steps.data())];
    if (turn == kNone) continue;
    sums[turn].lost += step.lost;
    if (step.kind != story::Step::Kind::kBlocks || step.thread == kNone) continue;
    const std::uint64_t bytes = reading.transfers[step.thread].bytes;
    sums[turn].files += bytes > 0 ? 1 : 0;
    sums[turn].bytes += bytes;
  }
  std::vector<bool> is_told(outcome.turns.size());
  std::vector<Row> result;
  for (Row& row : rows) {
    if (!is_folded(row.turn) || row.kind == Row::Kind::kCut || row.mark == Mark::kFailed ||
        row.mark == Mark::kWrong) {
      result.push_back(std::move(row));
    } else if (!is_told[row.turn]) {
      is_told[row.turn] = true;
      result.push_back(unit_row(row, reading, outcome.turns[row.turn], sums[row.turn], together));
    }
  }
  return result;
}

}  // namespace picture
