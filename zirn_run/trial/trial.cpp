#include "trial/trial.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <utility>
#include <variant>

#include "frames/words.h"
#include "record/run_entry.h"
#include "recorder/clock.h"
#include "recorder/recorder.h"
#include "recorder/run.h"
#include "station/addresses.h"
#include "trial/narrator.h"

namespace trial {

namespace {

constexpr char kTestLink[] = "lan0";

// The link with the address; empty: none.
std::string link_with(const std::string& address) {
  for (const station::OwnAddress& own : station::own_addresses()) {
    if (own.address == address) return station::link_of(own.label);
  }
  return "";
}

// Hears the station's lines on their way to the recorder.
class TestedRun : public recorder::Run, private recorder::Lines {
 public:
  TestedRun(const Options& options, Station* station, const Listener& listener, story::Story* story)
      : options_(options),
        station_(station),
        listener_(listener),
        story_(story),
        narrator_(story->reading(), [this](record::Nanoseconds at, const std::string& text) {
          listener_.happens(stamped(at) + text);
        }) {}

  recorder::Lines* begin() override {
    began_ = recorder::now();
    station_->begin();
    began_at_ = Clock::now();
    return this;
  }
  void take(const record::Item& item) override;
  void end(int signal) override;
  void look() override;
  bool has_ended() const { return has_ended_; }

 private:
  using Clock = std::chrono::steady_clock;

  int descriptor() const override { return station_->descriptor(); }
  void receive(const Take& take) override;
  std::string stamped(record::Nanoseconds at) const;
  void end_station(int signal, const std::string& why);
  void time_out();

  const Options& options_;
  Station* const station_;
  const Listener& listener_;
  story::Story* const story_;
  Narrator narrator_;
  record::Nanoseconds began_ = 0;
  Clock::time_point began_at_;
  std::optional<Clock::time_point> ending_since_;
  std::vector<record::Entry> own_;  // that the recorder has not received yet
  bool is_killed_ = false;
  bool has_ended_ = false;
};

std::string TestedRun::stamped(record::Nanoseconds at) const {
  char text[40];
  std::snprintf(text, sizeof text, "%9.3f s  ", static_cast<double>(at - began_) / 1e9);
  return text;
}

void TestedRun::receive(const Take& take) {
  for (const record::Entry& entry : own_) take(entry);
  own_.clear();
  station_->receive([&](const record::Entry& entry) {
    const auto said = record::said_by(entry);
    const auto* const line = said ? std::get_if<record::Line>(&*said) : nullptr;
    if (line != nullptr) listener_.prints(stamped(entry.at) + "| " + frames::printable(line->text));
    take(entry);
  });
}

void TestedRun::take(const record::Item& item) {
  const auto* const entry = std::get_if<record::Entry>(&item);
  if (entry == nullptr) return story_->take(item);
  narrator_.look();  // what came before it
  story_->take(item);
  const auto said = record::said_by(*entry);
  if (!said) return;
  const auto* const line = std::get_if<record::Line>(&*said);
  if (line != nullptr) narrator_.hear(line->text, entry->at);
  has_ended_ = has_ended_ || std::holds_alternative<record::StationEnds>(*said);
}

void TestedRun::end(int signal) {
  if (ending_since_) return end_station(SIGKILL, "again asked to end: the station is killed");
  end_station(signal == SIGINT ? SIGINT : SIGTERM,
              std::string(strsignal(signal)) + ": the station is asked to end");
}

void TestedRun::end_station(int signal, const std::string& why) {
  if (is_killed_ || has_ended_) return;
  listener_.happens(stamped(recorder::now()) + why);
  if (!ending_since_) ending_since_ = Clock::now();
  is_killed_ = signal == SIGKILL;
  station_->end(signal);
}

void TestedRun::time_out() {
  const auto after = std::chrono::duration_cast<std::chrono::nanoseconds>(*options_.longest);
  own_.push_back(entry_of(record::Timeout{after.count()}, recorder::now()));
  end_station(SIGTERM, "it takes longer than it may: the station is asked to end");
}

void TestedRun::look() {
  narrator_.look();
  listener_.progress(narrator_.progress());
  const auto now = Clock::now();
  if (!ending_since_ && options_.longest && now - began_at_ > *options_.longest) time_out();
  if (ending_since_ && now - *ending_since_ > Station::kPatience)
    end_station(SIGKILL, "it does not end: the station is killed");
}

}  // namespace

station::Words links_of(const station::Station& station) {
  station::Words links;
  for (const std::string& link :
       {std::string(kTestLink), link_with(station::kFixedAddress), link_with(station.address),
        link_with(station::way_to(station.ppt_server))}) {
    if (!link.empty() && std::find(links.begin(), links.end(), link) == links.end()) links.push_back(link);
  }
  return links;
}

bool test(const Options& options, Station* station, const Listener& listener, story::Story* story) {
  recorder::Options recorded;
  recorded.links = links_of(station::station_of(options.station));
  recorded.station = options.station;
  recorded.unit = options.unit;
  recorded.output = options.record;
  TestedRun run(options, station, listener, story);
  bool is_whole = false;
  try {
    is_whole = recorder::record(recorded, &run);
  } catch (const std::exception& error) {
    if (!run.has_ended()) throw;
    std::cerr << "zirn-run: " << error.what() << std::endl;
  }
  story->finish(false);
  return is_whole;
}

}  // namespace trial
