// What a record lacks.
#include <algorithm>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

// Whether the station had something to say to the PPT server, of which no frame is there.
bool lacks_ppt_network(const Case& c) {
  const bool is_due = std::any_of(c.verdicts.begin(), c.verdicts.end(), [](const Case::Verdict& verdict) {
    return !story::is_final(verdict.says);
  });
  const auto& transfers = c.reading.transfers;
  return is_due && std::none_of(transfers.begin(), transfers.end(),
                                [](const auto& transfer) { return transfer.client == story::kStation; });
}

constexpr std::size_t kMostGaps = 4;  // that are told one by one

std::string_view link_in(std::string_view why) {
  return why.substr(0, why.find_first_of(": "));
}

// Those without the link's frames have come to their end.
void close_gaps(std::string_view link, Nanoseconds at, std::vector<Gap>* gaps) {
  for (Gap& gap : *gaps) {
    const bool is_of_frames = gap.what == record::kFramesMissing || gap.what == record::kFramesNeverCame;
    if (is_of_frames && !gap.until && link_in(gap.why) == link) gap.until = at;
  }
}

// "frames from 3.1 s to 5.2 s: lan0 is gone or down"
std::string in_words(const Case& c, const Gap& gap) {
  const std::string time =
      " from " + moment(c, gap.from) + (gap.until ? " to " + moment(c, *gap.until) : " on") + ": ";
  const std::string why = frames::printable_sentence(gap.why);
  if (gap.what == record::kAllMissing) return "all" + time + why;
  if (gap.what == record::kLinesMayMiss) return "lines, perhaps," + at(c, gap.from) + ": " + why;
  return gap.what.empty() ? why + at(c, gap.from) : "frames" + time + why;
}

void tell_gaps(const Case& c, std::vector<std::string>* lacking) {
  const std::vector<Gap> gaps = gaps_in(c.reading);
  const std::size_t told = std::min(gaps.size(), kMostGaps);
  for (std::size_t i = 0; i < told; ++i) lacking->push_back(in_words(c, gaps[i]));
  if (gaps.size() > told)
    lacking->push_back("more, as the recorder says " + frames::counted(gaps.size() - told, "further time"));
}

}  // namespace

std::vector<Gap> gaps_in(const story::Reading& reading) {
  std::vector<Gap> gaps;
  for (const story::Gap& told : reading.gaps) {
    Gap gap = {told.at, std::nullopt, "", told.text};
    for (const std::string_view what : {record::kFramesNeverCame, record::kFramesMissing, record::kFramesBack,
                                        record::kLinesMayMiss, record::kAllMissing}) {
      if (gap.why.substr(0, what.size()) == what) gap.what = what;
    }
    gap.why.remove_prefix(gap.what.size());
    if (gap.what == record::kFramesBack) {
      close_gaps(link_in(gap.why), told.at, &gaps);
    } else {
      gaps.push_back(gap);
    }
  }
  return gaps;
}

bool Case::has_gap(Nanoseconds from, Nanoseconds until) const {
  const std::vector<Gap> gaps = gaps_in(reading);
  return std::any_of(gaps.begin(), gaps.end(), [from, until](const Gap& gap) {
    const bool hides = gap.what == record::kFramesMissing || gap.what == record::kAllMissing;
    return hides && gap.from <= until && gap.until.value_or(until) >= from;
  });
}

std::vector<std::string> incomplete(const Case& c) {
  const story::Reading& reading = c.reading;
  std::vector<std::string> lacking;
  const bool has_lines = std::any_of(c.lines.begin(), c.lines.end(),
                                     [](const Case::Line& line) { return line.printed != nullptr; });
  if (!has_lines) lacking.emplace_back("the station's lines");
  if (!reading.has_frames) lacking.emplace_back("the frames");
  if (reading.has_frames && !c.sees_test_network()) lacking.emplace_back("the frames of the test network");
  if (reading.has_frames && lacks_ppt_network(c))
    lacking.emplace_back("the frames of the PPT server's network");
  const bool is_asked =
      std::all_of(c.lines.begin(), c.lines.end(), [](const Case::Line& line) { return line.is_shown; });
  if (c.sees_test_network() && (!is_asked || c.lacks_a_side()))
    lacking.emplace_back("frames of one side of the test network");
  for (const story::Network& network : reading.networks) {
    if (network.dropped.value_or(0) == 0) continue;
    lacking.push_back(frames::counted(*network.dropped, "frame") + " that the kernel dropped on " +
                      (network.name.empty() ? "a network" : frames::printable(network.name)));
  }
  tell_gaps(c, &lacking);
  if (reading.not_whole > 0)
    lacking.push_back("the rest of " + frames::counted(reading.not_whole, "packet") +
                      " that the capture cut");
  if (reading.is_cut_short) lacking.emplace_back("its end: the file is cut short or damaged");
  if (reading.left_out > 0)
    lacking.push_back(frames::counted(reading.left_out, "thing") + " for which there was no room");
  if (!reading.station_end) lacking.emplace_back("how the station ended");
  return lacking;
}

}  // namespace explanation
