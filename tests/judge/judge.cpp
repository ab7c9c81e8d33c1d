// judge FOLDER
//
// Judges whose fault the runs are of which the folder has NAME.run, made by chance, and the record NAME.pcapng: with all
// that is in the record, and with parts of it taken away. Prints each wrong owner, what was found for each owner that a
// scenario states, and how often the owner was right, unknown or wrong. Exit status: 1 where an owner is wrong, or more
// than one in twenty of the whole records is unknown that was not to be.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <variant>

#include "explanation/explanation.h"
#include "record/reader.h"
#include "record/run_entry.h"
#include "story/story.h"

namespace {

namespace fs = std::filesystem;

constexpr char kUnit[] = "\xac\x28\x00\x02";  // the addresses of the bench
constexpr char kStation[] = "\xac\x28\x00\x01";
constexpr char kStationAtPpt[] = "\xac\x1e\x00\x01";
constexpr std::uint32_t kPptLink = 1;
constexpr char kUnknown[] = "unknown";

struct Lacking {
  const char* words;
  bool lines = false;
  bool ppt_link = false;
  bool from_unit = false;
  bool from_station = false;
};
constexpr Lacking kLacking[] = {
    {"whole"},
    {"without lines", true},
    {"without the PPT link", false, true},
    {"without the unit's frames", false, false, true},
    {"without the station's frames", false, false, false, true},
    {"without lines and PPT link", true, true},
    {"without lines and the unit's frames", true, false, true},
    {"without lines and the station's frames", true, false, false, true},
};

struct Counts {
  int right = 0, unknown = 0, wrong = 0;
};

bool is_from(const record::Frame& frame, const char* address) {
  constexpr std::size_t kTypeAt = 12, kSourceAt = 26, kAddressBytes = 4;
  const std::string_view bytes = frame.bytes;
  return bytes.size() >= kSourceAt + kAddressBytes &&
         bytes.substr(kTypeAt, 2) == std::string_view("\x08\0", 2) &&
         bytes.substr(kSourceAt, kAddressBytes) == std::string_view(address, kAddressBytes);
}

bool is_lacking(const record::Item& item, const Lacking& lacks) {
  const auto* const frame = std::get_if<record::Frame>(&item);
  if (frame == nullptr) return lacks.lines && std::holds_alternative<record::Entry>(item);
  return (lacks.ppt_link && frame->interface == kPptLink) || (lacks.from_unit && is_from(*frame, kUnit)) ||
         (lacks.from_station && (is_from(*frame, kStation) || is_from(*frame, kStationAtPpt)));
}

explanation::Claim fault_in(const fs::path& record, const Lacking& lacks) {
  std::ifstream file(record, std::ios::binary);
  record::Reader reader(file);
  story::Story story;
  while (const auto item = reader.next()) {
    if (!is_lacking(*item, lacks)) story.take(*item);
  }
  story.finish(false);
  return explanation::explain(story.reading()).fault;
}

// That the scenario states; empty for a text that is none.
std::string owner_in(const fs::path& scenario) {
  std::ifstream file(scenario);
  std::string owner;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("fault is ", 0) == 0) std::istringstream(line.substr(9)) >> owner;
  }
  return owner;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !fs::is_directory(argv[1])) {
    std::cerr << "judge: expected a folder of scenarios and records\n";
    return 2;
  }
  std::map<std::string, std::map<std::string, int>> found;
  std::map<const char*, Counts> counts;
  for (const fs::directory_entry& entry : fs::directory_iterator(argv[1])) {
    const fs::path record = fs::path(entry.path()).replace_extension(".pcapng");
    if (entry.path().extension() != ".run" || !fs::exists(record)) continue;
    const std::string expected = owner_in(entry.path());
    for (const Lacking& lacks : kLacking) {
      const explanation::Claim fault = fault_in(record, lacks);
      const std::string owner(name_of(fault.cause->owner));
      if (&lacks == kLacking) ++found[expected][owner];
      Counts& count = counts[lacks.words];
      ++(owner == expected ? count.right : owner == kUnknown ? count.unknown : count.wrong);
      if (owner != expected && owner != kUnknown)
        std::cout << entry.path().stem().string() << ", " << lacks.words << ": expected " << expected
                  << ", found " << owner << " (" << fault.cause->id
                  << "): " << fault.statements.front().sentence << '\n';
    }
  }
  for (const auto& [expected, owners] : found) {
    std::cout << expected << ':';
    for (const auto& [owner, count] : owners) std::cout << ' ' << owner << ' ' << count;
    std::cout << '\n';
  }
  int wrong = 0;
  for (const Lacking& lacks : kLacking) {
    const Counts& count = counts[lacks.words];
    std::cout << lacks.words << ": right " << count.right << ", unknown " << count.unknown << ", wrong "
              << count.wrong << '\n';
    wrong += count.wrong;
  }
  const Counts& whole = counts[kLacking[0].words];
  const bool is_too_little = whole.unknown * 20 > whole.right + whole.unknown + whole.wrong;
  return wrong > 0 || is_too_little || whole.right == 0 ? 1 : 0;
}
