// Whether the bench judges: a run that goes otherwise than its scenario says is told as such.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>

#include "record/reader.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/whole_file.h"

namespace {

namespace fs = std::filesystem;

constexpr int kNotAllowed = 77;

struct Result {
  int status = -1;
  std::string output;

  // The line that says what went wrong, without its time.
  std::string wrong() const {
    const std::size_t at = output.find("WRONG: ");
    return at == std::string::npos ? "" : output.substr(at, output.find('\n', at) - at);
  }
};

class Bench : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    if (plays("station starts\nstation gets SIGKILL\nstation exits 137\n").status == kNotAllowed) {
      GTEST_SKIP() << result_.output;
    }
  }

  const Result& plays(const std::string& scenario) {
    return calls(TFTP_PROGRAM " " + file_with(scenario) + " " + results());
  }

  // The entries and frames of the run's record, one a line: what it says, and a frame's comments.
  std::string recorded() const {
    std::ifstream file(results() + "/a.pcapng", std::ios::binary);
    record::Reader reader(file);
    std::string text;
    while (const auto item = reader.next()) {
      if (const auto* const entry = std::get_if<record::Entry>(&*item)) {
        text += std::string(entry->value("MESSAGE")) + "\n";
      } else if (const auto* const frame = std::get_if<record::Frame>(&*item)) {
        text += "frame";
        for (const std::string& comment : frame->comments) text += ", " + comment;
        text += "\n";
      }
    }
    return text + reader.problem();
  }

  // Whether some frame holds these bytes.
  bool has_sent(const std::string& bytes) const {
    std::ifstream file(results() + "/a.pcapng", std::ios::binary);
    record::Reader reader(file);
    while (const auto item = reader.next()) {
      const auto* const frame = std::get_if<record::Frame>(&*item);
      if (frame != nullptr && frame->bytes.size() >= bytes.size() &&
          frame->bytes.substr(frame->bytes.size() - bytes.size()) == bytes)
        return true;
    }
    return false;
  }

  // What the unit's system said for it once it was gone itself.
  std::string last_words_of_unit() const {
    constexpr char kUnit[] = "\xac\x28\x00\x02";
    constexpr std::size_t kProtocolAt = 23, kSourceAt = 26,
                          kFlagsAt = 47;            // of an Ethernet frame without options
    constexpr char kIcmp = 1, kTcp = 6, kEnds = 5;  // RST or FIN
    std::ifstream file(results() + "/a.pcapng", std::ios::binary);
    record::Reader reader(file);
    while (const auto item = reader.next()) {
      const auto* const frame = std::get_if<record::Frame>(&*item);
      if (frame == nullptr || frame->bytes.size() <= kFlagsAt ||
          frame->bytes.substr(kSourceAt, 4) != std::string_view(kUnit, 4))
        continue;
      if (frame->bytes[kProtocolAt] == kIcmp) return "unreachable";
      if (frame->bytes[kProtocolAt] == kTcp && (frame->bytes[kFlagsAt] & kEnds) != 0)
        return "the connection ends";
    }
    return "none";
  }

  std::string file_with(const std::string& scenario) const {
    const std::string file = directory_.file("a.run");
    write_whole_file(file, scenario);
    return file;
  }

  const Result& calls(const std::string& arguments) { return runs(BENCH_PROGRAM " " + arguments); }

  const Result& runs(const std::string& command) {
    result_ = Result();
    FILE* pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
    for (int byte; (byte = std::fgetc(pipe)) != EOF;) result_.output += static_cast<char>(byte);
    result_.status = WEXITSTATUS(pclose(pipe));
    return result_;
  }

  std::string results() const { return directory_.file("results"); }

  std::set<std::string> left() const {
    std::set<std::string> names;
    if (!fs::exists(results())) return names;  // it was interrupted before
    for (const auto& entry : fs::directory_iterator(results())) names.insert(entry.path().filename());
    return names;
  }

  // Plays a scenario that must go otherwise.
  std::string goes_wrong(const std::string& scenario) {
    const Result& result = plays(scenario);
    EXPECT_EQ(result.status, 1) << result.output;
    return result.wrong();
  }

  // The explanation's two lines have a time.
  static std::string without_explanation(const std::string& output) {
    const std::size_t begin = output.find('\n') + 1;
    return output.substr(0, begin) + output.substr(output.find('\n', output.find('\n', begin) + 1) + 1);
  }

  ScratchDirectory directory_;
  Result result_;
};

TEST_F(Bench, LeavesCaptureAndPictureAlone) {
  const Result& result =
      plays("file a holds b\nstation starts\nunit reads a\nunit reads F_l_m_01PPT_PASSED\nstation exits 2\n");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(left(), (std::set<std::string>{"a.pcapng", "a.svg"}));
}

// At many moments: before there are namespaces, while they are made, and when the station runs.
TEST_F(Bench, LeavesNothingWhenItIsInterrupted) {
  const std::string file = directory_.file("long.run");
  write_whole_file(file, "station starts\nbench waits 60 s\n");
  for (const char* signal : {"HUP", "INT", "TERM"}) {
    for (const char* seconds : {"0.003", "0.01", "0.03", "0.1", "0.3", "2"}) {
      const std::string command = std::string("timeout --preserve-status -s ") + signal + " " + seconds +
                                  " " BENCH_PROGRAM " " TFTP_PROGRAM " " + file + " " + results();
      EXPECT_GT(runs(command).status, 128) << command;
      EXPECT_EQ(left(), (std::set<std::string>{"a.pcapng", "a.svg"})) << command;
    }
  }
  EXPECT_NE(std::system("pgrep -f '[l]ong.run' > /dev/null"), 0);
}

TEST_F(Bench, SaysBySignalNumberWhatInterruptedIt) {
  const std::string file = directory_.file("long.run");
  write_whole_file(file, "station starts\nbench waits 60 s\n");
  EXPECT_EQ(
      runs("timeout --preserve-status -s INT 1 " BENCH_PROGRAM " " TFTP_PROGRAM " " + file + " " + results())
          .status,
      130);
}

TEST_F(Bench, PlaysOneScenarioTwiceAtATime) {
  const std::string file = directory_.file("twice.run");
  write_whole_file(file, "station starts\nbench waits 1 s\nstation gets SIGINT\nstation exits 2\n");
  const std::string command = BENCH_PROGRAM " " TFTP_PROGRAM " " + file + " " + results() + " > /dev/null";
  EXPECT_EQ(std::system((command + " & first=$!; " + command + " && wait $first").c_str()), 0);
}

TEST_F(Bench, DrawsAndLogsWhatItKnowsOfTheRun) {
  plays(
      "# A title\nstation starts\nunit reads F_l_m_01TEST_FAILED\nstation says \"Cmd received: "
      "F_l_m_01TEST_FAILED\"\nboard keeps ppt_flag failed\nstation gets SIGKILL\nstation exits 137\n");
  EXPECT_NE(result_.output.find("board    runs envtool ppt_flag=failed\n"), std::string::npos)
      << result_.output;
  const std::string picture = whole_file(results() + "/a.svg");
  for (const char* text : {">A title<", ">a, 20", ">TFTP -o 172.40.0.1<", ">read F_l_m_01TEST_FAILED, ",
                           ">envtool ppt_flag=failed, status 0<", ">failed<", ">as the scenario says<",
                           ">137 (SIGKILL)<", ">Cmd received: F_l_m_01TEST_FAILED<", ">end of the run<"})
    EXPECT_NE(picture.find(text), std::string::npos) << text;
  plays("station starts\nstation gets SIGKILL\nstation exits 2\n");
  EXPECT_NE(whole_file(results() + "/a.svg").find(">line 3, station exits 2: its exit status is 137<"),
            std::string::npos);
}

TEST_F(Bench, RecordsWhatItKnowsOfTheRun) {
  plays(
      "# A title\nfile a holds b\nstation starts\nunit reads a\nwire loses 100 %\nunit cannot read a timeout "
      "1\n"
      "wire is whole\nunit reads F_l_m_01TEST_FAILED\nstation gets SIGKILL\nstation exits 137\n");
  const std::string record = recorded();
  for (const char* text :
       {"Server started , waiting for connections\n", "\nframe\n", "\nRRQ a\n", "\nframe, lost: by chance\n",
        "\nCmd received: F_l_m_01TEST_FAILED\n", "\nthe board runs envtool ppt_flag=failed",
        "\nthe station ends by signal 9\n", "\nthe run ends: as the scenario says\n"}) {
    EXPECT_NE(record.find(text), std::string::npos) << text << "in\n" << record;
  }
  EXPECT_EQ(record.rfind("the run begins: a\n", 0), 0U);
}

TEST_F(Bench, RecordsWhatTheStationWritesToItsStandardError) {
  const std::string station = directory_.file("station");
  write_whole_file(station,
                   "#!/bin/sh\n"
                   "echo 'a complaint' >&2\n"
                   "echo 'Message Sender initialized. '\n"
                   "sleep 0.2; printf 'and its ' >&2; sleep 0.2; printf 'last' >&2\n");
  fs::permissions(station, fs::perms::owner_all);
  calls(station + " " + file_with("station starts\nstation says \"and its last\"\nstation exits 0\n") + " " +
        results());
  EXPECT_EQ(result_.status, 0) << result_.output;
  EXPECT_NE(recorded().find("\na complaint\n"), std::string::npos) << recorded();
  EXPECT_NE(recorded().find("\nand its last\n"), std::string::npos) << recorded();
}

TEST_F(Bench, RecordsWhenTheStationEnded) {
  plays("station starts\nstation gets SIGINT\nstation exits 2\nbench waits 0.5 s\n");
  std::ifstream file(results() + "/a.pcapng", std::ios::binary);
  record::Reader reader(file);
  std::map<std::string, record::Nanoseconds> when;
  while (const auto item = reader.next()) {
    if (const auto* const entry = std::get_if<record::Entry>(&*item))
      when[std::string(entry->value("MESSAGE"))] = entry->at;
  }
  EXPECT_GE(when["the run ends: as the scenario says"] - when["the station ends with status 2"], 500000000);
  EXPECT_GT(when["the station ends with status 2"], 0);
}

TEST_F(Bench, RecordsTheStatusOfTheBoardsCommands) {
  plays(
      "board tool exits 3\nstation starts\nunit reads F_l_m_t_Bootstrap_loading\nppt is "
      "connected\n"
      "unit asks DO_PMC_INIT:7 expects READY\nstation gets SIGINT\nstation exits 2\n");
  EXPECT_NE(recorded().find("\nthe board runs /mnt/ramdisk/t1-e1 7 -1: status 3\n"), std::string::npos)
      << recorded();
}

TEST_F(Bench, RecordsInTheOrderOfTime) {
  plays("file a is 30 KiB\nstation starts\nunit reads a\nstation gets SIGINT\nstation exits 2\n");
  std::ifstream file(results() + "/a.pcapng", std::ios::binary);
  record::Reader reader(file);
  record::Nanoseconds before = 0;
  while (const auto item = reader.next()) {
    const auto* const entry = std::get_if<record::Entry>(&*item);
    const auto* const frame = std::get_if<record::Frame>(&*item);
    if (entry == nullptr && frame == nullptr) continue;
    const record::Nanoseconds at = entry != nullptr ? entry->at : frame->at;
    EXPECT_LE(before, at);
    before = at;
  }
  EXPECT_GT(before, 0);
}

TEST_F(Bench, DrawsDamage) {
  plays(
      "file a holds b\nstation starts\nunit reads a\nwire is cut for 0.5 s\nunit cannot read a\n"
      "wire duplicates 100 %\nunit reads a\nstation gets SIGKILL\nstation exits 137\n");
  const std::string picture = whole_file(results() + "/a.svg");
  for (const char* text : {">cable pulled, 0.5 s<", ">lost<", "duplicated<"})
    EXPECT_NE(picture.find(text), std::string::npos) << text << result_.output;
}

// However the options are written, and whatever counts of the numbers.
TEST_F(Bench, IsAtTheStationsPorts) {
  const Result& result = plays(
      "file bootscript.txt holds \"setenv bootdelay 1\\r\\n\"\n"
      "station starts with \"-n 70 --msgport=4000 -p 65607 -s=172.30.0.7\"\n"
      "unit hears the boot script\nunit obeys the boot script\nppt hears F_l_m_t_CPU_2_Bootstrap_loading\n"
      "ppt is connected\nunit asks ZIRN_ASKS_FOR_HIS_MAC expects 02:00:00:00:17:2c\n"
      "unit sends \"line 1\"\nppt receives \"line 1\"\n"
      "unit reads F_l_m_01PPT_PASSED\nstation exits 2\n");
  EXPECT_EQ(result.status, 0) << result.output;
  const std::string picture = whole_file(results() + "/a.svg");
  for (const char* text : {">boot script", ">read bootscript.txt, ", ">read F_l_m_t_CPU_2_Bootstrap_loading",
                           ">connects to port 4000, "})
    EXPECT_NE(picture.find(text), std::string::npos) << text;
}

TEST_F(Bench, HasNoPptServerElsewhereNorWhereItRefuses) {
  for (const std::string scenario : {"station starts with \"-s 172.31.0.7\"\n",
                                     "ppt refuses\nstation starts with \"-s 172.30.0.7 -p 70 -m 4000\"\n"}) {
    const Result& result = plays(scenario +
                                 "unit reads F_l_m_01STEP\nppt has not heard F_l_m_01CPU_2_STEP\n"
                                 "unit asks A in vain\nstation gets SIGKILL\nstation exits 137\n");
    EXPECT_EQ(result.status, 0) << result.output;
  }
}

struct Verdict {
  const char* read;
  const char* said;
};
void PrintTo(const Verdict& verdict, std::ostream* out) {
  *out << verdict.read;
}
class BenchVerdict : public Bench, public testing::WithParamInterface<Verdict> {};

TEST_P(BenchVerdict, IsSaidAtTheEnd) {
  const std::string scenario = "station starts\nunit reads " + std::string(GetParam().read) +
                               "\nstation gets SIGKILL\nstation exits 137\n";
  EXPECT_NE(plays(scenario).output.find("\n" + std::string(GetParam().said) + "\na "), std::string::npos)
      << result_.output;
}

INSTANTIATE_TEST_SUITE_P(Bench, BenchVerdict,
                         testing::Values(Verdict{"F_l_m_01PPT_PASSED", "the unit PASSED"},
                                         Verdict{"F_l_m_01PPT_FAILED", "the unit FAILED"},
                                         Verdict{"F_l_m_01TEST_FAILED", "the unit gave no final verdict"}));

TEST_F(Bench, EndsEveryDamageWhenTheWireIsWhole) {
  const Result& result = plays(
      "file a holds b\nstation starts\nwire loses 100 %\nunit cannot read a\n"
      "wire duplicates 100 %\nwire swaps 100 %\nwire delays 5000 ms\nwire is whole\n"
      "unit reads a\nwire is cut for 3600 s\nunit cannot read a\nstation gets SIGKILL\nstation exits 137\n");
  EXPECT_EQ(result.status, 0) << result.output;
  const std::string fates = recorded();
  EXPECT_NE(fates.find(", lost: by chance\n"), std::string::npos);
  EXPECT_NE(fates.find(", lost: the cable was out\n"), std::string::npos);
  for (const char* fate : {", duplicated\n", ", swapped"})
    EXPECT_EQ(fates.find(fate), std::string::npos) << fates;
}

struct Damage {
  const char* step;
  const char* fate;
};
void PrintTo(const Damage& damage, std::ostream* out) {
  *out << damage.step;
}
class BenchDamage : public Bench, public testing::WithParamInterface<Damage> {};

TEST_P(BenchDamage, IsWhatTheScenarioSays) {
  plays("file a is 30 KiB\nstation starts\nwire " + std::string(GetParam().step) +
        "\nunit reads a\nstation gets SIGKILL\nstation exits 137\n");
  const std::string fates = recorded();
  for (const char* fate : {", duplicated\n", ", swapped"})
    EXPECT_EQ(fates.find(fate) != std::string::npos, fate == std::string(GetParam().fate)) << fates;
}

INSTANTIATE_TEST_SUITE_P(Bench, BenchDamage,
                         testing::Values(Damage{"duplicates 50 %", ", duplicated\n"},
                                         Damage{"swaps 50 %", ", swapped"}));

// A silent PPT server costs the verdict's station five seconds.
TEST_F(Bench, HasAPptServerThatIsSilent) {
  const Result& result = plays(
      "station starts\nppt is silent\nunit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\n"
      "bench waits 2 s\nunit cannot read a\nstation says \"RRQ a\"\nstation gets SIGKILL\nstation exits "
      "137\n");
  EXPECT_EQ(result.status, 0) << result.output;
  const std::size_t asked = result.output.find("unit     reads a\n");
  EXPECT_NE(result.output.find("unit     has 0 of 0 KiB of a\n", asked), std::string::npos) << result.output;
}

TEST_F(Bench, HasSeveralUnits) {
  const Result& result = plays(
      "file a is 30 KiB\nfile b holds c\nstation starts\nunit begins reading a\nunit d begins reading b\n"
      "unit b hears the boot script\nunit ends reading\nunit d ends reading\n"
      "unit c reads F_l_m_01PPT_PASSED\nstation exits 2\n");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_NE(result.output.find("unit d   has b, 1 bytes as served"), std::string::npos) << result.output;
  const std::string picture = whole_file(results() + "/a.svg");
  for (const char* address : {">172.40.0.2", ">172.40.0.4", ">172.40.0.5"})
    EXPECT_NE(picture.find(address), std::string::npos) << address << picture;
  EXPECT_EQ(goes_wrong("station starts\nunit b ends reading\n"),
            "WRONG: line 2, unit b ends reading: nothing is read; expected \"unit begins reading\" before");
  EXPECT_EQ(goes_wrong("station starts\nunit c begins reading a\nstation gets SIGKILL\nstation exits 137\n"),
            "WRONG: a is still being read; expected \"unit c ends reading\"");
}

struct Loader {
  const char* habit;
  const char* read;     // and what the read says besides
  const char* request;  // as the wire carried it: its options
};
void PrintTo(const Loader& loader, std::ostream* out) {
  *out << loader.habit << loader.read;
}
class BenchLoader : public Bench, public testing::WithParamInterface<Loader> {};

TEST_P(BenchLoader, AsksInItsOrderAndReadsWholeFiles) {
  const Result& result =
      plays("file a is 3000 bytes\nfile b is 1468 bytes\nfile c is 0 bytes\nstation starts\nunit is like " +
            std::string(GetParam().habit) + "\nunit reads a" + GetParam().read + "\nunit reads b\nunit " +
            (GetParam().habit == std::string("curl") ? "cannot read" : "reads") +
            " c\nunit reads F_l_m_01PPT_PASSED\nstation exits 2\n");
  EXPECT_EQ(result.status, 0) << result.output;
  std::string request("\0\1a\0octet\0", 10);
  for (std::istringstream words(GetParam().request); words;) {
    std::string word;
    if (words >> word) request += word + '\0';
  }
  EXPECT_TRUE(has_sent(request)) << GetParam().request;
}

INSTANTIATE_TEST_SUITE_P(Bench, BenchLoader,
                         testing::Values(Loader{"zirn", "", "timeout 5 blksize 512 tsize 0"},
                                         Loader{"curl", "", "tsize 0 blksize 512 timeout 6"},
                                         Loader{"curl", " blksize 1428", "tsize 0 blksize 1428 timeout 6"},
                                         Loader{"tftp-hpa", "", ""},
                                         Loader{"atftp", " blksize 1428 timeout 7", "timeout 7 blksize 1428"},
                                         Loader{"busybox", "", "tsize 0"},
                                         Loader{"busybox", " blksize 1428", "blksize 1428 tsize 0"},
                                         Loader{"u-boot", "", "timeout 5 blksize 1468"},
                                         Loader{"ipxe", "", "blksize 1432 tsize 0"}));

// All that is heard of it is its requests.
TEST_F(Bench, RepeatsAsItsHabitIs) {
  const Result& result = plays(
      "file a is 3000 bytes\nstation starts\nunit is like busybox\nwire is cut for 0.9 s\nunit reads a\n"
      "wire loses 100 %\nunit cannot read a repeats 3 times after 0.1 s\nstation gets SIGKILL\nstation exits "
      "137\n");
  EXPECT_EQ(result.status, 0) << result.output;
  const std::string record = recorded();
  EXPECT_NE(record.find(", lost: the cable was out\n"), std::string::npos) << record;
  EXPECT_NE(result.output.find("could not read a: no answer came from the station"), std::string::npos)
      << result.output;
}

// Neither an RST comes for its connection nor "port unreachable" for its transfer; it is as if it had never been.
TEST_F(Bench, HasAUnitThatCrashes) {
  const std::string crash =
      "file a is 16 MiB\nstation starts\nunit reads F_l_m_01STEP\nunit asks A expects A and holds on\n"
      "unit asks on B expects B\nunit begins reading a blksize 1428\nunit has read 1 MiB\nunit crashes\n"
      "station says \"Client timeout\"\n";
  const std::string end = "station gets SIGKILL\nstation exits 137\n";
  EXPECT_EQ(plays(crash + end).status, 0) << result_.output;
  EXPECT_EQ(last_words_of_unit(), "none");
  EXPECT_EQ(plays(crash + "unit boots again\nbench waits 6 s\n" + end).status, 0) << result_.output;
  EXPECT_EQ(last_words_of_unit(), "unreachable");
  EXPECT_EQ(goes_wrong("station starts\nunit boots again\n"),
            "WRONG: line 2, unit boots again: it has not crashed");
  EXPECT_EQ(goes_wrong("station starts\nunit crashes\nunit reads a\n"),
            "WRONG: line 3, unit reads a: it has crashed; expected \"unit boots again\" before");
}

// A text beyond what the station takes at once is two to it.
TEST_F(Bench, IsToldTwiceForOneText) {
  const std::string begin(254, 'x'), rest(254, 'y');
  const Result& result = plays("station starts\nunit reads F_l_m_01STEP\nunit asks " + begin + rest +
                               " expects " + begin + " and holds on\nunit is told " + rest +
                               "\nunit hangs up\nunit reads F_l_m_02PPT_PASSED\nstation exits 2\n");
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(Bench, SendsBytes) {
  const Result& result = plays(
      "file a is 16 MiB\nstation starts\nunit is like u-boot\nunit sends bytes 00ff to port 69\nstation says "
      "\"Unexpected packet\"\n"
      "unit begins reading a\nunit has read 8 KiB\nunit sends bytes 000500004e6f00 to port 33233\n"
      "unit ends reading in vain\nstation gets SIGKILL\nstation exits 137\n");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_NE(result.output.find("could not read a: ERROR 4, "), std::string::npos) << result.output;
}

TEST_F(Bench, TriesAsOftenAsItIsTold) {
  EXPECT_EQ(goes_wrong("station starts\nunit reads a tries 2\n"),
            "WRONG: line 2, unit reads a tries 2: a was not read: ERROR 1, File not found");
  const std::size_t first = result_.output.find("unit     reads a\n");
  const std::size_t second = result_.output.find("unit     reads a\n", first + 1);
  ASSERT_NE(second, std::string::npos) << result_.output;
  EXPECT_EQ(result_.output.find("unit     reads a\n", second + 1), std::string::npos) << result_.output;
}

// Of sixteen blocks each takes 0.8 s.
TEST_F(Bench, WaitsForAReadThatIsSlow) {
  const Result& result = plays(
      "file a is 16 KiB\nstation starts\nwire delays 400 ms\nunit begins reading a blksize 512\n"
      "unit has read 8 KiB\nwire is whole\nunit ends reading\nstation gets SIGKILL\nstation exits 137\n");
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(Bench, WaitsUntilSoMuchIsRead) {
  const Result& result = plays(
      "file a is 100 KiB\nstation starts\nwire delays 10 ms\nunit begins reading a blksize 8192\n"
      "unit has read 40 KiB\nwire is whole\nunit ends reading\nstation gets SIGKILL\nstation exits 137\n");
  EXPECT_EQ(result.status, 0) << result.output;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(goes_wrong("file a is 1 KiB\nstation starts\nunit begins reading a\nunit has read 2 KiB\n"),
            "WRONG: line 4, unit has read 2 KiB: it has read less");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(100)) << "the read had ended";
  EXPECT_EQ(goes_wrong("station starts\nunit has read 2 KiB\n"),
            "WRONG: line 2, unit has read 2 KiB: nothing is read; expected \"unit begins reading\" before");
}

TEST_F(Bench, TriesNoMoreOnceAReadTakesTooLong) {
  EXPECT_EQ(
      goes_wrong("file a is 100 KiB\nstation starts\nwire delays 20 ms\nunit reads a tries 2 within 1 s\n"),
      "WRONG: line 4, unit reads a tries 2 within 1 s: a was not read: it takes longer than 1 s");
}

TEST_F(Bench, SaysThatTheStationCannotBeStarted) {
  EXPECT_EQ(calls("/nowhere/TFTP " + file_with("station starts\n") + " " + results()).status, 1);
  EXPECT_EQ(result_.wrong(),
            "WRONG: line 1, station starts: /nowhere/TFTP cannot be started: No such file or directory");
}

TEST_F(Bench, SaysThatACommandIsMissing) {
  const std::string command =
      "PATH=/nowhere " BENCH_PROGRAM " " TFTP_PROGRAM " " + file_with("station starts\n") + " " + results();
  EXPECT_EQ(runs(command).wrong(),
            "WRONG: line 1, station starts: ip cannot be started: No such file or directory");
}

class BenchInAnyFolder : public Bench, public testing::WithParamInterface<const char*> {};

TEST_P(BenchInAnyFolder, HasTheBoardsCommands) {
  const std::string scenario = file_with(
      "station starts\nunit reads F_l_m_01PPT_FAILED\nstation exits 2\nboard keeps ppt_flag failed\n");
  const std::string folder = directory_.file(GetParam());
  EXPECT_EQ(calls(TFTP_PROGRAM " " + scenario + " \"" + folder + "\"").status, 0) << result_.output;
  EXPECT_TRUE(fs::exists(folder + "/a.svg"));
}

INSTANTIATE_TEST_SUITE_P(Bench, BenchInAnyFolder, testing::Values("a folder", "it's", "a:b"));

// The sandbox has mounts of its own, and so the folder is not the machine's.
TEST_F(Bench, LeavesItsResultsBesideTheBoardsRamDisk) {
  const std::string command =
      "mount -t tmpfs none /mnt && mkdir /mnt/ramdisk && touch /mnt/file && " BENCH_PROGRAM " " TFTP_PROGRAM
      " " +
      file_with("station starts\nstation gets SIGKILL\nstation exits 137\n") +
      " /mnt/results && ls /mnt/results";
  const std::string output = runs("unshare --mount sh -c '" + command + "'").output;
  EXPECT_NE(output.find("\na.pcapng\na.svg\n"), std::string::npos) << output;
}

TEST_F(Bench, RefusesALinkThatCannotBeMade) {
  EXPECT_NE(goes_wrong("board link is called a-name-that-is-too-long\nstation starts\n")
                .find("expected a device name of 1 to 15 characters"),
            std::string::npos);
}

TEST_F(Bench, SeesAnotherExitStatus) {
  EXPECT_EQ(goes_wrong("station starts\nstation gets SIGTERM\nstation exits 2\n"),
            "WRONG: line 3, station exits 2: its exit status is 15");
}

TEST_F(Bench, SeesThatTheStationDoesNotEnd) {
  EXPECT_EQ(goes_wrong("station starts\nstation exits 2 within 1 s\n"),
            "WRONG: line 2, station exits 2 within 1 s: the station still runs");
}

TEST_F(Bench, RequiresAStepThatEndsTheStation) {
  EXPECT_EQ(goes_wrong("station starts\n"), "WRONG: the station still runs; expected a step that ends it");
}

TEST_F(Bench, RequiresThatTheStationHasStarted) {
  EXPECT_EQ(goes_wrong("station exits 2\n"),
            "WRONG: line 1, station exits 2: it never started; expected \"station starts\" before");
}

TEST_F(Bench, StartsTheStationOnce) {
  EXPECT_EQ(goes_wrong("station starts\nstation starts\n"),
            "WRONG: line 2, station starts: it has started already");
  EXPECT_EQ(goes_wrong("station gets SIGTERM\n"),
            "WRONG: line 1, station gets SIGTERM: it never started; expected \"station starts\" before");
}

TEST_F(Bench, ObeysOnlyAScriptThatItHasHeard) {
  EXPECT_EQ(goes_wrong("station starts\nunit obeys the boot script\n"),
            "WRONG: line 2, unit obeys the boot script: it has heard none");
}

TEST_F(Bench, EndsScriptsThatObeyThemselves) {
  EXPECT_EQ(
      goes_wrong("file bootscript.txt holds \"tftp 1 bootscript.txt\\r\\ninst 1\\r\\n\"\nstation starts\n"
                 "unit hears the boot script\nunit obeys the boot script\n"),
      "WRONG: line 4, unit obeys the boot script: the scripts obey each other without an end");
}

TEST_F(Bench, SeesThatTheStationDoesNotStart) {
  EXPECT_EQ(goes_wrong("station starts with \"-o 172.40.0.9\"\nunit reads a timeout 1\n").substr(0, 20),
            "WRONG: line 2, unit ");
}

TEST_F(Bench, ReportsAMissingLineOfTheStation) {
  EXPECT_EQ(
      goes_wrong("station starts\nstation says \"Server started, waiting for connection\"\n"),
      "WRONG: line 2, station says \"Server started, waiting for connection\": the station did not; the "
      "nearest that it said: \"Server started , waiting for connections\"");
  EXPECT_EQ(calls("/bin/true " + file_with("station starts\nstation says a\n") + " " + results()).wrong(),
            "WRONG: line 2, station says a: the station did not; it has said nothing");
}

TEST_F(Bench, SeesThatAFileIsNotRead) {
  EXPECT_EQ(goes_wrong("station starts\nunit reads a\n"),
            "WRONG: line 2, unit reads a: a was not read: ERROR 1, File not found");
  EXPECT_EQ(goes_wrong("file a holds b\nstation starts\nwire loses 100 %\nunit reads a\n"),
            "WRONG: line 4, unit reads a: a was not read: no answer came from the station");
}

TEST_F(Bench, SeesThatAFileIsReadAgainstExpectation) {
  EXPECT_EQ(goes_wrong("file a holds b\nstation starts\nunit cannot read a\n"),
            "WRONG: line 3, unit cannot read a: it could");
}

TEST_F(Bench, ComparesWhatArrivesWithWhatIsServed) {
  EXPECT_EQ(
      goes_wrong(
          "file a is 30 KiB\nstation starts\nwire delays 20 ms\nunit begins reading a\nbench waits 1 s\n"
          "file a holds b\nwire is whole\nunit ends reading\n"),
      "WRONG: line 8, unit ends reading: a arrived, but not as it is served");
}

TEST_F(Bench, ReadsFilesOfOtherFolders) {
  const Result& result = plays(
      "station starts\nunit reads /proc/sys/kernel/ostype\nunit reads ../board/t1-e1.status\n"
      "station gets SIGTERM\nstation exits 15\n");
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(Bench, RefusesAFileThatWouldBeElsewhere) {
  EXPECT_EQ(goes_wrong("file a/b holds c\n"),
            "WRONG: line 1, file a/b holds c: it would be elsewhere; expected a plain name");
  EXPECT_EQ(goes_wrong("file ../b holds c\n"),
            "WRONG: line 1, file ../b holds c: it would be elsewhere; expected a plain name");
  const std::string outside = directory_.file("outside");
  EXPECT_EQ(goes_wrong("file " + outside + " holds c\n"),
            "WRONG: line 1, file " + outside + " holds c: it would be elsewhere; expected a plain name");
  EXPECT_FALSE(fs::exists(outside));
  EXPECT_EQ(goes_wrong("file .. holds c\n"),
            "WRONG: line 1, file .. holds c: it cannot be written; expected a plain name");
}

TEST_F(Bench, RecordsARunWithNothingOnTheNetwork) {
  plays("station starts\nstation gets SIGKILL\nstation exits 137\n");
  EXPECT_EQ(left(), (std::set<std::string>{"a.pcapng", "a.svg"}));
  const std::string output = plays("file a holds b\n").output;
  EXPECT_EQ(result_.status, 0);
  EXPECT_EQ(without_explanation(output),
            "the unit gave no final verdict\na went as the scenario says: results/a.svg, results/a.pcapng\n");
  EXPECT_EQ(left(), (std::set<std::string>{"a.pcapng", "a.svg"}));
  EXPECT_EQ(recorded(), "the run begins: a\nthe run ends: as the scenario says\n");
}

TEST_F(Bench, RenamesTheLinkOnlyBeforeAnythingStarts) {
  EXPECT_EQ(goes_wrong("wire is whole\nboard link is called lan1\n"),
            "WRONG: line 2, board link is called lan1: the link is there already; expected this step before "
            "anything starts");
}

TEST_F(Bench, NamesItsResultsForWhoeverCalledIt) {
  const std::string command = "PWD_OF_CALLER=" + results() + "/folder " BENCH_PROGRAM " " TFTP_PROGRAM " " +
                              file_with("file a holds b\n") + " " + results();
  EXPECT_EQ(without_explanation(runs(command).output),
            "the unit gave no final verdict\na went as the scenario says: ../a.svg, ../a.pcapng\n");
}

TEST_F(Bench, HasAPptServerThatAnswersErrorsOfSeveralLines) {
  const Result& result = plays(
      "ppt answers ERROR 0 \"one\\ntwo\"\nstation starts\nunit reads F_l_m_01STEP\n"
      "station says \"Error message: one\"\nstation says two\nstation gets SIGKILL\nstation exits 137\n");
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(Bench, RequiresThatAReadThatWasBegunEnds) {
  const std::string begun = "file a is 30 KiB\nstation starts\nwire delays 20 ms\nunit begins reading a\n";
  EXPECT_EQ(goes_wrong(begun + "station gets SIGKILL\nstation exits 137\n"),
            "WRONG: a is still being read; expected \"unit ends reading\"");
  EXPECT_EQ(goes_wrong(begun + "unit reads a\n"),
            "WRONG: line 5, unit reads a: a is still being read; expected \"unit ends reading\" before");
  EXPECT_EQ(goes_wrong("station starts\nunit ends reading\n"),
            "WRONG: line 2, unit ends reading: nothing is read; expected \"unit begins reading\" before");
}

// A station that prints a line without a newline, and is killed.
TEST_F(Bench, SaysThatAndHowTheStationEndedAsItHappens) {
  const std::string station = directory_.file("station");
  write_whole_file(station, "#!/bin/sh\nprintf 'one\\ntwo'\nkill -SEGV $$\n");
  fs::permissions(station, fs::perms::owner_all);
  const std::string scenario = file_with("station starts\nstation says two\nunit reads a timeout 1\n");
  EXPECT_EQ(calls(station + " " + scenario + " " + results()).wrong(),
            "WRONG: line 3, unit reads a timeout 1: a was not read: no answer came from the station");
  const std::size_t last_line = result_.output.find("station  | two\n");
  const std::size_t end = result_.output.find("station  ends: 139\n");
  ASSERT_NE(last_line, std::string::npos) << result_.output;
  ASSERT_NE(end, std::string::npos) << result_.output;
  EXPECT_LT(last_line, end);
  EXPECT_LT(end, result_.output.find("WRONG"));
}

TEST_F(Bench, SeesAnotherReply) {
  EXPECT_EQ(goes_wrong("station starts\nunit reads F_l_m_01STEP\nunit asks ZIRN_ASKS_FOR_HIS_MAC expects "
                       "02:00:00:00:00:01\n"),
            "WRONG: line 3, unit asks ZIRN_ASKS_FOR_HIS_MAC expects 02:00:00:00:00:01: it was told "
            "02:00:00:00:17:2c");
}

TEST_F(Bench, SeesThatNobodyReplies) {
  EXPECT_EQ(goes_wrong("station starts\nunit asks A expects A\n"),
            "WRONG: line 2, unit asks A expects A: every connection was refused");
  EXPECT_EQ(goes_wrong("station starts\nunit reads F_l_m_01STEP\nppt is connected\nwire loses 100 %\n"
                       "unit asks A expects A\n"),
            "WRONG: line 5, unit asks A expects A: the connection was neither taken nor refused");
}

TEST_F(Bench, SeesAReplyThatWasNotToCome) {
  EXPECT_EQ(goes_wrong("station starts\nunit reads F_l_m_01STEP\nunit asks A in vain\n"),
            "WRONG: line 3, unit asks A in vain: it was told A");
}

TEST_F(Bench, ReportsAVerdictThatThePptServerDidNotHear) {
  EXPECT_EQ(goes_wrong("station starts\nunit reads F_l_m_01STEP\nppt hears F_l_m_01STEP\n"),
            "WRONG: line 3, ppt hears F_l_m_01STEP: the PPT server has not heard F_l_m_01STEP");
  EXPECT_EQ(goes_wrong("station starts\nppt is connected\n"),
            "WRONG: line 2, ppt is connected: the PPT server has not connected");
}

TEST_F(Bench, SeesThatThePptServerHeardWhatItWasNotTo) {
  EXPECT_EQ(goes_wrong("station starts\nunit reads F_l_m_01STEP\nppt has not heard F_l_m_01CPU_2_STEP\n"),
            "WRONG: line 3, ppt has not heard F_l_m_01CPU_2_STEP: it has");
}

TEST_F(Bench, ReportsAMissingRelayedDatagram) {
  EXPECT_EQ(goes_wrong("station starts\nunit sends one\nppt receives two\n"),
            "WRONG: line 3, ppt receives two: the PPT server has not received \"two\"");
}

TEST_F(Bench, SeesWhatTheBoardRanAndKeeps) {
  EXPECT_EQ(goes_wrong("station starts\nunit reads F_l_m_01TEST_FAILED\nppt hears "
                       "F_l_m_01CPU_2_TEST_FAILED\nboard ran nothing\n"),
            "WRONG: line 4, board ran nothing: the board ran envtool ppt_flag=failed");
  EXPECT_EQ(goes_wrong("station starts\nboard ran \"envtool show tempmac\"\n"),
            "WRONG: line 2, board ran \"envtool show tempmac\": the board did not");
  EXPECT_EQ(goes_wrong("station starts\nunit reads F_l_m_01TEST_FAILED\nppt hears "
                       "F_l_m_01CPU_2_TEST_FAILED\nboard keeps ppt_flag nothing\n"),
            "WRONG: line 4, board keeps ppt_flag nothing: it keeps failed");
}

TEST_F(Bench, JudgesWhoseFaultARunIs) {
  const std::string run = "station starts\nunit reads F_l_m_01PPT_FAILED\nstation exits 2\n";
  EXPECT_EQ(plays(run + "fault is unit by unit.failed\n").status, 0) << result_.output;
  EXPECT_NE(result_.output.find("  FAILED\n  Fault: unit (unit.failed)\na went as"), std::string::npos)
      << result_.output;
  EXPECT_EQ(goes_wrong(run + "fault is none\n"),
            "WRONG: fault is none: it is explained by unit (unit.failed)");
  EXPECT_NE(recorded().find("the run ends: fault is none: it is explained by unit (unit.failed)\n"),
            std::string::npos)
      << recorded();
  EXPECT_EQ(goes_wrong(run + "fault is unit by unit.gone\n"),
            "WRONG: fault is unit by unit.gone: it is explained by unit (unit.failed)");
  EXPECT_EQ(goes_wrong(run + "also seen is net.stray\nfault is unit\n"),
            "WRONG: also seen is net.stray: it is not");
}

TEST_F(Bench, SeesWhatTheStationDoesNotRefuse) {
  EXPECT_EQ(goes_wrong("file a.txt holds b\nstation starts\nunit is refused a.txt\n"),
            "WRONG: line 3, unit is refused a.txt: it could");
}

TEST_F(Bench, SeesThatTheStationDoesNotTakeAFile) {
  EXPECT_EQ(goes_wrong("file a.txt holds b\nstation starts\nunit writes a.txt\n"),
            "WRONG: line 3, unit writes a.txt: it got ERROR 6");
}

TEST_F(Bench, HasNoOtherToolsThanTheBoards) {
  EXPECT_EQ(goes_wrong("board lacks rm\n"),
            "WRONG: line 1, board lacks rm: it has no such thing; expected envtool, /etc/init.d/voice, "
            "/mnt/ramdisk/t1-e1 or /etc/protocols");
}

TEST_F(Bench, TakesAPortOnce) {
  EXPECT_EQ(goes_wrong("station starts\nboard has port 69 taken\n"),
            "WRONG: line 2, board has port 69 taken: port 69: Address already in use");
}

TEST_F(Bench, SeesABootScriptThatWasNotToCome) {
  EXPECT_EQ(goes_wrong("station starts\nunit hears nothing for 3 s\n"),
            "WRONG: line 2, unit hears nothing for 3 s: it heard 231 bytes that begin \"ZIRN install boot "
            "script\"");
}

TEST_F(Bench, ReportsAMissingBootScript) {
  EXPECT_EQ(goes_wrong("board link is called lan1\nstation starts\nunit hears the boot script\n"),
            "WRONG: line 3, unit hears the boot script: the unit heard nothing");
}

TEST_F(Bench, SeesATransferThatEndsBeforeTheUnitDies) {
  EXPECT_EQ(goes_wrong("file a holds b\nstation starts\nunit reads a dies after 1 KiB\n"),
            "WRONG: line 3, unit reads a dies after 1 KiB: the transfer ended before");
}

// At full speed, just before its end.
TEST_F(Bench, LetsTheUnitDieAtTheVeryBlock) {
  const Result& result = plays(
      "file a is 17 KiB\nstation starts\nunit reads a dies after 16 KiB\nunit reads a dies after 0 bytes\n"
      "station gets SIGTERM\nstation exits 15\n");
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST_F(Bench, ShowsHowFarALongReadHasCome) {
  const Result& result = plays(
      "file a is 30 KiB\nstation starts\nwire delays 20 ms\nunit reads a\nstation gets SIGTERM\nstation "
      "exits 15\n");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_NE(result.output.find(" of 30 KiB of a\n"), std::string::npos) << result.output;
}

TEST_F(Bench, RefusesAScenarioThatItDoesNotUnderstand) {
  const Result& result = plays("station starts\nstaton exits 2\n");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "bench: " + directory_.file("a.run") +
                               ":2: \"staton\" is not understood here; expected: \"also\", \"bench\", "
                               "\"board\", \"fault\", \"file\", "
                               "\"ppt\", \"station\", \"unit\", \"wire\"\n");
}

TEST_F(Bench, RefusesACallThatItDoesNotUnderstand) {
  EXPECT_EQ(calls("a.run").status, 2);
  EXPECT_EQ(result_.output,
            "bench: expected: STATION_PROGRAM SCENARIO RESULTS_FOLDER, or --many COUNT SEED "
            "STATION_PROGRAM RESULTS_FOLDER [RECORDS_FOLDER], or --make SEED, or --steps\n");
  EXPECT_EQ(calls("--many 0 1 " TFTP_PROGRAM " " + results()).status, 2);
  EXPECT_EQ(calls("--many 1x 1 " TFTP_PROGRAM " " + results()).status, 2);
}

class ManyRuns : public Bench {
 protected:
  void SetUp() override {
    Bench::SetUp();
    fs::remove_all(results());
  }
};

TEST_F(ManyRuns, PlaysManyThatAreMadeByChance) {
  EXPECT_EQ(calls("--many 3 1 " TFTP_PROGRAM " " + results()).status, 0) << result_.output;
  EXPECT_EQ(
      result_.output.rfind("3 of 3 runs went as they must, 0 otherwise, 0 not played; seeds 1 to 3, ", 0), 0U)
      << result_.output;
  EXPECT_EQ(left(), std::set<std::string>{});
}

// A station that serves as it must, and ends otherwise.
TEST_F(ManyRuns, TellsOfManyThoseThatWentOtherwise) {
  const std::string station = directory_.file("station");
  write_whole_file(station, "#!/bin/sh\n" TFTP_PROGRAM " \"$@\"\nexit 3\n");
  fs::permissions(station, fs::perms::owner_all);
  EXPECT_EQ(calls("--many 2 1 " + station + " " + results()).status, 1);
  for (const std::string seed : {"1", "2"}) {
    const std::size_t told = result_.output.find("chance-" + seed + ": WRONG: line ");
    ASSERT_NE(told, std::string::npos) << result_.output;
    const std::size_t end = result_.output.find('\n', told);
    const std::string again = "\n  again: scripts/run --many 1 --seed " + seed + "\n";
    EXPECT_EQ(result_.output.substr(end, again.size()), again) << result_.output;
    for (const char* extension : {".run", ".log", ".svg", ".pcapng"})
      EXPECT_TRUE(fs::exists(results() + "/chance-" + seed + extension)) << seed << extension;
  }
  EXPECT_NE(result_.output.find("\n0 of 2 runs went as they must, 2 otherwise, 0 not played; "),
            std::string::npos)
      << result_.output;
}

TEST_F(ManyRuns, ShowsAMadeRunAlone) {
  const std::string made = calls("--make 3").output;
  EXPECT_EQ(calls("--many 1 3 " TFTP_PROGRAM " " + results()).status, 0);
  EXPECT_NE(result_.output.find("\nchance-3 went as the scenario says: "), std::string::npos)
      << result_.output;
  EXPECT_EQ(left(), (std::set<std::string>{"chance-3.pcapng", "chance-3.run", "chance-3.svg"}));
  EXPECT_EQ(whole_file(results() + "/chance-3.run"), made);
}

TEST_F(ManyRuns, LeavesNothingOfManyWhenItIsInterrupted) {
  for (const char* seconds : {"0.05", "0.5", "2"}) {
    const std::string command = std::string("timeout --preserve-status -s INT ") + seconds +
                                " " BENCH_PROGRAM " --many 1000 1 " TFTP_PROGRAM " " + results();
    EXPECT_EQ(runs(command).status, 130) << command;
    EXPECT_EQ(left(), std::set<std::string>{}) << command;
  }
  EXPECT_NE(std::system(("pgrep -f '[b]ench .*" + results() + "' > /dev/null").c_str()), 0);
}

TEST_F(Bench, DamagesOtherwiseByAnotherSeed) {
  const auto fates_of = [this](const std::string& first_step) {
    plays(first_step +
          "file a is 30 KiB\nstation starts\nwire swaps 50 %\nunit reads a\nstation gets SIGKILL\n"
          "station exits 137\n");
    EXPECT_EQ(result_.status, 0) << result_.output;
    std::istringstream lines(recorded());
    std::string frames;
    for (std::string line; std::getline(lines, line);)
      frames += line.rfind("frame", 0) == 0 ? line + "\n" : "";
    return frames;
  };
  EXPECT_NE(fates_of("wire damages by seed 2\n"), fates_of(""));
  EXPECT_EQ(goes_wrong("station starts\nwire damages by seed 2\n"),
            "WRONG: line 2, wire damages by seed 2: the link is there already; expected this step before "
            "anything starts");
}

TEST_F(Bench, KeepsTheBoardsVariables) {
  EXPECT_EQ(
      plays("board has tempmac 02:00:00:00:00:fe\nboard keeps tempmac 02:00:00:00:00:fe\nstation starts\n"
            "unit reads F_l_m_01STEP\nunit asks ZIRN_ASKS_FOR_HIS_MAC expects 02:00:00:00:01:00\n"
            "station gets SIGKILL\nstation exits 137\n")
          .status,
      0)
      << result_.output;
}

}  // namespace
