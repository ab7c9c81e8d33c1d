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

}  // namespace

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
  const bool is_asked = std::all_of(c.lines.begin(), c.lines.end(),
                                    [&c](const Case::Line& line) { return c.is_asked_in(line); });
  if (c.sees_test_network() && (!is_asked || c.lacks_a_side()))
    lacking.emplace_back("frames of one side of the test network");
  for (const story::Network& network : reading.networks) {
    if (network.dropped.value_or(0) == 0) continue;
    lacking.push_back(frames::counted(*network.dropped, "frame") + " that the kernel dropped on " +
                      (network.name.empty() ? "a network" : frames::printable(network.name)));
  }
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
