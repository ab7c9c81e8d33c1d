#include "run_files/run_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "run_files/placed_lines.h"
#include "support/scratch_directory.h"
#include "support/whole_file.h"
#include "zirn_run/made_capture.h"

namespace {

using run_files::Files;
using run_files::NotReadable;
using story::Story;
using Strings = std::vector<std::string>;

constexpr record::Nanoseconds kMillisecond = 1000000;

// The lines that are told with a time: milliseconds since the capture's first frame, and the text.
Strings lines_in(const story::Reading& reading) {
  constexpr record::Nanoseconds kFirst =
      static_cast<record::Nanoseconds>(MadeCapture::kFirstMillisecond + 1) * kMillisecond;
  Strings lines;
  for (const std::size_t step : reading.order) {
    const story::Step& told = reading.steps[step];
    if (told.kind != story::Step::Kind::kLine) continue;
    lines.push_back(std::to_string((told.from - kFirst) / kMillisecond) + " " + told.said.text);
  }
  return lines;
}

std::string entry(std::int64_t milliseconds_since_first, const std::string& text) {
  const auto at = static_cast<std::int64_t>(MadeCapture::kFirstMillisecond + 1) + milliseconds_since_first;
  return "__REALTIME_TIMESTAMP=" + std::to_string(at * 1000) + "\nMESSAGE=" + text +
         "\nSYSLOG_IDENTIFIER=TFTP\n\n";
}

class RunFiles : public testing::Test {
 protected:
  std::string refusal(const Files& files) const {
    Story story;
    try {
      run_files::tell(files, &story);
    } catch (const NotReadable& error) {
      return error.what();
    }
    return "none";
  }

  const ScratchDirectory directory_;
};

TEST_F(RunFiles, TellsWhatARecordHolds) {
  write_whole_file("run", MadeCapture().read("a").read("b").contents());
  Story story;
  EXPECT_EQ(run_files::tell({"run", {}, {}}, &story), Strings{});
  ASSERT_EQ(story.reading().transfers.size(), 2U);
  EXPECT_EQ(story.reading().transfers[1].name, "b");
  EXPECT_TRUE(story.reading().has_ended);
  EXPECT_FALSE(story.reading().is_cut_short);
}

TEST_F(RunFiles, ReadsAFileThatIsCutShortUpToThereAndSaysSo) {
  const std::string whole = MadeCapture().read("a").contents();
  write_whole_file("run", whole.substr(0, whole.size() - 10));
  Story story;
  const Strings remarks = run_files::tell({"run", {}, {}}, &story);
  ASSERT_EQ(remarks.size(), 1U);
  EXPECT_EQ(remarks[0].rfind("run: byte ", 0), 0U) << remarks[0];
  EXPECT_NE(remarks[0].find("the file is cut short"), std::string::npos) << remarks[0];
  EXPECT_TRUE(story.reading().is_cut_short);
  EXPECT_EQ(story.reading().transfers.size(), 1U);
}

TEST_F(RunFiles, SaysThatARecordOfOursBreaksOffBetweenTwoBlocks) {
  const MadeRecord made = MadeRecord::in_order_of_this_machine();
  const std::string blocks = MadeCapture().read("a").contents().substr(made.section().size());
  const std::string cut = made.section(made.option(4, "zirn-run 9.9")) + blocks;
  write_whole_file("cut", cut);
  write_whole_file("whole", cut + made.statistics(0, 0, ""));
  Story of_cut, of_whole;
  const Strings remarks = run_files::tell({"cut", {}, {}}, &of_cut);
  ASSERT_EQ(remarks.size(), 1U);
  EXPECT_NE(remarks[0].find("cut: byte " + std::to_string(cut.size()) + ": the record breaks off"),
            std::string::npos)
      << remarks[0];
  EXPECT_TRUE(of_cut.reading().is_cut_short);
  EXPECT_EQ(run_files::tell({"whole", {}, {}}, &of_whole), Strings{});
  EXPECT_FALSE(of_whole.reading().is_cut_short);
}

TEST_F(RunFiles, SaysThatACaptureKeptOnlyThePartsOfPackets) {
  write_whole_file("run", MadeCapture().read("a").keeps(50).read("F_l_m_01PPT_PASSED").contents());
  Story story;
  EXPECT_EQ(
      run_files::tell({"run", {}, {}}, &story),
      Strings{"run: expected whole frames, found 1 packet of which the capture kept only a part: what is "
              "said in the rest is not known"});
  EXPECT_EQ(story.reading().not_whole, 1U);
  ASSERT_EQ(story.reading().transfers.size(), 2U);
  EXPECT_EQ(story.reading().transfers[1].name, "F_l_m_…");
  EXPECT_EQ(story.reading().transfers[1].bytes, 8U);
}

TEST_F(RunFiles, SaysThatAJournalHasNothingOfTheRun) {
  write_whole_file("run", MadeCapture().read("a").contents());
  write_whole_file("journal", entry(-60000, "of another run"));
  Story story;
  EXPECT_EQ(
      run_files::tell({"run", "journal", {}}, &story),
      Strings{"journal: expected what the station printed while the frames were caught, found nothing of "
              "it"});
}

TEST_F(RunFiles, SaysOfARecordThatIsNotFinishedThatMoreIsMissing) {
  write_whole_file("run.pcapng.part", MadeCapture().read("a").contents());
  Story story;
  EXPECT_EQ(run_files::tell({"run.pcapng.part", {}, {}}, &story),
            Strings{"run.pcapng.part: the record is not finished: what came after this is not there"});
  EXPECT_TRUE(story.reading().is_cut_short);
}

TEST_F(RunFiles, NamesAFileThatIsNoRecord) {
  write_whole_file("text", "Starting TFTP server\n");
  write_whole_file("nothing", "");
  std::filesystem::create_directory("folder");
  EXPECT_EQ(refusal({"text", {}, {}}), "text: expected a pcapng or pcap file, found text");
  EXPECT_EQ(refusal({"nothing", {}, {}}), "nothing: expected a pcapng or pcap file, found an empty file");
  EXPECT_EQ(refusal({"folder", {}, {}}),
            "folder: expected a pcapng or pcap file, found none: Is a directory");
  EXPECT_EQ(refusal({"missing", {}, {}}), "missing: No such file or directory");
}

TEST_F(RunFiles, RefusesARecordWithoutARun) {
  MadeCapture foreign;
  foreign.frame(std::string(60, '\0'));
  write_whole_file("run", foreign.contents());
  EXPECT_EQ(refusal({"run", {}, {}}), "run: expected a test run, found none in 1 frames and 0 entries");
}

TEST_F(RunFiles, SaysWhichFramesAreNotLookedInto) {
  MadeCapture wireless(105);
  wireless.frame(std::string(60, '\0'));
  wireless.frame(std::string(60, '\0'));
  write_whole_file("run", wireless.contents());
  EXPECT_EQ(
      refusal({"run", {}, {}}),
      "run: expected frames of Ethernet (link type 1) or Linux cooked (113, 276), found 2 of link type 105, "
      "which are not looked into");
}

TEST_F(RunFiles, TellsTheJournalsLinesAmongTheFrames) {
  MadeCapture capture;
  capture.read("a");
  capture.rests(20000);
  capture.read("b");
  write_whole_file("run", capture.contents());
  write_whole_file("journal", entry(-10001, "of another run") + entry(-10000, "before") + entry(1, "within") +
                                  entry(20005 + 10000, "after") + entry(20005 + 10001, "of the next run"));
  Story story;
  EXPECT_EQ(run_files::tell({"run", "journal", {}}, &story), Strings{});
  EXPECT_EQ(lines_in(story.reading()), (Strings{"-10000 before", "1 within", "30005 after"}));
  EXPECT_EQ(story.reading().steps[story.reading().order[0]].lines.first, 2U);
}

TEST_F(RunFiles, SaysWhereAJournalIsDamaged) {
  write_whole_file("run", MadeCapture().read("a").contents());
  write_whole_file("journal", entry(1, "within") + "no field\n");
  Story story;
  const Strings remarks = run_files::tell({"run", "journal", {}}, &story);
  ASSERT_EQ(remarks.size(), 1U);
  EXPECT_EQ(remarks[0].rfind("journal: ", 0), 0U) << remarks[0];
  EXPECT_EQ(lines_in(story.reading()), Strings{"1 within"});
}

TEST_F(RunFiles, NamesAJournalOrLogThatIsMissing) {
  write_whole_file("run", MadeCapture().read("a").contents());
  EXPECT_EQ(refusal({"run", "missing", {}}), "missing: No such file or directory");
  EXPECT_EQ(refusal({"run", {}, "missing"}), "missing: No such file or directory");
}

TEST_F(RunFiles, RefusesAJournalOrLogThatIsNone) {
  write_whole_file("run", MadeCapture().read("a").contents());
  write_whole_file("text", "Nov 22 06:00:00 station TFTP[1]: RRQ a\n");
  write_whole_file("nothing", "");
  const std::string no_journal = ": expected the journal as `journalctl -o export` writes it, found ";
  const std::string no_log = ": expected the station's lines, found ";
  for (const std::string& record : {std::string("run"), std::string()}) {  // beside it, and alone
    EXPECT_EQ(refusal({record, "text", {}}), "text" + no_journal + "text");
    EXPECT_EQ(refusal({record, "run", {}}), "run" + no_journal + "a pcapng file");
    EXPECT_EQ(refusal({record, ".", {}}), "." + no_journal + "none: Is a directory");
    EXPECT_EQ(refusal({record, {}, "run"}), "run" + no_log + "a pcapng file");
    EXPECT_EQ(refusal({record, {}, "."}), "." + no_log + "none: Is a directory");
  }
  EXPECT_EQ(refusal({"", {}, "nothing"}), "nothing" + no_log + "none");
  EXPECT_EQ(refusal({"", "nothing", {}}), "nothing" + no_log + "none");
  Story story;
  EXPECT_EQ(run_files::tell({"run", {}, "nothing"}, &story), Strings{"nothing" + no_log + "none"});
}

TEST_F(RunFiles, DoesNotTellTheSameLinesTwice) {
  write_whole_file("run", MadeCapture().read("a").contents() +
                              MadeRecord::in_order_of_this_machine().journal(entry(1, "of the record")));
  write_whole_file("journal", entry(1, "of the record"));
  write_whole_file("log", "of the record\n");
  for (const Files& files : {Files{"run", "journal", {}}, Files{"run", {}, "log"}}) {
    Story story;
    try {
      run_files::tell(files, &story);
      ADD_FAILURE() << "they were told";
    } catch (const run_files::NotTogether& error) {
      EXPECT_STREQ(error.what(),
                   "expected a capture without the station's lines beside it, found them in run");
    }
  }
}

TEST_F(RunFiles, TellsALogsLinesWhereTheyBelongAndTheOthersAtTheSide) {
  write_whole_file("run", MadeCapture().read("a").read("F_l_m_01MEMORY_PASSED").contents());
  write_whole_file("log",
                   "Server started , waiting for connections\nRRQ a\n"
                   "Cmd received: F_l_m_01MEMORY_PASSED\n");
  Story story;
  EXPECT_EQ(run_files::tell({"run", {}, "log"}, &story), Strings{});
  EXPECT_EQ(lines_in(story.reading()), (Strings{"0 RRQ a", "3 Cmd received: F_l_m_01MEMORY_PASSED"}));
  ASSERT_EQ(story.reading().untimed_lines.size(), 1U);
  EXPECT_EQ(story.reading().untimed_lines[0].text, "Server started , waiting for connections");
  EXPECT_EQ(story.reading().untimed_lines[0].lines.first, 1U);
}

// More than is held.
constexpr int kMany = story::UntimedLine::kMost + 5000;

std::string numbered_lines(int count) {
  std::string lines;
  for (int i = 0; i < count; ++i) lines += "line " + std::to_string(i) + "\n";
  return lines;
}

TEST_F(RunFiles, CountsTheLinesOfALogThatItHasNoRoomFor) {
  write_whole_file("run", MadeCapture().read("a").contents());
  write_whole_file("log", numbered_lines(kMany) + "RRQ a\n");
  for (const std::string& record : {std::string("run"), std::string()}) {
    Story story;
    const bool is_alone = record.empty();
    EXPECT_EQ(run_files::tell({record, {}, "log"}, &story),
              Strings{"log: expected at most 10000 lines without a time, found " +
                      std::string(is_alone ? "5001" : "5000") + " more, which are left out"});
    EXPECT_EQ(story.reading().untimed_lines.size(), 10000U);
    EXPECT_EQ(story.reading().untimed_lines.back().text, "line 9999");
    EXPECT_EQ(story.reading().left_out, is_alone ? 5001U : 5000U);
    EXPECT_EQ(lines_in(story.reading()), is_alone ? Strings() : Strings{"0 RRQ a"});
    EXPECT_FALSE(story.reading().is_cut_short);
  }
}

TEST_F(RunFiles, TakesTheLastRunOfALogHoweverLongTheOthersAre) {
  write_whole_file("log", "Starting TFTP server on a\n" + numbered_lines(kMany) +
                              "Starting TFTP server on b\nCmd received: F_l_m_02PPT_PASSED\n");
  Story story;
  EXPECT_EQ(run_files::tell({"", {}, "log"}, &story), Strings());
  ASSERT_EQ(story.reading().untimed_lines.size(), 2U);
  EXPECT_EQ(story.reading().untimed_lines[1].text, "Cmd received: F_l_m_02PPT_PASSED");
  EXPECT_EQ(story.reading().untimed_lines[1].lines.first, static_cast<std::uint64_t>(kMany) + 3);
}

TEST_F(RunFiles, CountsTheEntriesOfAJournalThatItHasNoRoomFor) {
  std::string entries;
  const std::string text(std::size_t{1} << 19, 'x');
  for (int i = 0; i < 70; ++i) entries += entry(i, text);
  write_whole_file("journal", entries);
  Story story;
  EXPECT_EQ(run_files::tell({"", "journal", {}}, &story),
            Strings{"journal: expected at most 32 MiB of a run, found 7 things more, which are left out"});
  EXPECT_EQ(story.reading().left_out, 7U);
  write_whole_file("journal", entries + entry(71, "Starting TFTP server on a"));
  Story of_last;
  EXPECT_EQ(run_files::tell({"", "journal", {}}, &of_last), Strings());
  EXPECT_EQ(lines_in(of_last.reading()), Strings{"71 Starting TFTP server on a"});
}

TEST_F(RunFiles, ReportsHowFarItIs) {
  MadeCapture capture;
  for (int i = 0; i < 12000; ++i) capture.read("a");
  write_whole_file("run", capture.contents());
  Story story;
  std::vector<std::uint64_t> counts;
  run_files::tell({"run", {}, {}}, &story, [&](std::uint64_t count) { counts.push_back(count); });
  EXPECT_EQ(counts, (std::vector<std::uint64_t>{16384, 32768}));
}

// Placed lines: the times in milliseconds since the first frame, or "-".
class PlacedLines : public testing::Test {
 protected:
  Strings placed(const MadeCapture& capture, const Strings& lines) const {
    write_whole_file("run", capture.contents());
    Story story;
    run_files::tell({"run", {}, {}}, &story);
    Strings times;
    run_files::LinePlacer placer(story.reading());
    for (const std::string& line : lines) placer.add(line);
    for (const run_files::PlacedLine& line : placer.placed()) {
      const auto first = static_cast<record::Nanoseconds>(MadeCapture::kFirstMillisecond + 1) * kMillisecond;
      times.push_back(line.at == 0 ? "-" : std::to_string((line.at - first) / kMillisecond));
    }
    return times;
  }

  const ScratchDirectory directory_;
};

TEST_F(PlacedLines, HaveTheTimesOfTheRequestsThatTheySpeakOf) {
  EXPECT_EQ(placed(MadeCapture().read("a").read("b", 2001).read("a", 2002), {"RRQ a", "x", "RRQ b", "RRQ a"}),
            (Strings{"0", "-", "3", "6"}));
}

TEST_F(PlacedLines, HaveNoTimeWhereRequestsAndLinesAreNotAsMany) {
  EXPECT_EQ(placed(MadeCapture().read("a").read("b", 2001), {"RRQ a", "RRQ b", "RRQ b"}),
            (Strings{"0", "-", "-"}));
}

TEST_F(PlacedLines, HaveNoTimeWhereARequestWasSentAgain) {
  EXPECT_EQ(placed(MadeCapture().request("a", 2000).request("a", 2000).read("b", 2001), {"RRQ a", "RRQ b"}),
            (Strings{"-", "2"}));
}

TEST_F(PlacedLines, HaveNoTimeWhereTwoWouldChangePlaces) {
  EXPECT_EQ(placed(MadeCapture().read("a").read("b", 2001), {"RRQ b", "RRQ a"}), (Strings{"-", "-"}));
}

}  // namespace
