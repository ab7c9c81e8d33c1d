#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>

#include "zirn_run/older_kernel.h"
#include "zirn_run/recording.h"

// The station's lines, from a log or from the journal, and the end of its run.
namespace {

using Strings = std::vector<std::string>;

constexpr char kStarting[] = "7d4958e842da4a758f6c1cdc7b36dcc5";
constexpr char kSuccess[] = "7ad2d189f7e94e70a38c781354912448";
constexpr char kFailure[] = "d9b373ed55a64feb8242e02dbe79a49c";

void make_script(const std::string& name, const std::string& text) {
  std::ofstream(name) << "#!/bin/sh\n" << text;
  chmod(name.c_str(), 0755);
}

class RecorderLines : public RecordsLoopback {
 protected:
  void SetUp() override {
    RecordsLoopback::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
  }
  void TearDown() override {
    if (sandbox::entered()) umount("/run");
  }
};

class RecorderLog : public RecorderLines {
 protected:
  void SetUp() override {
    RecorderLines::SetUp();
    log_.open("log", std::ios::app);
    log_ << "of an earlier run" << std::endl;
    options_.log = "log";
  }
  std::ofstream log_;
};

TEST_F(RecorderLog, NewLinesAreRecordedWithTheTimeWhenTheyWereSeen) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  log_ << "first\nsecond\n" << std::flush;
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").lines().size() == 2; }));
  Sender("127.0.0.1", 12345).sends("between");
  usleep(200000);
  log_ << "thi" << std::flush;
  usleep(200000);
  log_ << "rd\nnot ended" << std::flush;
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").lines().size() == 3; }));
  EXPECT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.lines(), (Strings{"first", "second", "third", "not ended"}));
  ASSERT_EQ(run.entries.size(), 5U);
  EXPECT_LT(run.entries[2].at, run.frames.at(0).at);
  EXPECT_LT(run.frames.at(0).at, run.entries[3].at);
}

TEST_F(RecorderLog, ALogThatIsEmptiedIsReadFromItsBeginning) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  log_ << "not end" << std::flush;
  usleep(200000);
  std::filesystem::resize_file("log", 0);
  usleep(200000);
  log_ << "first" << std::endl;
  usleep(200000);
  EXPECT_EQ(recording.stops(), 0);
  EXPECT_EQ(recorded("run.pcapng").lines(), (Strings{"not end", "first"}));
}

TEST_F(RecorderLog, TheEndOfTheProcessEndsIt) {
  Process station([] { return static_cast<int>(sleep(100)); });
  options_.pid = station.pid();
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  station.send_signal(SIGKILL);
  ASSERT_TRUE(station.wait_for_end());
  log_ << "last\n" << std::flush;
  EXPECT_EQ(recording.exit_status(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.lines(), Strings{"last"});
  ASSERT_EQ(run.said<record::StationEnds>().size(), 1U);
  EXPECT_FALSE(run.said<record::StationEnds>()[0].status);
}

TEST_F(RecorderLog, TheEndOfTheProcessEndsItOnAnOlderKernel) {
  Process station([] { return static_cast<int>(sleep(100)); });
  options_.pid = station.pid();
  Recording recording(options_, lacks_pidfd_open);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  usleep(500000);
  EXPECT_TRUE(recorded("run.pcapng.part").said<record::StationEnds>().empty());
  station.send_signal(SIGKILL);
  ASSERT_TRUE(station.wait_for_end());
  EXPECT_EQ(recording.exit_status(), 0);
  EXPECT_EQ(recorded("run.pcapng").said<record::StationEnds>().size(), 1U);
}

TEST_F(RecorderLog, ALogThatIsNotThereIsNamed) {
  options_.log = "nothing";
  Recording recording(options_);
  EXPECT_EQ(recording.exit_status(), 3);
  EXPECT_EQ(whole_file("errors"), "zirn-run: nothing: No such file or directory\n");
  EXPECT_FALSE(std::filesystem::exists("run.pcapng.part"));
}

class RecorderJournal : public RecorderLines {
 protected:
  // journalctl: notes its words, and prints what is put into the file "journal", from the beginning.
  void SetUp() override {
    RecorderLines::SetUp();
    make_script("journalctl", "echo \"$@\" >> called\nexec tail -n +1 -f journal\n");
    std::ofstream("journal").flush();
    std::ofstream("called").flush();
    setenv("PATH", (scratch_.path() + ":/usr/bin:/bin").c_str(), 1);
    options_.unit = "zirn-test-station";
  }

  static void journal_gets(const std::string& fields) {
    static int cursor = 0;
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    std::ofstream("journal", std::ios::app)
        << "__CURSOR=s=" << ++cursor << "\n__REALTIME_TIMESTAMP=" << now.count() << "\n"
        << fields << "\n\n"
        << std::flush;
  }
  static void station_prints(const std::string& line) {
    journal_gets("SYSLOG_IDENTIFIER=TFTP\n_SYSTEMD_UNIT=zirn-test-station.service\nMESSAGE=" + line);
  }
  static void systemd_says(const std::string& message_id) {
    journal_gets("UNIT=zirn-test-station.service\nMESSAGE_ID=" + message_id + "\nMESSAGE=a message");
  }
  static Strings records() {
    Strings names;
    for (const auto& entry : std::filesystem::directory_iterator("runs"))
      names.push_back(entry.path().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  void records_into_a_folder() {
    options_.output.clear();
    options_.is_service = true;
    options_.folder = "runs";
  }
  static void the_next_run_begins_at_once() {
    systemd_says(kSuccess);
    usleep(5000);
    systemd_says(kStarting);
    station_prints("second");
    Sender("127.0.0.1", 12345).sends("of the second");
    EXPECT_TRUE(wait_until([] { return records().size() == 2; }));
    usleep(300000);
  }
  static void run_has_status(const std::string& status) {
    std::filesystem::create_directories("/run/zirn-test-station");
    std::ofstream("/run/zirn-test-station/exit_status") << status << "\n";
  }
};

TEST_F(RecorderJournal, EntriesAreRecordedWithAllTheirFieldsUntilTheUnitEnds) {
  run_has_status("2");
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  station_prints("first");
  systemd_says(kSuccess);
  usleep(300000);
  station_prints("after the end");
  EXPECT_EQ(recording.exit_status(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.lines(), (Strings{"first", "after the end"}));
  ASSERT_EQ(run.entries.size(), 5U);
  EXPECT_EQ(run.entries[1].value("_SYSTEMD_UNIT"), "zirn-test-station.service");
  EXPECT_EQ(run.entries[2].value("MESSAGE_ID"), kSuccess);
  const auto ends = run.said<record::StationEnds>();
  ASSERT_EQ(ends.size(), 2U);
  EXPECT_FALSE(ends[0].status);
  EXPECT_EQ(ends[1].status, 2);
  const std::string called = whole_file("called");
  EXPECT_EQ(called.rfind(
                "--quiet --follow --lines=all --output=export --unit zirn-test-station.service --since=@", 0),
            0U)
      << called;
}

TEST_F(RecorderJournal, AUnitThatFailedEndsItAsWell) {
  run_has_status("1");
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  systemd_says(kFailure);
  EXPECT_EQ(recording.exit_status(), 0);
  EXPECT_TRUE(recorded("run.pcapng").said<record::StationEnds>().empty())
      << "systemd tells the status itself";
}

TEST_F(RecorderJournal, TheStatusOfALaterRunIsNotTaken) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  systemd_says(kSuccess);
  usleep(20000);
  run_has_status("1");
  EXPECT_EQ(recording.exit_status(), 0);
  ASSERT_EQ(recorded("run.pcapng").said<record::StationEnds>().size(), 1U);
  EXPECT_FALSE(recorded("run.pcapng").said<record::StationEnds>()[0].status);
}

TEST_F(RecorderJournal, AnotherUnitsEndIsNoEnd) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  journal_gets(std::string("UNIT=other.service\nMESSAGE=x\nMESSAGE_ID=") + kSuccess);
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").entries.size() == 2; }));
  usleep(1500000);
  EXPECT_EQ(recording.stops(), 0);
}

TEST_F(RecorderJournal, FramesWaitForLinesThatCameBeforeThem) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  make_script("late", "sleep 0.2\ncat line >> journal\n");
  const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::system_clock::now().time_since_epoch());
  std::ofstream("line") << "__REALTIME_TIMESTAMP=" << now.count()
                        << "\nSYSLOG_IDENTIFIER=TFTP\nMESSAGE=before\n\n";
  Program late({"late"});
  usleep(1000);
  Sender("127.0.0.1", 12345).sends("frame");
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").count("frame") == 1; }));
  EXPECT_EQ(recorded("run.pcapng.part").lines(), Strings{"before"});
  const std::string file = whole_file("run.pcapng.part");
  EXPECT_LT(file.find("MESSAGE=before"), file.rfind("frame"));
  EXPECT_EQ(recording.stops(), 0);
}

TEST_F(RecorderJournal, AJournalctlThatEndsIsBegunAnewBehindItsLastEntry) {
  make_script(
      "journalctl",
      "echo \"$@\" >> called\n"
      "if [ $(wc -l < called) = 1 ]; then cat journal; while [ ! -e dies ]; do sleep 0.05; done; exit; fi\n"
      "exec tail -n +1 -f later\n");
  std::ofstream("later") << "SYSLOG_IDENTIFIER=TFTP\nMESSAGE=second\n__REALTIME_TIMESTAMP=1\n\n";
  station_prints("first");
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  EXPECT_TRUE(wait_until([] { return !recorded("run.pcapng.part").lines().empty(); }));
  std::ofstream("dies").flush();
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").lines().size() == 2; }));
  EXPECT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.lines(), (Strings{"first", "second"}));
  EXPECT_EQ(run.gaps(), Strings{"lines may be missing: journalctl ended, and is begun anew"});
  const std::string called = whole_file("called");
  EXPECT_NE(called.find("\n--quiet --follow --lines=all --output=export --unit zirn-test-station.service "
                        "--after-cursor=s="),
            std::string::npos)
      << called;
}

TEST_F(RecorderJournal, WithoutAJournalctlTheFramesAreRecordedAndOneGapSaysSo) {
  setenv("PATH", "/nowhere", 1);
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  usleep(2500000);
  Sender("127.0.0.1", 12345).sends("frame");
  EXPECT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.count("frame"), 1U);
  EXPECT_EQ(run.gaps().size(), 1U);
}

TEST_F(RecorderJournal, ARunThatBeginsBehindTheOneBeforeIsARecordOfItsOwn) {
  records_into_a_folder();
  Recording recording(options_);
  EXPECT_TRUE(wait_until([] { return !whole_file("called").empty(); }));
  usleep(300000);
  station_prints("first");
  Sender("127.0.0.1", 12345).sends("of the first");
  usleep(5000);
  the_next_run_begins_at_once();
  EXPECT_EQ(recording.stops(), 0) << whole_file("errors");
  ASSERT_EQ(records().size(), 2U);
  EXPECT_EQ(recorded(records()[0]).lines(), Strings{"first"});
  EXPECT_EQ(recorded(records()[0]).count("of the first"), 1U);
  EXPECT_EQ(recorded(records()[1]).lines(), Strings{"second"});
  EXPECT_EQ(recorded(records()[1]).count("of the second"), 1U);
  EXPECT_EQ(recorded(records()[1]).count("of the first"), 0U);
}

TEST_F(RecorderJournal, TheNextRunIsRecordedWhereThereIsRoomAgain) {
  records_into_a_folder();
  ASSERT_EQ(mkdir("runs", 0755), 0);
  ASSERT_EQ(mount("tmpfs", "runs", "tmpfs", 0, "size=64k"), 0);
  Recording recording(options_);
  EXPECT_TRUE(wait_until([] { return !whole_file("called").empty() && records().size() == 1; }));
  usleep(300000);
  std::ofstream("runs/filling") << std::string(100000, 'x');
  station_prints(std::string(10000, 'x'));
  EXPECT_TRUE(
      wait_until([] { return whole_file("errors").find("nothing more is recorded") != std::string::npos; }));
  std::filesystem::remove("runs/filling");
  the_next_run_begins_at_once();
  EXPECT_EQ(recording.stops(), 3);
  ASSERT_EQ(records().size(), 2U);
  EXPECT_EQ(recorded(records()[0]).lines(), Strings());
  EXPECT_EQ(recorded(records()[1]).lines(), Strings{"second"});
  EXPECT_EQ(recorded(records()[1]).count("of the second"), 1U);
  umount("runs");
}

TEST_F(RecorderJournal, WhatCannotBeReadIsPassedOver) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  station_prints("first");
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").lines().size() == 1; }));
  std::ofstream("journal", std::ios::app) << "this is no field\n\n" << std::flush;
  usleep(300000);
  std::ofstream("journal").flush();
  station_prints("later");
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").lines().size() == 2; }));
  EXPECT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.lines(), (Strings{"first", "later"}));
  EXPECT_EQ(run.gaps(), Strings{"lines may be missing: journalctl ended, and is begun anew"});
  const std::string called = whole_file("called");
  EXPECT_NE(called.find("--since=@", called.find('\n')), std::string::npos) << called;
}

TEST_F(RecorderJournal, NoChildOutlivesIt) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  EXPECT_TRUE(wait_until([] { return !whole_file("called").empty(); }));
  const std::string children =
      "/proc/" + std::to_string(recording.pid()) + "/task/" + std::to_string(recording.pid()) + "/children";
  const std::string child = std::to_string(std::atoi(whole_file(children).c_str()));
  ASSERT_NE(child, "0");
  recording.gets_signal(SIGKILL);
  EXPECT_EQ(recording.exit_status(), -SIGKILL);
  EXPECT_TRUE(wait_until([&] {
    const std::string state = whole_file("/proc/" + child + "/stat");
    return state.empty() || state.find(") Z ") != std::string::npos;
  }));
}

}  // namespace
