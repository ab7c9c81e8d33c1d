#ifndef PICTURE_PICTURE_H
#define PICTURE_PICTURE_H

#include <cstddef>
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

  std::string heading;  // before the run's title, printable
  // A step that has this written at it, printable; that row stands out.
  struct Remark {
    std::size_t step = story::kNone;
    std::string words;
  };
  std::optional<Remark> remark;
};

// The run as an SVG document, a sequence diagram with the time downwards. Equal readings give equal bytes.
std::string picture_of(const story::Reading& reading, const Choice& choice = {});

// Two runs, one on the left and one on the right.
struct Side {
  const story::Reading& reading;
  Choice choice;
};
std::string picture_of(const Side& left, const Side& right);

}  // namespace picture

#endif
