#ifndef SCENARIO_WRITING_H
#define SCENARIO_WRITING_H

#include <string>
#include <string_view>
#include <vector>

#include "explanation/explanation.h"
#include "scenario/script.h"
#include "story/reading.h"

namespace scenario {

inline constexpr std::uint16_t kRelayPort = 12345;

// What all that write know, and what they write.
struct Writing {
  const story::Reading& reading;
  const explanation::Explanation& told;
  std::vector<std::size_t> units;  // as many as the language has; the first one gave the first verdict
  std::vector<const story::Step*> disturbances;  // a cable taken out, a station stopped, and its end
  const Contents* contents;                      // null: files are random ones
  Script script;
  bool waits_by_chance = false;  // the station does, for answers of the PPT server that are lost

  const explanation::Claim* claim_of(std::string_view cause) const;  // null: it was not found
  bool has_cause(std::string_view id) const { return claim_of(id) != nullptr; }
  bool has_unit(std::size_t party) const;
  // Whether what came of it is awaited: of one of these units, or of one that no frame shows.
  bool awaits(std::size_t party) const { return party == story::kNone || has_unit(party); }
  // A step's form, which begins with "unit", as one of this unit's: "unit b reads NAME".
  std::string of_unit(std::size_t party, const std::string& form) const;
};

// The station's wait broke off, not by its own alarm: its process was stopped and continued.
bool is_interruption(const story::Reading& reading, const story::Step& step);

void write_board(Writing* writing);  // and the station's start
void write_ppt_server(Writing* writing);
void write_commands(Writing* writing);  // and datagrams
void write_end(Writing* writing);
// The last one: what happens in the midst of a read splits it.
void write_reads(Writing* writing);

}  // namespace scenario

#endif
