#ifndef EXPLANATION_CAUSES_H
#define EXPLANATION_CAUSES_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace explanation {

// Who is to do something about it.
enum class Owner { kNone, kUnit, kTestNetwork, kPptServer, kBoard, kStation, kOperator, kUnknown };

// "ppt-server", as it stands in a result; "PPT server", as it is told to people.
std::string_view name_of(Owner owner);
std::string_view words_for(Owner owner);

// What a cause can be the fault of.
enum class Weight {
  kDecides,   // the run: it could not begin, or came to its end by it
  kExplains,  // a step that fails after it, or that the unit comes no further
  kEnds,      // that a run ended without a verdict which nothing else hindered
  kAlso,      // nothing
  kNoFault,   // what is left where no cause of another weight was found
};

// "decides", "explains", "ends", "also" or "no-fault".
std::string_view name_of(Weight weight);

struct Cause {
  std::string_view id;  // stays the same for good
  Owner owner;
  Weight weight;
  // Sentences; {word:default} in them stands for what the run says (filled).
  std::string_view meaning;
  std::string_view advice;  // what to do; empty: nothing
};

// With the words of a run in their places, and the default of those that it does not know. A blank that follows an
// empty word goes with it.
using Words = std::map<std::string_view, std::string>;
std::string filled(std::string_view text, const Words& words = {});

// All of them. Of several with one weight that explain the same, the first one is the fault.
const std::vector<Cause>& causes();

// The one with this id. Throws std::out_of_range where there is none.
const Cause& cause(std::string_view id);

}  // namespace explanation

#endif
