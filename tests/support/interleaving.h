#ifndef SUPPORT_INTERLEAVING_H
#define SUPPORT_INTERLEAVING_H

#include <set>
#include <string>
#include <vector>

// Whether the text is exactly what these threads wrote: each thread's text whole and in its own order,
// nothing besides, and any order between threads. They share one output without a lock, so that even a line
// of one can be cut by another.
inline bool is_interleaving(const std::string& text, const std::vector<std::string>& threads) {
  std::set<std::vector<std::size_t>> reached = {std::vector<std::size_t>(threads.size(), 0)};
  for (const char character : text) {
    std::set<std::vector<std::size_t>> next;
    for (const std::vector<std::size_t>& positions : reached) {
      for (std::size_t i = 0; i < threads.size(); ++i) {
        if (positions[i] == threads[i].size() || threads[i][positions[i]] != character) continue;
        std::vector<std::size_t> further = positions;
        ++further[i];
        next.insert(std::move(further));
      }
    }
    reached = std::move(next);
  }
  std::vector<std::size_t> whole;
  for (const std::string& thread : threads) whole.push_back(thread.size());
  return reached.count(whole) == 1;
}

#endif
