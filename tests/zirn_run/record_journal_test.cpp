#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "record/journal.h"
#include "support/scratch_directory.h"
#include "zirn_run/made_record.h"

namespace {

using record::JournalReader;
using record::LogReader;
using Words = std::vector<std::string>;

Words read(const std::string& text) {
  std::istringstream file(text);
  JournalReader reader(file);
  Words result;
  while (const auto entry = reader.next()) {
    result.push_back(std::to_string(entry->number) + " " + std::to_string(entry->at));
    for (const auto& [name, value] : entry->fields) result.back() += " " + name + "=" + value;
  }
  EXPECT_FALSE(reader.next());
  if (!reader.problem().empty()) result.push_back(reader.problem());
  return result;
}

std::string bytes_field(const std::string& name, const std::string& value) {
  return name + "\n" + MadeRecord(false).u64(value.size()) + value + "\n";
}

const std::string kFirst = "__CURSOR=s=1\n__REALTIME_TIMESTAMP=1700000000123456\nMESSAGE=a = b\n\n";
const std::string kFirstWords = "0 1700000000123456000 __CURSOR=s=1 MESSAGE=a = b";

TEST(RecordJournal, ReadsEntries) {
  EXPECT_EQ(read(kFirst + "__REALTIME_TIMESTAMP=1700000001000000\nA=1\nA=2\nB=\n\n"),
            Words({kFirstWords, "0 1700000001000000000 A=1 A=2 B="}));
  EXPECT_EQ(read(""), Words({}));
}

TEST(RecordJournal, ReadsFieldsOfAnyBytes) {
  const std::string value("two\nlines\0and \xff", 15);
  EXPECT_EQ(
      read("__REALTIME_TIMESTAMP=1\n" + bytes_field("MESSAGE", value) + bytes_field("B", "") + "C=1\n\n"),
      Words({"0 1000 MESSAGE=" + value + " B= C=1"}));
}

TEST(RecordJournal, EmptyLinesBetweenEntriesAreNothing) {
  EXPECT_EQ(read("\n\n" + kFirst + "\n\n\n" + kFirst + "\n"), Words({kFirstWords, kFirstWords}));
}

TEST(RecordJournal, AnEntryWithoutATimeHasNone) {
  EXPECT_EQ(read("MESSAGE=a\n\n"), Words({"0 0 MESSAGE=a"}));
}

TEST(RecordJournal, ATimeThatIsOutOfRangeIsItsEnd) {
  EXPECT_EQ(read("__REALTIME_TIMESTAMP=18446744073709551615\n\n"), Words({"0 9223372036854775000"}));
  EXPECT_EQ(read("__REALTIME_TIMESTAMP=99999999999999999999999\n\n"), Words({"0 9223372036854775000"}));
}

TEST(RecordJournal, CutAnywhereTheEntriesBeforeAreRead) {
  const std::string second = "A=1\n" + bytes_field("B", "2\n3") + "C=4\n\n";
  const std::string whole = kFirst + second;
  EXPECT_EQ(read(whole), Words({kFirstWords, "0 0 A=1 B=2\n3 C=4"}));
  for (std::size_t size = kFirst.size() + 1; size < whole.size(); ++size) {
    const Words found = read(whole.substr(0, size));
    ASSERT_EQ(found.size(), 2U) << size;
    EXPECT_EQ(found[0], kFirstWords);
    EXPECT_EQ(found[1].substr(found[1].find(':')), ": the file is cut short: an entry has no end") << size;
  }
  EXPECT_EQ(read(kFirst + "A=1\nB=").back(), "byte 70: the file is cut short: an entry has no end");
}

TEST(RecordJournal, WhatIsNoExportIsSaid) {
  const std::string expected = "expected the journal as `journalctl -o export` writes it, found ";
  EXPECT_EQ(read("Nov 22 06:00:00 station TFTP[1]: Cmd received\n"), Words({expected + "text"}));
  EXPECT_EQ(read("Nov 22"), Words({expected + "text"}));
  EXPECT_EQ(read(MadeRecord(false).section()), Words({expected + "a pcapng file"}));
  EXPECT_EQ(read("\x7f"
                 "ELF\2\1"),
            Words({expected + "the bytes 7f 45 4c 46"}));
  EXPECT_EQ(read("A=" + std::string(1U << 20U, 'x')), Words({expected + "text"}));
}

TEST(RecordJournal, WhatIsNoFieldIsSaid) {
  const std::string problem = "byte 70: neither NAME=value nor a field of bytes that fits its length";
  EXPECT_EQ(read(kFirst + "A=1\nlower=2\n\n"), Words({kFirstWords, problem}));
  for (const std::string& length :
       {MadeRecord(false).u64(1), MadeRecord(false).u64(1U << 20U), std::string(8, '\xff')})
    EXPECT_EQ(read(kFirst + "A=1\nB\n" + length + "xx\n"), Words({kFirstWords, problem}));
}

TEST(RecordJournal, AFieldMayHaveAMebibyte) {
  const std::string value((1U << 20U) - 1, 'x');
  EXPECT_TRUE(read("A\n" + MadeRecord(false).u64(value.size()) + value + "\n\n") ==
              Words({"0 0 A=" + value}));
}

Words lines_of(const std::string& text) {
  std::istringstream file(text);
  LogReader reader(file);
  Words result;
  while (const auto line = reader.next()) result.push_back(line->text);
  EXPECT_EQ(reader.problem(), "");
  return result;
}

TEST(RecordLog, ReadsLines) {
  EXPECT_EQ(lines_of(""), Words({}));
  EXPECT_EQ(lines_of("one\n\nthree\n"), Words({"one", "", "three"}));
  EXPECT_EQ(lines_of("one\ntwo"), Words({"one", "two"}));
  EXPECT_EQ(lines_of("\x1b\xff\n"), Words({"\x1b\xff"}));
}

TEST(RecordLog, ALongLineBecomesSeveral) {
  const std::string most(65536, 'x');
  EXPECT_TRUE(lines_of(most + "\nb\n") == Words({most, "b"}));
  EXPECT_TRUE(lines_of(most + "yz\nb") == Words({most, "yz", "b"}));
}

TEST(RecordLog, SaysWhatAFileIsThatIsNoText) {
  const auto problem_of = [](const std::string& contents) {
    std::istringstream file(contents);
    LogReader reader(file);
    EXPECT_FALSE(reader.next());
    return reader.problem();
  };
  EXPECT_EQ(problem_of(MadeRecord(false).section()), "expected the station's lines, found a pcapng file");
  EXPECT_EQ(problem_of(std::string("\x7f"
                                   "ELF\0\n",
                                   6)),
            "expected the station's lines, found the bytes 7f 45 4c 46");
  EXPECT_EQ(problem_of(std::string(100, 'x') + '\0'),
            "expected the station's lines, found text with NUL bytes");
}

TEST(RecordLog, SaysThatAFolderHasNoLines) {
  const ScratchDirectory directory;
  std::ifstream file(directory.path());
  LogReader reader(file);
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.problem(), "expected the station's lines, found none: Is a directory");
  std::ifstream journal(directory.path());
  JournalReader journal_reader(journal);
  EXPECT_FALSE(journal_reader.next());
  EXPECT_EQ(journal_reader.problem(),
            "expected the journal as `journalctl -o export` writes it, found none: Is a directory");
}

}  // namespace
