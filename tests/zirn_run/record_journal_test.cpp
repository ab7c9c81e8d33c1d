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
  const std::string problem = ": neither NAME=value nor a field of bytes that fits its length";
  EXPECT_EQ(read("Nov 22 06:00:00 station TFTP[1]: Cmd received\n"), Words({"byte 0" + problem}));
  EXPECT_EQ(read(kFirst + "A=1\nlower=2\n\n"), Words({kFirstWords, "byte 70" + problem}));
  EXPECT_EQ(read("A\n" + MadeRecord(false).u64(1) + "xx\n"), Words({"byte 0" + problem}));
  EXPECT_EQ(read("A\n" + MadeRecord(false).u64(1U << 20U) + "x"), Words({"byte 0" + problem}));
  EXPECT_EQ(read("A\n" + std::string(8, '\xff') + "x"), Words({"byte 0" + problem}));
  EXPECT_EQ(read("A=" + std::string(1U << 20U, 'x')), Words({"byte 0" + problem}));
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
  EXPECT_EQ(lines_of(std::string("a\0b\n", 4)), Words({std::string("a\0b", 3)}));
}

TEST(RecordLog, ALongLineBecomesSeveral) {
  const std::string most(65536, 'x');
  EXPECT_TRUE(lines_of(most + "\nb\n") == Words({most, "b"}));
  EXPECT_TRUE(lines_of(most + "yz\nb") == Words({most, "yz", "b"}));
}

TEST(RecordLog, SaysThatAFolderHasNoLines) {
  const ScratchDirectory directory;
  std::ifstream file(directory.path());
  LogReader reader(file);
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.problem(), "byte 0: the file cannot be read any further: Is a directory");
  std::ifstream journal(directory.path());
  JournalReader journal_reader(journal);
  EXPECT_FALSE(journal_reader.next());
  EXPECT_EQ(journal_reader.problem(), "byte 0: the file cannot be read any further: Is a directory");
}

}  // namespace
