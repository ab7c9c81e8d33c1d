#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "wire/damage.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kSeed = 20240607;
constexpr std::size_t kManyFrames = 100000;

// A damaged link with its clock. Frame n has the bytes "n" and what happens is written down in words.
class DamagedLink : private FrameSink {
 public:
  explicit DamagedLink(std::uint64_t seed = kSeed) : damage(seed, *this) {}

  void frame_enters(int direction = 0) {
    ++count_;
    std::string bytes = std::to_string(count_);
    damage.enter(direction, count_, bytes, now);
    bytes.assign(bytes.size(), '!');
  }
  void frames_enter(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) frame_enters();
  }
  void time_passes(Damage::Duration time) {
    now += time;
    damage.let_out(now);
  }
  // All that happened since the last call.
  std::vector<std::string> events() { return std::exchange(events_, {}); }
  long count_of(const std::string& event) const {
    long count = 0;
    for (const std::string& each : events_) count += each.find(event) != std::string::npos ? 1 : 0;
    return count;
  }

 private:
  void leave(int direction, std::uint64_t number, std::string_view frame, int copies) override {
    const std::string way = direction == 0 ? " > " : " < ";
    events_.push_back(std::to_string(number) + way + std::string(frame) +
                      (copies == 1 ? "" : " times " + std::to_string(copies)));
  }
  void note(std::uint64_t number, Fate fate) override {
    const char* const words[] = {" lost", " cut", " refused", " duplicated", " swapped", " picked"};
    events_.push_back(std::to_string(number) + words[static_cast<int>(fate)]);
  }

  std::uint64_t count_ = 0;
  std::vector<std::string> events_;

 public:
  Damage damage;
  Damage::Time now = Damage::Time(1000s);
};

using Events = std::vector<std::string>;

// Four standard deviations around what is expected of so many frames with this chance.
void expect_share(long count, double chance) {
  const double frames = static_cast<double>(kManyFrames);
  const double deviation = std::sqrt(frames * chance * (1 - chance));
  EXPECT_NEAR(static_cast<double>(count), frames * chance, 4 * deviation);
}

TEST(WireDamage, WithoutOrdersEveryFrameLeavesAtOnce) {
  DamagedLink link;
  link.frame_enters(0);
  link.frame_enters(1);
  EXPECT_EQ(link.events(), (Events{"1 > 1", "2 < 2"}));
  EXPECT_EQ(link.damage.next_due(), std::nullopt);
}

TEST(WireDamage, NoFrameOfManySuffersAtZeroPercent) {
  DamagedLink link;
  link.damage.lose(0);
  link.damage.duplicate(0);
  link.damage.swap(0);
  link.frames_enter(kManyFrames);
  EXPECT_EQ(link.events().size(), kManyFrames);
  EXPECT_EQ(link.damage.next_due(), std::nullopt);
}

TEST(WireDamage, EveryFrameOfManyIsLostAtHundredPercent) {
  DamagedLink link;
  link.damage.lose(100);
  link.frames_enter(kManyFrames);
  EXPECT_EQ(link.count_of(" lost"), static_cast<long>(kManyFrames));
  EXPECT_EQ(link.events().size(), kManyFrames);
}

TEST(WireDamage, EveryFrameOfManyIsDuplicatedAtHundredPercent) {
  DamagedLink link;
  link.damage.duplicate(100);
  link.frames_enter(kManyFrames);
  EXPECT_EQ(link.count_of(" times 2"), static_cast<long>(kManyFrames));
}

TEST(WireDamage, ADuplicatedFrameIsNotedAndLeavesTwice) {
  DamagedLink link;
  link.damage.duplicate(100);
  link.frame_enters();
  EXPECT_EQ(link.events(), (Events{"1 duplicated", "1 > 1 times 2"}));
}

TEST(WireDamage, ZeroPercentEndsAnOrder) {
  DamagedLink link;
  link.damage.lose(100);
  link.frame_enters();
  link.damage.lose(0);
  link.frame_enters();
  EXPECT_EQ(link.events(), (Events{"1 lost", "2 > 2"}));
}

TEST(WireDamage, TheOrderedShareIsLost) {
  DamagedLink link;
  link.damage.lose(12.5);
  link.frames_enter(kManyFrames);
  expect_share(link.count_of(" lost"), 0.125);
}

TEST(WireDamage, TheOrderedShareIsDuplicated) {
  DamagedLink link;
  link.damage.duplicate(30);
  link.frames_enter(kManyFrames);
  expect_share(link.count_of(" duplicated"), 0.3);
}

// A frame behind a held one cannot be held, so that the share is the chance of one frame in two at most.
TEST(WireDamage, TheOrderedShareOfFramesThatCanBeHeldIsSwapped) {
  DamagedLink link;
  link.damage.swap(20);
  link.frames_enter(kManyFrames);
  expect_share(link.count_of(" swapped"), 0.2 / 1.2);
}

TEST(WireDamage, LossDuplicationAndSwappingAreDrawnApart) {
  DamagedLink link;
  link.damage.lose(50);
  link.damage.duplicate(50);
  link.frames_enter(kManyFrames);
  expect_share(link.count_of(" lost"), 0.5);
  expect_share(link.count_of(" duplicated"), 0.25);
}

Events fates_of_a_thousand(std::uint64_t seed) {
  DamagedLink link(seed);
  link.damage.lose(10);
  link.damage.duplicate(10);
  link.damage.swap(10);
  link.frames_enter(1000);
  return link.events();
}

TEST(WireDamage, TheSameSeedGivesTheSameFates) {
  EXPECT_EQ(fates_of_a_thousand(7), fates_of_a_thousand(7));
}

TEST(WireDamage, AnotherSeedGivesOtherFates) {
  EXPECT_NE(fates_of_a_thousand(7), fates_of_a_thousand(8));
}

// A run can be repeated wherever the same generator exists.
TEST(WireDamage, TheChanceIsTheGeneratorsNumberAsAShareOfItsRange) {
  std::mt19937_64 generator(kSeed);
  const double first = std::ldexp(static_cast<double>(generator() >> 11), -53) * 100;
  for (const double distance : {-0.001, 0.001}) {
    DamagedLink link;
    link.damage.lose(first + distance);
    link.frame_enters();
    EXPECT_EQ(link.count_of("lost"), distance > 0 ? 1 : 0);
  }
}

TEST(WireDamage, AFrameDrawsTheSameWhateverWasOrderedBefore) {
  DamagedLink quiet;
  DamagedLink busy;
  busy.damage.lose(50);
  busy.damage.swap(50);
  busy.damage.cut(1s, busy.now);
  quiet.frames_enter(100);
  busy.frames_enter(100);
  for (DamagedLink* link : {&quiet, &busy}) {
    link->time_passes(2s);
    link->events();
    link->damage.lose(50);
    link->damage.swap(0);
    link->frames_enter(1000);
  }
  EXPECT_EQ(quiet.events(), busy.events());
}

TEST(WireDamage, ASwappedFrameGoesOutRightBehindTheNext) {
  DamagedLink link;
  link.damage.swap(100);
  link.frames_enter(5);
  EXPECT_EQ(link.events(),
            (Events{"1 swapped", "2 > 2", "1 > 1", "3 swapped", "4 > 4", "3 > 3", "5 swapped"}));
}

TEST(WireDamage, OnlyTheNextFrameOfTheSameDirectionReleasesASwappedOne) {
  DamagedLink link;
  link.damage.swap(100);
  link.frame_enters(0);
  link.frame_enters(1);
  link.damage.swap(0);
  EXPECT_EQ(link.events(), (Events{"1 swapped", "2 swapped"}));
  link.frame_enters(1);
  EXPECT_EQ(link.events(), (Events{"3 < 3", "2 < 2"}));
  link.frame_enters(0);
  EXPECT_EQ(link.events(), (Events{"4 > 4", "1 > 1"}));
}

TEST(WireDamage, ASwappedFrameGoesOutAloneAfterTwentyMilliseconds) {
  DamagedLink link;
  link.damage.swap(100);
  link.frame_enters();
  EXPECT_EQ(link.damage.next_due(), link.now + 20ms);
  link.time_passes(20ms - 1ns);
  EXPECT_EQ(link.events(), (Events{"1 swapped"}));
  link.time_passes(1ns);
  EXPECT_EQ(link.events(), (Events{"1 > 1"}));
  EXPECT_EQ(link.damage.next_due(), std::nullopt);
  link.time_passes(20ms);
  EXPECT_EQ(link.events(), Events{});
}

TEST(WireDamage, AHeldFrameThatIsDueLeavesBeforeOneThatEntersThen) {
  DamagedLink link;
  link.damage.swap(100);
  link.frame_enters();
  link.damage.swap(0);
  link.now += 20ms;
  link.frame_enters();
  EXPECT_EQ(link.events(), (Events{"1 swapped", "1 > 1", "2 > 2"}));
}

TEST(WireDamage, ALostFrameReleasesNoSwappedOne) {
  DamagedLink link;
  link.damage.swap(100);
  link.frame_enters();
  link.damage.lose(100);
  link.frame_enters();
  EXPECT_EQ(link.events(), (Events{"1 swapped", "2 lost"}));
}

TEST(WireDamage, LossComesBeforeDuplicationAndDuplicationBeforeSwapping) {
  DamagedLink link;
  link.damage.lose(100);
  link.damage.duplicate(100);
  link.damage.swap(100);
  link.frame_enters();
  EXPECT_EQ(link.events(), (Events{"1 lost"}));
  link.damage.lose(0);
  link.frames_enter(2);
  EXPECT_EQ(link.events(),
            (Events{"2 duplicated", "2 swapped", "3 duplicated", "3 > 3 times 2", "2 > 2 times 2"}));
}

TEST(WireDamage, ADelayedFrameLeavesWhenTheTimeIsOver) {
  DamagedLink link;
  link.damage.delay(50ms);
  link.frame_enters();
  EXPECT_EQ(link.damage.next_due(), link.now + 50ms);
  link.time_passes(50ms - 1ns);
  EXPECT_EQ(link.events(), Events{});
  link.time_passes(1ns);
  EXPECT_EQ(link.events(), (Events{"1 > 1"}));
}

TEST(WireDamage, BothDirectionsAreDelayedAndTheEarliestIsDueNext) {
  for (const int direction : {0, 1}) {
    DamagedLink link;
    link.damage.delay(50ms);
    link.frame_enters(direction);
    link.time_passes(10ms);
    link.frame_enters(1 - direction);
    EXPECT_EQ(link.damage.next_due(), link.now + 40ms);
    link.time_passes(40ms);
    EXPECT_EQ(link.events(), Events{direction == 0 ? "1 > 1" : "1 < 1"});
    EXPECT_EQ(link.damage.next_due(), link.now + 10ms);
    link.time_passes(10ms);
    EXPECT_EQ(link.events(), Events{direction == 0 ? "2 < 2" : "2 > 2"});
  }
}

TEST(WireDamage, OrderIsKeptWhenTheDelayGetsShorterOrEnds) {
  DamagedLink link;
  link.damage.delay(50ms);
  link.frame_enters();
  link.damage.delay(10ms);
  link.frame_enters();
  link.damage.delay(0ms);
  link.frame_enters();
  link.time_passes(50ms - 1ns);
  EXPECT_EQ(link.events(), Events{});
  link.time_passes(1ns);
  EXPECT_EQ(link.events(), (Events{"1 > 1", "2 > 2", "3 > 3"}));
  link.frame_enters();
  EXPECT_EQ(link.events(), (Events{"4 > 4"}));
}

TEST(WireDamage, ASwapIsKeptThroughTheDelay) {
  DamagedLink link;
  link.damage.delay(50ms);
  link.damage.swap(100);
  link.frame_enters();
  link.time_passes(5ms);
  link.frame_enters();
  link.time_passes(50ms);
  EXPECT_EQ(link.events(), (Events{"1 swapped", "2 > 2", "1 > 1"}));
}

TEST(WireDamage, ASwappedFrameThatGoesOutAloneIsDelayedAfterThat) {
  DamagedLink link;
  link.damage.delay(50ms);
  link.damage.swap(100);
  link.frame_enters();
  link.time_passes(20ms);
  EXPECT_EQ(link.damage.next_due(), link.now + 50ms);
  link.time_passes(50ms);
  EXPECT_EQ(link.events(), (Events{"1 swapped", "1 > 1"}));
}

TEST(WireDamage, ACopyIsDelayedWithItsFrame) {
  DamagedLink link;
  link.damage.delay(50ms);
  link.damage.duplicate(100);
  link.frame_enters();
  link.time_passes(50ms);
  EXPECT_EQ(link.events(), (Events{"1 duplicated", "1 > 1 times 2"}));
}

TEST(WireDamage, NothingGetsThroughACut) {
  DamagedLink link;
  link.damage.cut(500ms, link.now);
  link.frame_enters(0);
  link.time_passes(500ms - 1ns);
  link.frame_enters(1);
  link.time_passes(1ns);
  link.frame_enters(0);
  EXPECT_EQ(link.events(), (Events{"1 cut", "2 cut", "3 > 3"}));
}

TEST(WireDamage, ACutLosesWhatIsHeldOrDelayed) {
  DamagedLink link;
  link.damage.delay(50ms);
  link.frame_enters(1);
  link.damage.swap(100);
  link.frame_enters(0);
  link.damage.cut(1s, link.now);
  link.time_passes(2s);
  EXPECT_EQ(link.events(), (Events{"2 swapped", "2 cut", "1 cut"}));
  EXPECT_EQ(link.damage.next_due(), std::nullopt);
}

TEST(WireDamage, ACutSparesWhatWasDueBeforeIt) {
  DamagedLink link;
  link.damage.delay(50ms);
  link.frame_enters();
  link.now += 50ms;
  link.damage.cut(1s, link.now);
  EXPECT_EQ(link.events(), (Events{"1 > 1"}));
}

TEST(WireDamage, ANewCutReplacesTheOneThatLasts) {
  DamagedLink link;
  link.damage.cut(10s, link.now);
  link.damage.cut(0s, link.now);
  link.frame_enters();
  EXPECT_EQ(link.events(), (Events{"1 > 1"}));
}

TEST(WireDamage, WhatWouldFillTheMemoryIsLost) {
  DamagedLink link;
  link.damage.delay(50ms);
  const std::string half(Damage::kMostDelayedBytes / 2, 'x');
  link.damage.enter(0, 1, half, link.now);
  link.damage.enter(1, 2, half, link.now);
  link.damage.enter(0, 3, "x", link.now);
  EXPECT_EQ(link.events(), (Events{"3 refused"}));
  link.time_passes(50ms);
  EXPECT_EQ(link.events().size(), 2U);
  link.damage.enter(0, 4, half, link.now);
  EXPECT_EQ(link.events(), Events{});
  link.damage.cut(0s, link.now);
  link.damage.enter(0, 5, half, link.now);
  link.damage.enter(1, 6, half, link.now);
  EXPECT_EQ(link.events(), (Events{"4 cut"}));
}

}  // namespace
