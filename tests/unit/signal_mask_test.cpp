#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "signals/signals.h"
#include "support/threads.h"

// Which thread takes the signals of a run, and when. Each test is a process of its own.

namespace {

const SignalMask kOfARun = mask_of({SIGALRM, SIGINT, SIGTERM});

std::atomic<int> taken{0};

class SignalsOfARun : public testing::Test {
 protected:
  void SetUp() override {
    taken = 0;
    for (const int number : {SIGALRM, SIGINT, SIGTERM}) signal(number, [](int) { ++taken; });
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
  }
  static SignalMask blocked() { return blocked_signals("thread-self"); }
  static SignalMask blocked_on_another_thread() {
    SignalMask mask = 0;
    std::thread([&] { mask = blocked(); }).join();
    return mask;
  }
};

TEST_F(SignalsOfARun, AreLeftAsTheyAreUntilTheyAreBlocked) {
  const SignalsLetIn nothing_changes;
  EXPECT_EQ(blocked(), 0U);
}

TEST_F(SignalsOfARun, AreBlockedOnTheThreadAndOnAllThatItCreates) {
  block_signals();
  EXPECT_EQ(blocked(), kOfARun);
  EXPECT_EQ(blocked_on_another_thread(), kOfARun);
}

TEST_F(SignalsOfARun, WaitUntilTheyAreLetIn) {
  block_signals();
  for (const int number : {SIGALRM, SIGINT, SIGTERM}) raise(number);
  EXPECT_EQ(taken, 0);
  {
    const SignalsLetIn meanwhile;
    EXPECT_EQ(taken, 3);
    EXPECT_EQ(blocked(), 0U);
  }
  EXPECT_EQ(blocked(), kOfARun);
}

TEST_F(SignalsOfARun, AreLetInOnTheCallingThreadAlone) {
  block_signals();
  std::atomic<bool> looked{false};
  SignalMask other = 0;
  std::atomic<bool> let_in{false};
  std::thread thread([&] {
    while (!let_in) std::this_thread::yield();
    other = blocked();
    looked = true;
  });
  {
    const SignalsLetIn meanwhile;
    let_in = true;
    while (!looked) std::this_thread::yield();
  }
  thread.join();
  EXPECT_EQ(other, kOfARun);
}

TEST_F(SignalsOfARun, StayBlockedWhereTheProcessWasStartedWithThemBlocked) {
  const BlockedSignal from_the_parent(SIGINT);
  block_signals();
  const SignalsLetIn meanwhile;
  EXPECT_EQ(blocked(), mask_of({SIGINT}));
}

TEST_F(SignalsOfARun, AreNotLetInAnyMoreOnceTheProcessEnds) {
  block_signals();
  {
    const SignalsLetIn meanwhile;
    block_signals_for_good();
    EXPECT_EQ(blocked(), kOfARun);
    raise(SIGTERM);
    const SignalsLetIn in_vain;
    EXPECT_EQ(blocked(), kOfARun);
    EXPECT_EQ(taken, 0);
    // A board's command that another thread starts meanwhile has the mask of the process all the same.
    std::thread([] {
      const SignalsLetIn for_the_command;
      EXPECT_EQ(blocked(), 0U);
    }).join();
    signal(SIGTERM, SIG_IGN);
  }
}

}  // namespace
