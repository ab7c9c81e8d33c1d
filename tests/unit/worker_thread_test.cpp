#include "worker_thread/worker_thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <vector>

#include "support/fault.h"

namespace {

using Signals = std::vector<int>;

Signals blocked_now() {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  Signals blocked;
  for (int signal_number = 1; signal_number < SIGRTMIN; ++signal_number) {
    if (sigismember(&mask, signal_number) == 1) blocked.push_back(signal_number);
  }
  return blocked;
}

// What a thread finds when its body runs.
struct Found {
  pthread_t handle_field{};
  pthread_t handle_in_field{};
  pthread_t itself{};
  void* record = nullptr;
  Signals blocked;
  int detach_state = -1;
  std::size_t stack_size = 0;
};

void* look_around(void* record) {
  auto& found = *static_cast<Found*>(record);
  found.handle_in_field = found.handle_field;
  found.itself = pthread_self();
  found.record = record;
  found.blocked = blocked_now();
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getdetachstate(&attributes, &found.detach_state);
  pthread_attr_getstacksize(&attributes, &found.stack_size);
  pthread_attr_destroy(&attributes);
  return &found.itself;
}

// Created by create_worker_thread and joined.
struct Worker {
  Worker() {
    created = create_worker_thread(&found.handle_field, look_around, &found);
    if (created == 0) joined = pthread_join(found.handle_field, &result);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  Found found;
  int created = -1;
  int joined = -1;
  void* result = nullptr;
};

// A thread that ends when it is told to, and says goodbye.
struct Leaver {
  pthread_t thread{};
  std::atomic<bool> may_leave{false};
  int last_act = 0;
};

void* leave_when_told(void* record) {
  auto& leaver = *static_cast<Leaver*>(record);
  while (!leaver.may_leave) sched_yield();
  leaver.last_act = 1;
  say_goodbye(&leaver.thread);
  return nullptr;
}

std::atomic<int> delivered{0};

void note_delivery(int) {
  ++delivered;
}

// Each test starts with no signal blocked, whatever the process was started with.
class NothingBlocked : public testing::Test {
 protected:
  NothingBlocked() {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
  }
};

class WorkerThread : public NothingBlocked {};
class SignalBlocks : public NothingBlocked {};

}  // namespace

TEST_F(WorkerThread, BlocksAlarmInterruptAndTerminationAndNothingElse) {
  EXPECT_EQ(Worker().found.blocked, (Signals{SIGINT, SIGALRM, SIGTERM}));
}

TEST_F(WorkerThread, InheritsWhatItsCreatorBlocksBesides) {
  const SignalBlock by_the_creator({SIGUSR2});
  EXPECT_EQ(Worker().found.blocked, (Signals{SIGINT, SIGUSR2, SIGALRM, SIGTERM}));
}

TEST_F(WorkerThread, LeavesTheMaskOfItsCreatorAsItWas) {
  const Worker first;
  EXPECT_EQ(blocked_now(), Signals{});

  const SignalBlock by_the_creator({SIGINT, SIGUSR1});
  const Worker second;
  EXPECT_EQ(blocked_now(), (Signals{SIGINT, SIGUSR1}));
}

TEST_F(WorkerThread, FindsItsHandleSetWhenItsBodyRuns) {
  for (int i = 0; i < 200; ++i) {
    const Worker worker;
    ASSERT_EQ(worker.created, 0);
    ASSERT_TRUE(pthread_equal(worker.found.handle_in_field, worker.found.itself));
  }
}

TEST_F(WorkerThread, IsGivenItsRecordAndReturnsWhatItsBodyReturns) {
  const Worker worker;
  EXPECT_EQ(worker.found.record, &worker.found);
  EXPECT_EQ(worker.joined, 0);
  EXPECT_EQ(worker.result, &worker.found.itself);
}

TEST_F(WorkerThread, HasDefaultAttributes) {
  pthread_attr_t defaults;
  ASSERT_EQ(pthread_getattr_default_np(&defaults), 0);
  std::size_t stack_size = 0;
  pthread_attr_getstacksize(&defaults, &stack_size);
  pthread_attr_destroy(&defaults);

  const Worker worker;
  EXPECT_EQ(worker.found.detach_state, PTHREAD_CREATE_JOINABLE);
  EXPECT_EQ(worker.found.stack_size, stack_size);
}

TEST_F(WorkerThread, ThatCannotBeCreatedGivesTheErrorNumberAndRestoresTheMask) {
  for (int error : {EAGAIN, -1}) {
    Fault no_thread(Call::kThread, error);
    const Worker worker;
    EXPECT_EQ(worker.created, error);
    EXPECT_EQ(worker.found.record, nullptr);
    EXPECT_EQ(blocked_now(), Signals{});
  }
}

TEST_F(WorkerThread, IsAliveFromItsCreationUntilItSaysGoodbye) {
  Leaver leaver;
  EXPECT_FALSE(is_alive(&leaver.thread));
  ASSERT_EQ(create_worker_thread(&leaver.thread, leave_when_told, &leaver), 0);
  const pthread_t handle = leaver.thread;
  EXPECT_TRUE(is_alive(&leaver.thread));
  leaver.may_leave = true;
  for (int i = 0; i < 10000 && is_alive(&leaver.thread); ++i) usleep(1000);
  EXPECT_FALSE(is_alive(&leaver.thread));
  EXPECT_EQ(leaver.last_act, 1);
  EXPECT_EQ(leaver.thread, pthread_t{});
  pthread_join(handle, nullptr);
}

TEST_F(SignalBlocks, BlockTheGivenSignalsWhileTheyLive) {
  {
    const SignalBlock block({SIGUSR1, SIGHUP});
    EXPECT_EQ(blocked_now(), (Signals{SIGHUP, SIGUSR1}));
  }
  EXPECT_EQ(blocked_now(), Signals{});
}

TEST_F(SignalBlocks, RestoreTheMaskFoundBefore) {
  const SignalBlock outer({SIGUSR1});
  {
    const SignalBlock inner({SIGUSR1, SIGUSR2});
    EXPECT_EQ(blocked_now(), (Signals{SIGUSR1, SIGUSR2}));
  }
  EXPECT_EQ(blocked_now(), (Signals{SIGUSR1}));
}

TEST_F(SignalBlocks, HoldASignalBackUntilTheyEnd) {
  delivered = 0;
  const auto before = signal(SIGUSR1, note_delivery);
  {
    const SignalBlock block({SIGUSR1});
    raise(SIGUSR1);
    EXPECT_EQ(delivered, 0);
  }
  EXPECT_EQ(delivered, 1);
  signal(SIGUSR1, before);
}
