#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "record/reader.h"
#include "record/run_entry.h"
#include "record/writer.h"
#include "support/program.h"
#include "support/scratch_directory.h"
#include "zirn_run/made_record.h"

// What Wireshark sees of a file, and what the reader does: the same, frame by frame.
namespace {

using record::Entry;
using record::Frame;
using record::Interface;
using record::Line;
using record::Reader;
using record::Statistics;
using record::Writer;
using Words = std::vector<std::string>;

constexpr std::chrono::seconds kPatience{120};
constexpr record::Nanoseconds kAt = 1700000000123456789;
constexpr record::Nanoseconds kSecond = 1000000000;

// What the program prints, line by line. It must have nothing to complain about.
Words printed_by(const Program::Words& words) {
  std::remove("errors");
  setenv("HOME", std::filesystem::current_path().c_str(), 1);
  Process program(words, [] { append_errors_to("errors"); });
  program.close_input();
  EXPECT_EQ(status_number(program.wait_for_end(kPatience)), 0) << whole_file("errors");
  const std::string complaints = whole_file("errors");
  const std::string of_root = "Running as user \"root\" and group \"root\". This could be dangerous.\n";
  EXPECT_EQ(complaints, complaints.empty() ? "" : of_root);
  std::istringstream text(program.read_text());
  Words lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

Words seen_by_tshark(const std::string& file) {
  Program::Words words = {"tshark", "-n", "-r",          file, "-T",
                          "fields", "-E", "separator=|", "-E", "aggregator=;"};
  for (const char* const field : {"frame.number", "frame.time_epoch", "frame.len", "frame.cap_len",
                                  "frame.comment", "frame.interface_name", "systemd_journal.message"}) {
    words.insert(words.end(), {"-e", field});
  }
  return printed_by(words);
}

std::string epoch(record::Nanoseconds at) {
  char text[40];
  std::snprintf(text, sizeof text, "%lld.%09lld", static_cast<long long>(at / kSecond),
                static_cast<long long>(at % kSecond));
  return text;
}

// What tshark prints of an entry's length, which is that of its text in the file.
std::size_t text_bytes(const Entry& entry) {
  std::ostringstream file;
  Writer writer(file, {"", "", ""});
  file.str("");
  writer.add(entry);
  const std::string block = file.str();
  return block.find_last_not_of('\0', block.size() - 5) + 1 - 8;
}

Words seen_by_reader(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  Reader reader(file);
  Words interfaces;
  Words lines;
  while (const auto item = reader.next()) {
    if (const auto* interface = std::get_if<Interface>(&*item)) interfaces.push_back(interface->name);
    if (const auto* frame = std::get_if<Frame>(&*item)) {
      std::string comments;
      for (const std::string& comment : frame->comments) comments += (comments.empty() ? "" : ";") + comment;
      lines.push_back(std::to_string(frame->number) + "|" + (frame->is_timed ? epoch(frame->at) : "") + "|" +
                      std::to_string(frame->size) + "|" + std::to_string(frame->bytes.size()) + "|" +
                      comments + "|" + interfaces.at(frame->interface) + "|");
    }
    if (const auto* entry = std::get_if<Entry>(&*item)) {
      const std::string size = std::to_string(text_bytes(*entry));
      lines.push_back(std::to_string(entry->number) + "|" + epoch(entry->at) + "|" + size + "|" + size +
                      "|||" + std::string(entry->value("MESSAGE")));
    }
  }
  EXPECT_EQ(reader.problem(), "");
  return lines;
}

Frame frame(std::uint32_t interface, record::Nanoseconds at, std::string_view bytes, std::uint32_t size,
            std::vector<std::string> comments = {}) {
  Frame result;
  result.interface = interface;
  result.at = at;
  result.bytes = bytes;
  result.size = size;
  result.comments = std::move(comments);
  return result;
}

// An Ethernet frame that is nothing in particular.
std::string bytes(std::size_t size) {
  std::string result(size, '\0');
  result[12] = '\x88';
  result[13] = '\xb5';
  return result;
}

class RecordTshark : public testing::Test {
 protected:
  void SetUp() override { NEEDS_PROGRAM("tshark", "tshark"); }

  void write_record() {
    std::ofstream file("record", std::ios::binary);
    Writer writer(file, {"armv7l", "Linux"});
    writer.add(Interface{"lan0", "udp", record::kEthernet, 0});
    writer.add(Interface{"eth1", "", record::kEthernet, 64});
    writer.add(entry_of(record::RunBegins{"pass", "All goes well", "TFTP -o 172.40.0.1"}, kAt - kSecond));
    const std::string bytes60 = bytes(60);
    const std::string bytes64 = bytes(64);
    const std::string most = bytes(Writer::kMostFrameBytes);
    writer.add(frame(0, kAt, bytes60, 60));
    writer.add(frame(1, kAt + 1, bytes64, 1514, {record::kLostByChance}));
    writer.add(entry_of(Line{"Cmd received: \xc3\xbc"}, kAt + 2));
    writer.add(frame(0, kAt + 3, bytes60, 60, {record::kDuplicated, record::kSwapped}));
    writer.add(Entry{0, kAt + kSecond, {{"MESSAGE", "a \xfc b"}, {"EMPTY", ""}}});
    writer.add(frame(0, kAt + kSecond, most, 300000));
    writer.add(entry_of(record::StationEnds{2, 0}, kAt + 2 * kSecond));
    writer.add(Statistics{0, kAt + 2 * kSecond, 3, 0});
    writer.add(Statistics{1, kAt + 2 * kSecond, 1, 7});
  }

  const ScratchDirectory directory_;
};

TEST_F(RecordTshark, SeesOfARecordWhatTheReaderSees) {
  write_record();
  Words expected = seen_by_reader("record");
  ASSERT_EQ(expected.size(), 8U);
  EXPECT_EQ(expected[2], "3|1700000000.123456790|1514|64|lost: by chance|eth1|");
  EXPECT_EQ(expected[4], "5|1700000000.123456792|60|60|duplicated;swapped with the next one|lan0|");
  const std::string no_text = "a \xfc b";
  Words seen = seen_by_tshark("record");
  ASSERT_EQ(seen.size(), 8U);
  // How it shows bytes that are no text is its own affair.
  EXPECT_EQ(expected[5].substr(expected[5].rfind('|') + 1), no_text);
  expected[5].erase(expected[5].rfind('|'));
  seen[5].erase(seen[5].rfind('|'));
  EXPECT_EQ(seen, expected);
}

TEST_F(RecordTshark, CapinfosSeesTheInterfacesAndWhatWasDropped) {
  NEEDS_PROGRAM("capinfos", "wireshark-common");
  write_record();
  const Words told = printed_by({"capinfos", "record"});
  const auto has = [&told](const std::string& wanted) {
    for (const std::string& line : told) {
      if (line.find(wanted) != std::string::npos) return true;
    }
    return false;
  };
  for (const char* const wanted :
       {"Wireshark/... - pcapng", "nanoseconds (9)", "Capture application: zirn-run ",
        "Capture oper-sys:    Linux", "Capture hardware:    armv7l", "Name = lan0", "Name = eth1",
        "Filter string = udp", "Capture length = 64", "Number of stat entries = 1"}) {
    EXPECT_TRUE(has(wanted)) << wanted << "\n" << testing::PrintToString(told);
  }
}

// Files as other tools write them, in either order of bytes.
class RecordTsharkForeign : public RecordTshark, public testing::WithParamInterface<bool> {
 protected:
  void expect_the_same(const std::string& contents, std::size_t frames) {
    write_whole_file("capture", contents);
    const Words expected = seen_by_reader("capture");
    EXPECT_EQ(expected.size(), frames);
    EXPECT_EQ(seen_by_tshark("capture"), expected);
  }

  const MadeRecord made_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OrderOfBytes, RecordTsharkForeign, testing::Bool(),
                         [](const auto& big) { return big.param ? "BigEndian" : "LittleEndian"; });

TEST_P(RecordTsharkForeign, SeesTheSameInOtherKindsOfBlocks) {
  const auto name = [this](const char* text) { return made_.option(2, text); };
  const auto resolution = [this](char value) { return made_.option(9, std::string(1, value)); };
  const std::uint64_t microseconds = 1700000000123456;
  expect_the_same(
      made_.section() + made_.interface(1, 0, name("lan0")) +
          made_.interface(1, 50, name("eth1") + resolution(9)) +
          made_.interface(1, 0, name("any") + resolution('\x94')) +
          made_.interface(1, 0, name("off") + made_.option(14, made_.u64(1000))) +
          made_.enhanced(0, microseconds, bytes(60), 60) + made_.enhanced(1, kAt, bytes(50), 60) +
          made_.block(0x1234, "what") + made_.simple(bytes(60), 60) + made_.obsolete(1, kAt, bytes(50), 99) +
          made_.enhanced(2, 1700000000ULL << 20U, bytes(60), 60) +
          made_.enhanced(3, microseconds, bytes(60), 60) +
          made_.journal("__REALTIME_TIMESTAMP=1700000000123456\nMESSAGE=a line\n") +
          made_.block(4, made_.u32(0)) +
          made_.enhanced(0, microseconds, bytes(60), 60, made_.option(1, "one") + made_.option(1, "two")),
      8);
}

// tshark looks the interface up in the first section, so it has the same name in both.
TEST_P(RecordTsharkForeign, SeesTheSameInASecondSection) {
  const MadeRecord other(!GetParam());
  expect_the_same(made_.section() + made_.interface(1, 0, made_.option(2, "lan0")) +
                      made_.enhanced(0, 1700000000123456, bytes(60), 60) + other.section() +
                      other.interface(1, 0, other.option(2, "lan0")) +
                      other.enhanced(0, 1700000000123456, bytes(60), 60),
                  2);
}

TEST_P(RecordTsharkForeign, SeesTheSameInClassicCaptures) {
  const std::string frames = made_.pcap_frame(1700000000, 123456, bytes(60), 60) +
                             made_.pcap_frame(1700000001, 999999, bytes(60), 1514);
  expect_the_same(made_.pcap_header(0xa1b2c3d4, 1) + frames, 2);
  expect_the_same(made_.pcap_header(0xa1b23c4d, 1) + frames, 2);
}

TEST_P(RecordTsharkForeign, CountsTheSameBlocks) {
  write_whole_file("capture", made_.section() + made_.interface(1, 0, made_.option(2, "lan0")) +
                                  made_.block(0xbad, made_.u32(4711) + "what") +
                                  made_.block(0x40000bad, made_.u32(4711) + "what") +
                                  made_.enhanced(0, 1700000000123456, bytes(60), 60));
  EXPECT_EQ(seen_by_tshark("capture").back(), seen_by_reader("capture").back());
}

}  // namespace
