// What a claim says of its cause, in the words of the run.
#include <algorithm>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

// The file, tool or verdict of the first finding that can explain something, or of the first one.
std::string subject_of(const Cause& cause, const Case& c) {
  const Finding* first = nullptr;
  for (const Finding& finding : c.findings) {
    if (finding.cause != &cause || finding.subject.empty()) continue;
    if (first == nullptr || (finding.can_explain && !first->can_explain)) first = &finding;
  }
  return first == nullptr ? "" : first->subject;
}

std::string ppt_server(const Case& c) {
  for (std::size_t i = 0; i < c.reading.parties.size(); ++i) {
    if (c.reading.parties[i].role == story::Role::kPptServer && !c.reading.parties[i].addresses.empty())
      return address_of(c.reading, i);
  }
  const auto starts = c.lines_with("Starting TFTP server on <ADDRESS>:<PORT> PPT Server: <ADDRESS>");
  if (starts.empty()) return "";
  return frames::printable(values_in(*starts.front()->printed, starts.front()->text).back());
}

bool lacks_envtool(const Case& c) {
  const Cause& missing = cause("board.tool-missing");
  return std::any_of(c.findings.begin(), c.findings.end(), [&](const Finding& finding) {
    return finding.cause == &missing && finding.subject == "envtool";
  });
}

Words words_of(const Cause& cause, const Case& c) {
  Words words = {{"port", std::to_string(c.reading.message_port)},
                 {"tftp-port", std::to_string(c.reading.tftp_port)}};
  if (const std::string subject = subject_of(cause, c); !subject.empty())
    words["file"] = words["tool"] = words["step"] = subject;
  if (const std::string address = ppt_server(c); !address.empty()) words["ppt"] = address;
  if (c.reading.station_end) words["end"] = "";
  if (lacks_envtool(c)) words["no-mac"] = "envtool is missing on the station's board";
  return words;
}

}  // namespace

void tell_cause(const Case& c, Claim* claim) {
  const Words words = words_of(*claim->cause, c);
  claim->meaning = filled(claim->cause->meaning, words);
  claim->advice = filled(claim->cause->advice, words);
}

}  // namespace explanation
