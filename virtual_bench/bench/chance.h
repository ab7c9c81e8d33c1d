#ifndef BENCH_CHANCE_H
#define BENCH_CHANCE_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>

// Draws from a seed: the same ones on every machine.
class Chance {
 public:
  explicit Chance(std::uint64_t seed) : generator_(seed) {}

  // A number from least to most, each as likely.
  int between(int least, int most) {
    const auto numbers = static_cast<std::uint64_t>(most - least + 1);
    return least + static_cast<int>((generator_() >> 32) * numbers >> 32);
  }
  bool one_in(int count) { return between(1, count) == 1; }
  // One of what a container or array holds.
  template <typename List>
  const auto& one_of(const List& list) {
    return list[static_cast<std::size_t>(between(0, static_cast<int>(std::size(list)) - 1))];
  }
  // One of a list of things that have a weight, each as likely as its share of all the weight.
  template <typename List>
  const auto& by_weight(const List& list) {
    int all = 0;
    for (const auto& thing : list) all += thing.weight;
    int left = between(1, all);
    std::size_t at = 0;
    while ((left -= list[at].weight) > 0) ++at;
    return list[at];
  }

 private:
  std::mt19937_64 generator_;
};

#endif
