#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "record/writer.h"
#include "recorder/runs.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "zirn_run/recording.h"

// The folder of recorded runs.
namespace {

using Strings = std::vector<std::string>;

constexpr record::Nanoseconds kAt = 1700000000123456000;  // 2023-11-14 22:13:20

std::string host() {
  char name[65] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

// A record that has these lines, and frames behind them.
void make_run(const std::string& name, const Strings& lines, int frames = 10) {
  std::ofstream file(name, std::ios::binary);
  record::Writer writer(file, {});
  writer.add(record::Interface{"lan0", "", record::kEthernet, 0});
  for (const std::string& line : lines) writer.add(entry_of(record::Line{line}, kAt));
  const std::string bytes(100, 'z');
  for (int i = 0; i < frames; ++i) {
    record::Frame frame;
    frame.at = kAt;
    frame.bytes = bytes;
    writer.add(frame);
  }
}

Strings files() {
  Strings names;
  for (const auto& entry : std::filesystem::directory_iterator("."))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

class RecorderRuns : public testing::Test {
 protected:
  const ScratchDirectory scratch_;
};

TEST_F(RecorderRuns, ANameHasTheStartAndTheMachine) {
  EXPECT_EQ(recorder::name_of_run(".", kAt), "20231114T221320Z-" + host());
}

TEST_F(RecorderRuns, ANameIsGivenOnce) {
  make_run("20231114T221320Z-" + host() + ".pcapng", {});
  make_run("20231114T221321Z-" + host() + ".pcapng.part", {});
  EXPECT_EQ(recorder::name_of_run(".", kAt), "20231114T221322Z-" + host());
}

TEST_F(RecorderRuns, TheLastVerdictSaysWhetherItPassed) {
  const auto passed = [](const Strings& lines, int frames = 10) {
    make_run("run", lines, frames);
    return recorder::has_passed("run");
  };
  EXPECT_TRUE(passed({"RRQ boot.img", "Cmd received: F_l_m_02PPT_PASSED", "Message Server was shut down"}));
  EXPECT_FALSE(passed({"Cmd received: F_l_m_02PPT_FAILED"}));
  EXPECT_FALSE(passed({"Cmd received: F_l_m_t_Bootstrap_loading"}));
  EXPECT_FALSE(passed({"Cmd received: F_l_m_02PPT_PASSED", "Cmd received: F_l_m_02PPT_FAILED"}));
  EXPECT_FALSE(passed({"RRQ Cmd received: F_l_m_02PPT_PASSED"}));
  EXPECT_FALSE(passed({}));
  EXPECT_TRUE(passed({"Cmd received: F_l_m_02PPT_PASSED"}, 7000)) << "nearly a MiB before the end";
  EXPECT_FALSE(passed({"Cmd received: F_l_m_02PPT_PASSED"}, 8000)) << "too far back to be looked for";
}

TEST_F(RecorderRuns, WhatIsNoRecordDidNotPass) {
  EXPECT_FALSE(recorder::has_passed("nothing"));
  for (const std::string& text :
       {std::string(), std::string("Cmd received: PPT_PASSED"), std::string(5000, '\0'),
        std::string(5000, '\xff'), std::string("\x0d\0\0\0", 4)}) {
    std::ofstream("run", std::ios::binary) << text;
    EXPECT_FALSE(recorder::has_passed("run")) << text.size();
  }
}

TEST_F(RecorderRuns, TheOldestThatPassedGo) {
  const Strings passed = {"Cmd received: F_l_m_02PPT_PASSED"};
  const Strings failed = {"Cmd received: F_l_m_02PPT_FAILED"};
  make_run("1.pcapng", passed);
  make_run("2.pcapng", failed);
  make_run("3.pcapng", passed);
  make_run("4.pcapng", {});
  make_run("5.pcapng", passed);
  make_run("6.pcapng", passed);
  make_run("0.pcapng.part", passed);
  std::ofstream("0.txt").flush();
  recorder::limit_runs(".", 2, 1000000);
  EXPECT_EQ(files(), (Strings{"0.pcapng.part", "0.txt", "2.pcapng", "4.pcapng", "5.pcapng", "6.pcapng"}));
}

TEST_F(RecorderRuns, WhatGoesBeyondTheLimitGoesTheOldestFirst) {
  for (const char* const name : {"1.pcapng", "2.pcapng", "3.pcapng", "4.pcapng"}) make_run(name, {});
  make_run("0.pcapng.part", {});
  const auto size = std::filesystem::file_size("1.pcapng");
  recorder::limit_runs(".", 200, 4 * size);
  EXPECT_EQ(files().size(), 5U);
  recorder::limit_runs(".", 200, 3 * size - 1);
  EXPECT_EQ(files(), (Strings{"0.pcapng.part", "3.pcapng", "4.pcapng"}));
}

// Bytes that this process has read so far.
long read_so_far() {
  std::ifstream io("/proc/self/io");
  std::string name;
  long bytes = -1;
  io >> name >> bytes;
  return bytes;
}

TEST_F(RecorderRuns, LittleIsReadToKeepTheFolderInOrder) {
  constexpr int kRuns = 20;
  constexpr int kFramesOfAMiB = 7500;
  for (int i = 0; i < kRuns; ++i) {
    const std::string name = std::to_string(100 + i) + ".pcapng";
    make_run(name, {}, kFramesOfAMiB);
    std::ofstream file(name, std::ios::binary | std::ios::app);
    record::Writer writer(file, {});
    writer.add(entry_of(record::Line{"Cmd received: F_l_m_02PPT_FAILED"}, kAt));
  }
  const auto size = std::filesystem::file_size("119.pcapng");
  const long before = read_so_far();
  recorder::limit_runs(".", 0, size * kRuns / 2);
  EXPECT_LT(read_so_far() - before, 1 << 20) << "of each the end";
  EXPECT_GT(before, 0);
  EXPECT_EQ(files().size(), kRuns / 2);
}

TEST_F(RecorderRuns, SeveralMayKeepOneFolderInOrder) {
  constexpr int kRuns = 300;
  for (int i = 0; i < kRuns; ++i) make_run(std::to_string(1000 + i) + ".pcapng.part", {}, 1);
  const auto keeps = [] {
    try {
      for (int i = 0; i < 5; ++i) {
        recorder::complete_runs(".");
        recorder::limit_runs(".", 5, 20000);
      }
      return 0;
    } catch (const std::exception& error) {
      std::ofstream("errors", std::ios::app) << error.what() << std::endl;
      return 1;
    }
  };
  std::vector<std::unique_ptr<Process>> keepers;
  for (int i = 0; i < 4; ++i) keepers.push_back(std::make_unique<Process>(keeps));
  for (const auto& keeper : keepers)
    EXPECT_EQ(status_number(keeper->wait_for_end()), 0) << whole_file("errors");
  EXPECT_EQ(files().back(), "1299.pcapng");
  EXPECT_LT(files().size(), 100U);
}

TEST_F(RecorderRuns, AnUnfinishedOneIsCompletedAsFarAsItGoesAndMarked) {
  make_run("whole.pcapng.part", {"first"});
  make_run("cut.pcapng.part", {"first"});
  std::filesystem::resize_file("cut.pcapng.part", std::filesystem::file_size("cut.pcapng.part") - 5);
  std::ofstream("empty.pcapng.part").flush();
  std::ofstream("zeros.pcapng.part", std::ios::binary) << std::string(100, '\0');
  recorder::complete_runs(".");
  EXPECT_EQ(files(), (Strings{"cut.pcapng", "whole.pcapng"}));
  const Recorded whole = recorded("whole.pcapng");
  EXPECT_NE(whole.problem.find("the record breaks off"), std::string::npos) << whole.problem;
  EXPECT_EQ(whole.frames.size(), 10U);
  EXPECT_EQ(whole.gaps(), Strings{"all is missing from here on: the recorder was cut off"});
  const Recorded cut = recorded("cut.pcapng");
  EXPECT_NE(cut.problem.find("the record breaks off"), std::string::npos) << cut.problem;
  EXPECT_EQ(cut.frames.size(), 9U);
  EXPECT_EQ(cut.gaps().size(), 1U);
}

TEST_F(RecorderRuns, WhatIsNoRecordIsLeftAlone) {
  for (const char* const name : {".pcapng.part", "film.part", "part", "run.pcapng.part.part"})
    std::ofstream(name) << "of somebody else";
  const Strings before = files();
  recorder::complete_runs(".");
  EXPECT_EQ(files(), before);
}

TEST_F(RecorderRuns, AnUnfinishedOneIsMarkedWithTheTimeOfItsLastWriting) {
  make_run("run.pcapng.part", {"first"});
  const timespec yesterday = {kAt / 1000000000, 500000000};
  const timespec times[] = {yesterday, yesterday};
  ASSERT_EQ(utimensat(AT_FDCWD, "run.pcapng.part", times, 0), 0);
  recorder::complete_runs(".");
  const Recorded run = recorded("run.pcapng");
  ASSERT_FALSE(run.entries.empty());
  EXPECT_EQ(run.entries.back().at, kAt / 1000000000 * 1000000000 + 500000000);
}

TEST_F(RecorderRuns, OneThatIsBeingWrittenIsLeftAlone) {
  make_run("run.pcapng.part", {"first"});
  const int descriptor = open("run.pcapng.part", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(descriptor, LOCK_EX), 0);
  recorder::complete_runs(".");
  EXPECT_EQ(files(), Strings{"run.pcapng.part"});
  close(descriptor);
}

TEST_F(RecorderRuns, WhatCannotBeCompletedOrRemovedKeepsNoOtherFromIt) {
  NEEDS_SANDBOX();
  const Strings fixed = {"1.pcapng.part", "1.pcapng", "2.pcapng"};
  make_run("1.pcapng.part", {});
  make_run("1.pcapng", {"Cmd received: F_l_m_02PPT_PASSED"});
  make_run("2.pcapng", {});
  make_run("3.pcapng.part", {});
  make_run("4.pcapng", {});
  for (const std::string& name : fixed) {
    ASSERT_EQ(mount(name.c_str(), name.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, name.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  }
  testing::internal::CaptureStderr();
  recorder::complete_runs(".");
  recorder::limit_runs(".", 0, 2 * std::filesystem::file_size("4.pcapng"));
  const std::string said = testing::internal::GetCapturedStderr();
  for (const std::string& name : fixed) umount(name.c_str());
  EXPECT_EQ(files(), (Strings{"1.pcapng", "1.pcapng.part", "2.pcapng"}));
  EXPECT_EQ(said,
            "zirn-run: ./1.pcapng.part: Read-only file system\n"
            "zirn-run: ./1.pcapng: Device or resource busy\n"
            "zirn-run: ./1.pcapng: Device or resource busy\n"
            "zirn-run: ./2.pcapng: Device or resource busy\n");
}

class RecorderService : public RecorderRuns {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    options_.links = {"lo"};
    options_.station = Strings{"-o", "127.0.0.1"};
    options_.is_service = true;
    options_.folder = "runs";
    std::ofstream("log") << "Starting\n";
    options_.log = "log";
  }
  static Strings runs() {
    Strings names;
    for (const auto& entry : std::filesystem::directory_iterator("runs"))
      names.push_back(entry.path().string());
    return names;
  }
  recorder::Options options_;
};

TEST_F(RecorderService, RecordsOneRunIntoTheFolderAndKeepsItInOrder) {
  std::filesystem::create_directory("runs");
  make_run("runs/20000101T000000Z-old.pcapng.part", {}, 100);
  make_run("runs/20010101T000000Z-old.pcapng", {}, 100);
  options_.limit = std::filesystem::file_size("runs/20010101T000000Z-old.pcapng") + 5000;
  Process station([] { return static_cast<int>(sleep(100)); });
  options_.pid = station.pid();
  Recording recording(options_);
  EXPECT_TRUE(wait_until([] { return runs().size() == 3; }));
  usleep(300000);
  Sender("127.0.0.1", 12345).sends("frame");
  station.send_signal(SIGKILL);
  ASSERT_TRUE(station.wait_for_end());
  EXPECT_EQ(recording.exit_status(), 0) << whole_file("errors");
  Strings names = runs();
  std::sort(names.begin(), names.end());
  ASSERT_EQ(names.size(), 2U);
  EXPECT_EQ(names[0], "runs/20010101T000000Z-old.pcapng");
  EXPECT_EQ(names[1].substr(names[1].size() - 8 - host().size()), "-" + host() + ".pcapng");
  const Recorded run = recorded(names[1]);
  EXPECT_EQ(run.lines(), Strings{"Starting"}) << "of the whole log";
  EXPECT_EQ(run.count("frame"), 1U);
  EXPECT_EQ(run.said<record::RunBegins>().at(0).name + ".pcapng", names[1].substr(5));
}

TEST_F(RecorderService, LeavesNothingWhereNothingCame) {
  std::ofstream("log").flush();
  Recording recording(options_);
  EXPECT_TRUE(wait_until([] { return std::filesystem::exists("runs") && runs().size() == 1; }));
  usleep(300000);
  EXPECT_EQ(recording.stops(), 0) << whole_file("errors");
  EXPECT_EQ(runs(), Strings());
}

TEST_F(RecorderService, LeavesNothingWhereThereIsNoRoom) {
  std::filesystem::create_directory("runs");
  ASSERT_EQ(mount("tmpfs", "runs", "tmpfs", 0, "size=64k"), 0);
  std::ofstream("runs/filling") << std::string(100000, 'x');
  Recording recording(options_);
  EXPECT_TRUE(wait_until([] { return !whole_file("errors").empty(); }));
  EXPECT_EQ(recording.stops(), 3);
  EXPECT_NE(whole_file("errors").find("No space left on device; nothing more is recorded"),
            std::string::npos);
  EXPECT_EQ(runs(), Strings{"runs/filling"});
  umount("runs");
}

TEST_F(RecorderService, TellsSystemdWhenItRecords) {
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", scratch_.file("notify").c_str());
  ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  setenv("NOTIFY_SOCKET", address.sun_path, 1);
  Recording recording(options_);
  char said[100] = {};
  EXPECT_EQ(recv(descriptor, said, sizeof said - 1, 0), 7);
  EXPECT_STREQ(said, "READY=1");
  EXPECT_EQ(recording.stops(), 0);
  close(descriptor);
}

}  // namespace
