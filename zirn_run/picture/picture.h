#ifndef PICTURE_PICTURE_H
#define PICTURE_PICTURE_H

#include <cstdint>
#include <optional>
#include <string>

#include "record/item.h"
#include "story/reading.h"

namespace picture {

// Which part of a run is drawn, and how.
struct Choice {
  enum class Folding {
    kAsItFits,  // repetitions are folded; a long run more than a short one
    kFold,      // as much as possible
    kUnfold,    // nothing but what the story has folded already
  };

  // Since the run's first moment. What neither lasts nor happens in that time is left out.
  std::optional<record::Nanoseconds> from;
  std::optional<record::Nanoseconds> until;
  // The address of a unit: what the others do is left out.
  std::optional<std::uint32_t> unit;
  Folding folding = Folding::kAsItFits;
};

// The run as an SVG document, a sequence diagram with the time downwards. Equal readings give equal bytes.
std::string picture_of(const story::Reading& reading, const Choice& choice = {});

}  // namespace picture

#endif
