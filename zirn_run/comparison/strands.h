#ifndef COMPARISON_STRANDS_H
#define COMPARISON_STRANDS_H

#include <map>
#include <string>
#include <vector>

#include "comparison/comparison.h"

namespace comparison {

// What a record can know.
struct Known {
  bool networks = false;
  bool ppt_network = false;
  bool lines = false;
  bool board = false;
  bool end = false;
};
Known known_of(const story::Reading& reading);

// What somebody did, one thing after the other. Between strands there is no order: who works side by side is the
// faster one now and then.
struct Strand {
  struct Item {
    std::string words;  // the sentence as it is, any bytes
    Event event;
    std::size_t certain = std::string::npos;  // so much of the words does not depend on the moment
  };
  bool is_ordered = true;  // false: each item is there once, anywhere
  std::vector<Item> items;
};

// By name. `known`: what is to be told.
std::map<std::string, Strand> strands_of(const story::Reading& reading, const Known& known);

}  // namespace comparison

#endif
