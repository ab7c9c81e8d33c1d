#ifndef TRIAL_NARRATOR_H
#define TRIAL_NARRATOR_H

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "story/reading.h"

namespace trial {

// Says in plain words what happens in a run, as its reading grows. What it says is safe in a terminal, and no more than
// kMostSaid of it, but for verdicts.
class Narrator {
 public:
  using Say = std::function<void(record::Nanoseconds at, const std::string& text)>;
  static constexpr std::size_t kMostSaid = 2000;

  // The reading must outlive it.
  Narrator(const story::Reading& reading, Say say) : reading_(reading), say_(std::move(say)) {}

  // Says what the frames have shown since the last look.
  void look();
  // Says what the station's line means, if that is of use.
  void hear(const std::string& line, record::Nanoseconds at);
  // How far the unit's read is that goes on: "unit 172.40.0.7 reads kernel.img: 3.1 of 5.2 MB"; empty: none does.
  std::string progress() const;

 private:
  // A thing that something may still be said of.
  struct Open {
    std::size_t place = 0;
    std::size_t told = 0;  // of it
  };
  struct Watched {
    std::size_t seen = 0;  // so many of the list
    std::vector<Open> open;
  };

  // Lets `tell` look at what is new or open; it says whether no more will be said of it.
  template <typename Thing, typename Tell>
  void look_at(const std::vector<Thing>& things, Watched* watched, const Tell& tell);
  bool tell(const story::Transfer& transfer, std::size_t* told);
  bool tell(const story::Connection& connection, std::size_t* told);
  bool tell(const story::Relayed& relayed, std::size_t* told);
  void tell_end_of_read(const story::Transfer& transfer);
  bool tell_query(const story::Transfer& query);
  bool tell_ppt_connection(const story::Connection& connection);
  void say(record::Nanoseconds at, const std::string& text);
  std::string unit(std::size_t party) const;

  const story::Reading& reading_;
  const Say say_;
  Watched transfers_, connections_, relayed_;
  std::size_t said_ = 0;
};

}  // namespace trial

#endif
