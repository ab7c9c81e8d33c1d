#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <sstream>
#include <string>

#include "support/test_network.h"
#include "zirn_run/recording.h"

// Where the recorder writes, and what becomes of that when it is disturbed.
namespace {

using Strings = std::vector<std::string>;

class RecorderOutput : public RecordsLoopback {};

void send_many(int count) {
  const Sender sender("127.0.0.1", 12345);
  for (int i = 0; i < count; ++i) sender.sends(std::string(1000, 'y'));
}

TEST_F(RecorderOutput, KilledItLeavesAPartThatIsReadable) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  send_many(100);
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").count("yyy") == 100; }));
  send_many(1);
  recording.gets_signal(SIGKILL);
  EXPECT_EQ(recording.exit_status(), -SIGKILL);
  EXPECT_EQ(recorded("run.pcapng.part").count("yyy"), 100U);
  EXPECT_FALSE(std::filesystem::exists("run.pcapng"));
}

TEST_F(RecorderOutput, GivesWayToTheStation) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  const int ours = getpriority(PRIO_PROCESS, 0);
  EXPECT_TRUE(wait_until([&] {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(recording.pid())) == std::min(ours + 5, 19);
  }));
  EXPECT_EQ(recording.stops(), 0);
}

TEST_F(RecorderOutput, SigintEndsItAsWell) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  send_many(1);
  recording.gets_signal(SIGINT);
  EXPECT_EQ(recording.exit_status(), 0);
  EXPECT_EQ(recorded("run.pcapng").count("yyy"), 1U);
}

TEST_F(RecorderOutput, TwoDoNotWriteTheSameFile) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  send_many(1);
  Recording second(options_);
  EXPECT_EQ(second.exit_status(), 3);
  EXPECT_EQ(whole_file("errors"),
            "zirn-run: run.pcapng.part: another recorder writes it: Device or resource busy\n");
  EXPECT_EQ(recording.stops(), 0);
  EXPECT_EQ(recorded("run.pcapng").count("yyy"), 1U);
}

TEST_F(RecorderOutput, AFileThatCannotBeMadeIsNamed) {
  options_.output = "nowhere/run.pcapng";
  Recording recording(options_);
  EXPECT_EQ(recording.exit_status(), 3);
  EXPECT_EQ(whole_file("errors"), "zirn-run: nowhere/run.pcapng.part: No such file or directory\n");
}

TEST_F(RecorderOutput, NothingButAFileIsReplaced) {
  ASSERT_EQ(mkdir("folder", 0755), 0);
  ASSERT_EQ(mkfifo("pipe", 0644), 0);
  options_.output = "folder";
  EXPECT_EQ(Recording(options_).exit_status(), 3);
  options_.output = "pipe";
  EXPECT_EQ(Recording(options_).exit_status(), 3);
  EXPECT_EQ(whole_file("errors"),
            "zirn-run: folder: expected a file, found a folder\n"
            "zirn-run: pipe: expected a file, found a device or a pipe\n");
  EXPECT_FALSE(std::filesystem::exists("folder.part"));
}

TEST_F(RecorderOutput, APipeGetsFramesAsTheyCome) {
  options_.output = "-";
  Recording recording(options_);
  const auto has_frames = [&](std::size_t count) {
    return wait_until([&] {
      std::istringstream text(recording.output());
      return text.str().size() > 100 && Recorded(text).count("yyy") == count;
    });
  };
  EXPECT_TRUE(has_frames(0)) << whole_file("errors");
  send_many(3);
  EXPECT_TRUE(has_frames(3));
  send_many(2);
  EXPECT_TRUE(has_frames(5));
  EXPECT_EQ(recording.stops(), 0);
  std::istringstream text(recording.output());
  const Recorded run(text);
  EXPECT_EQ(run.problem, "");
  EXPECT_EQ(run.statistics.size(), 1U);
}

TEST_F(RecorderOutput, APipeThatNobodyReadsHoldsNoEndUp) {
  options_.output = "-";
  options_.is_whole = true;
  Recording recording(options_);
  EXPECT_TRUE(wait_until([&] { return !recording.output().empty(); }));
  send_many(2000);  // more than pipe and recorder hold
  usleep(500000);
  recording.gets_signal(SIGTERM);
  usleep(500000);
  EXPECT_EQ(recording.exit_status(), 3);
}

TEST_F(RecorderOutput, APipeWithoutAReaderEndsIt) {
  options_.output = "-";
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  Process process([this] { return recorder::record(options_); },
                  [&ends] {
                    dup2(ends[1], STDOUT_FILENO);
                    close(ends[0]);
                    append_errors_to("errors");
                  });
  close(ends[1]);
  char byte = 0;
  EXPECT_EQ(read(ends[0], &byte, 1), 1);
  close(ends[0]);
  send_many(1);
  EXPECT_EQ(status_number(process.wait_for_end()), 3);
  EXPECT_EQ(whole_file("errors"), "zirn-run: -: Broken pipe; nothing more is recorded\n");
}

class RecorderOnAFullDisk : public RecorderOutput {
 protected:
  void SetUp() override {
    RecorderOutput::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(mkdir("disk", 0755), 0);
    ASSERT_EQ(mount("tmpfs", "disk", "tmpfs", 0, "size=512k"), 0);
    options_.output = "disk/run.pcapng";
    options_.is_whole = true;
  }
  void TearDown() override { umount("disk"); }

  const std::string said_ = "zirn-run: disk/run.pcapng: No space left on device; nothing more is recorded\n";
  void fill_the_disk() const {
    ASSERT_TRUE(wait_until([&] {
      send_many(50);
      usleep(20000);
      return whole_file("errors") == said_;
    })) << whole_file("errors");
  }
};

TEST_F(RecorderOnAFullDisk, TheFileEndsAtAWholeBlockThatSaysSo) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  fill_the_disk();
  const Recorded full = recorded("disk/run.pcapng.part");
  EXPECT_NE(full.problem.find("the record breaks off"), std::string::npos) << full.problem;
  EXPECT_GT(full.count("yyy"), 300U);
  EXPECT_EQ(full.gaps(), Strings{"all is missing from here on: the file cannot be written any further: "
                                 "No space left on device"});
  send_many(50);
  EXPECT_EQ(recording.stops(), 3);
  EXPECT_EQ(whole_file("errors"), said_);
  EXPECT_EQ(recorded("disk/run.pcapng").frames.size(), full.frames.size());
}

TEST_F(RecorderOnAFullDisk, ALinkThatComesLeavesTheProcessorAlone) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  fill_the_disk();
  ip("link add lan7 type veth peer name far-lan7");
  usleep(200000);
  clockid_t clock = 0;  // of the recorder's processor time
  timespec before = {};
  timespec after = {};
  ASSERT_EQ(clock_getcpuclockid(recording.pid(), &clock), 0);
  ASSERT_EQ(clock_gettime(clock, &before), 0);
  sleep(1);
  ASSERT_EQ(clock_gettime(clock, &after), 0);
  const auto milliseconds =
      (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000;
  EXPECT_LT(milliseconds, 50);
  EXPECT_EQ(recording.stops(), 3);
}

}  // namespace
