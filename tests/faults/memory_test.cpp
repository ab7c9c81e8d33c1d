#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "faults/faulty_station.h"
#include "support/at_commands.h"
#include "support/fake_board.h"

// The program without memory: each allocation of a thread fails in turn, or all from a moment on.

namespace {

namespace fs = std::filesystem;
using namespace station;

constexpr milliseconds kShortWhile(100);

// What is planned for the allocations of the programs that are started while it lives.
class PlannedFate {
 public:
  void is(const std::string& thread, int number, const std::string& fate) const {
    const std::string next = file_ + ".next";
    write_whole_file(next, thread + " " + std::to_string(number) + " " + fate);
    fs::rename(next, file_);
  }
  // It has struck.
  bool is_met() const { return !fs::exists(file_); }
  // Nothing is planned any more. False when nothing was.
  bool ends() const { return fs::remove(file_); }

  // Each allocation that the thread makes for the deed fails in turn, until there are no more. How many there
  // were.
  int each_fails(const std::string& thread, const std::string& fate,
                 const std::function<void()>& deed) const {
    for (int number = 1;; ++number) {
      SCOPED_TRACE(thread + ": allocation " + std::to_string(number) + " " + fate);
      is(thread, number, fate);
      deed();
      if (ends() || testing::Test::HasFailure()) return number - 1;
    }
  }

 private:
  const ScratchDirectory folder_;
  const std::string file_ = folder_.file("fate");
  const Preloaded library_{"ALLOCATIONS", file_};
};

class WithoutMemory : public testing::Test {
 protected:
  void SetUp() override { NEEDS_PRELOADING(); }
};

bool is_exit_without_memory(const std::string& output) {
  const std::string end = "\nExiting.\n";
  return (output.rfind("\nOPTIONS ERROR : Failed allocating memory", 0) == 0 ||
          output.rfind("\nOPTIONS ERROR : Failed allocating extra memory \nWhile adding the ", 0) == 0) &&
         output.size() > end.size() && output.compare(output.size() - end.size(), end.size(), end) == 0;
}

// At the latest by the second request: the record for the next one may be what there was no memory for.
void is_served_at_last(const OnLoopback& station) {
  write_whole_file("next", "served");
  UdpPeer client = station.client(2002);
  client.sends(rrq("next"));
  if (!client.receives(kShortWhile)) {
    client.sends(rrq("next"));
    client.expects(data(1, "served"));
  }
  client.sends(ack(1));
}

TEST_F(WithoutMemory, TheCommandLineEndsTheProgramWithStatus0AndSaysSo) {
  const PlannedFate fate;
  int ends = 0;
  fate.each_fails("main", "fails", [&] {
    Daemon daemon(
        {"-h", "-n=70", "--serverip=", "--port", "71", "stray", "-x", "--unknown-and-rather-long=1"});
    const int status = daemon.exit_status();
    if (status == 0) {
      ++ends;
      EXPECT_TRUE(is_exit_without_memory(daemon.output())) << daemon.output();
    } else {
      // What failed is no part of the options; they are read to their end.
      EXPECT_EQ(status, 1);
      EXPECT_EQ(daemon.output().rfind("\n\nUsage: TFTP ", 0), 0U) << daemon.output();
    }
    EXPECT_EQ(daemon.errors(), "");
  });
  EXPECT_GE(ends, 8);
}

// But for the options, one thing ends it: the server itself could not be made.
TEST_F(WithoutMemory, TheStartGoesOnOnceThereIsAServer) {
  const PlannedFate fate;
  const InNetwork station;
  write_whole_file("file", "contents");
  int starts = 0;
  int aborts = 0;
  fate.each_fails("main", "throws", [&] {
    Daemon daemon({"-o", TestNetwork::kStation});
    const auto serves = [&] { return daemon.output().find(station::kServing) != std::string::npos; };
    const auto status = [&] { return daemon.exit_status(milliseconds(0)); };
    ASSERT_TRUE(wait_until([&] { return serves() || status() != Daemon::kStillRunning; }));
    if (serves()) {
      ++starts;
      UdpPeer client = station.unit();
      client.sends(rrq("file"));
      if (!client.receives(kShortWhile)) client.sends(rrq("file"));
      client.expects(data(1, "contents"));
    } else if (status() == -SIGABRT) {
      ++aborts;
      EXPECT_EQ(daemon.output(), station::starting(TestNetwork::kStation));
    } else {
      EXPECT_EQ(status(), 0);
      EXPECT_TRUE(is_exit_without_memory(daemon.output())) << daemon.output();
    }
  });
  EXPECT_GE(starts, 5);
  EXPECT_LE(aborts, 1);
}

struct Exchange {
  std::string request;
  std::string answer;
};

// What is answered is right; what cannot be is dropped.
TEST_F(WithoutMemory, ARequestIsDroppedAndTheNextIsServed) {
  const PlannedFate fate;
  const OnLoopback station({}, OnLoopback::Relay::kHasNoAddress);
  write_whole_file("file", noise(1000));
  const Options options = {{"blksize", "1024"}, {"an-option-without-meaning", "and-its-value"}};
  for (const Exchange& exchange :
       {Exchange{rrq("file"), data(1, noise(1000).substr(0, 512))},
        Exchange{rrq("file", options), oack(options)}, Exchange{rrq("missing"), error(1, "")},
        Exchange{rrq("file", {}, "a-mode-that-is-longer"), error(0, "Mode not supported")},
        Exchange{wrq("a-file-that-is-written"), ack(0)}, Exchange{ack(7), error(4, "")}}) {
    SCOPED_TRACE(in_words(exchange.request));
    int dropped = 0;
    const int count = fate.each_fails("main", "fails", [&] {
      UdpPeer client = station.client(0);
      client.sends(exchange.request);
      const auto answer = client.receives(kShortWhile);
      if (answer) {
        // A file that there was no memory to open is refused like any that cannot be opened.
        EXPECT_TRUE(*answer == exchange.answer || *answer == error(1, "")) << in_words(*answer);
      } else {
        ++dropped;
      }
      is_served_at_last(station);
      fs::remove("a-file-that-is-written");
    });
    EXPECT_GE(count, 3);
    EXPECT_GE(dropped, 1);
  }
}

TEST_F(WithoutMemory, EveryRequestIsDroppedAndTransfersGoOn) {
  const PlannedFate fate;
  FaultyStation station;
  UdpPeer client = station.client();
  fate.is("main", 1, "fails-on");
  for (int i = 0; i < 3; ++i) {
    client.sends(rrq("file"));
    client.expects_nothing(kShortWhile);
  }
  station.first_client_goes_on();
  EXPECT_TRUE(fate.ends());
  is_served_at_last(station.station());
}

// Its thread has none. Whatever of the file comes to the client's end is the whole.
TEST_F(WithoutMemory, AClientIsDroppedAndOthersGoOn) {
  const PlannedFate fate;
  FaultyStation station;
  write_whole_file("longer", noise(20000));
  fate.each_fails("others", "fails", [&] {
    UdpPeer client = station.client();
    const auto contents = read_by_tftp(client, rrq("longer", {{"blksize", "1024"}}));
    EXPECT_TRUE(!contents || *contents == noise(20000));
    station.station().serves_the_next_client();
  });
  const int count_of_refusals = fate.each_fails("others", "fails", [&] {
    UdpPeer client = station.asks(rrq("longer"));
    client.expects(data(1, noise(20000).substr(0, 512)));
    client.sends(data(1, "no acknowledgement"));
    client.receives(kShortWhile);
    station.station().serves_the_next_client();
  });
  EXPECT_GE(count_of_refusals, 1);
  station.first_client_goes_on();
}

TEST_F(WithoutMemory, ACommandsConnectionIsClosedAndTheNextIsServed) {
  const FakeBoard board;
  board.sets_variable("tempmac", "02:00:00:00:00:10");
  const PlannedFate fate;
  const AtCommands at_commands;
  int replies = 0;
  const int count = fate.each_fails("others", "fails", [&] {
    const TcpPeer unit = at_commands.unit();
    unit.sends("ZIRN_ASKS_FOR_HIS_MAC");
    const std::string reply = unit.reads();
    EXPECT_TRUE(reply.empty() || reply == "02:00:00:00:00:12" || reply == "02:00:00:00:00:03") << reply;
    replies += reply.empty() ? 0 : 1;
    unit.ends_its_texts();
    at_commands.station.receiver_answers();
  });
  EXPECT_LT(replies, count + 1);  // the last one had all its memory
  EXPECT_GE(replies, 1);
}

// A signal's handler waits for the receiver, which waits for the heap: not while the main thread holds it.
TEST_F(WithoutMemory, ASignalInAnAllocationEndsTheProgramWhileACommandRuns) {
  const FakeBoard board;
  const PlannedFate fate;
  const AtCommands at_commands;
  TcpPeer unit = at_commands.unit();
  board.holds(FakeBoard::kEnvtool);
  unit.sends("ZIRN_ASKS_FOR_HIS_MAC");
  ASSERT_TRUE(wait_until([&] { return !board.calls().empty(); }));
  fate.is("main", 1, "interrupted");
  UdpPeer client = at_commands.station.unit();
  client.sends(rrq("missing"));
  ASSERT_TRUE(wait_until([&] { return fate.is_met(); }));
  board.releases(FakeBoard::kEnvtool);
  unit.closes();
  EXPECT_EQ(at_commands.station.daemon->exit_status(), SIGTERM);
}

}  // namespace
