#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>

#include "support/client_record.h"
#include "support/fault.h"
#include "support/flush_recorder.h"

using namespace tftp;

namespace {

class NegotiatedRequest : public ClientRecordTest {};

struct Negotiation {
  const char* situation;
  std::string request;
  std::string answer;
  std::string settled = "";
  std::string printed = "RRQ boot.img\n";
};

void PrintTo(const Negotiation& negotiation, std::ostream* stream) {
  *stream << negotiation.situation;
}

std::string with(const Options& options) {
  return rrq("boot.img", options);
}

std::string with_timeout(const std::string& value) {
  return with({{"timeout", value}});
}

std::string with_block_size(const std::string& value) {
  return with({{"blksize", value}});
}

std::string timeout_answer(const std::string& value) {
  return oack({{"timeout", value}});
}

std::string block_size_answer(const std::string& value) {
  return oack({{"blksize", value}});
}

const Negotiation kNegotiations[] = {
    {"AllOptions", with({{"blksize", "1024"}, {"timeout", "2"}, {"tsize", "0"}}),
     oack({{"blksize", "1024"}, {"timeout", "5"}, {"tsize", "3000"}}), "block_size 1024, file_size 3000"},
    {"OrderOfUnit", with({{"tsize", "0"}, {"x", "y"}, {"timeout", "9"}, {"blksize", "600"}}),
     oack({{"tsize", "3000"}, {"x", "y"}, {"timeout", "9"}, {"blksize", "600"}}),
     "timeout 9, block_size 600, file_size 3000"},

    {"UnknownOption", with({{"multicast", ""}}), oack({{"multicast", ""}})},
    {"UnknownOptionWithValue", with({{"windowsize", "16"}}), oack({{"windowsize", "16"}})},
    {"OtherCase", with({{"BLKSIZE", "1024"}, {"Timeout", "9"}, {"TSize", "0"}}),
     oack({{"BLKSIZE", "1024"}, {"Timeout", "9"}, {"TSize", "0"}})},
    {"SimilarNames", with({{"blksize2", "1024"}, {"timeou", "9"}, {" tsize", "0"}}),
     oack({{"blksize2", "1024"}, {"timeou", "9"}, {" tsize", "0"}})},
    {"EmptyOption", with({{"", ""}}), oack({{"", ""}})},
    {"ExtraNul", with({}) + '\0', oack({{"", ""}})},
    {"OptionWithoutValue", with({}) + bytes("tsize\0"), oack({{"tsize", "3000"}}), "file_size 3000"},
    {"UnterminatedOption", with({}) + "multicast", oack({{"multicast", ""}})},
    {"UnterminatedValue",
     with({}) + bytes("blksize\0"
                      "1024"),
     block_size_answer("1024"), "block_size 1024"},

    {"BlockSizeTwice", with({{"blksize", "1024"}, {"blksize", "600"}}),
     oack({{"blksize", "1024"}, {"blksize", "600"}}), "block_size 600"},
    {"TimeoutTwice", with({{"timeout", "9"}, {"timeout", "1"}}), oack({{"timeout", "9"}, {"timeout", "5"}})},
    {"FileSizeTwice", with({{"tsize", "0"}, {"tsize", "1"}}), oack({{"tsize", "3000"}, {"tsize", "3000"}}),
     "file_size 3000"},

    {"FileSizeWithOtherValue", with({{"tsize", "999"}}), oack({{"tsize", "3000"}}), "file_size 3000"},

    {"Timeout5", with_timeout("5"), timeout_answer("5")},
    {"Timeout4", with_timeout("4"), timeout_answer("5")},
    {"Timeout6", with_timeout("6"), timeout_answer("6"), "timeout 6"},
    {"Timeout0", with_timeout("0"), timeout_answer("5")},
    {"TimeoutBelow0", with_timeout("-5"), timeout_answer("5")},
    {"TimeoutEmpty", with_timeout(""), timeout_answer("5")},
    {"TimeoutWord", with_timeout("long"), timeout_answer("5")},
    {"TimeoutBehindBlank", with_timeout(" 7"), timeout_answer(" 7"), "timeout 7"},
    {"TimeoutWithSign", with_timeout("+8"), timeout_answer("+8"), "timeout 8"},
    {"TimeoutWithUnit", with_timeout("6x"), timeout_answer("6x"), "timeout 6"},
    {"TimeoutWithLeadingZero", with_timeout("010"), timeout_answer("010"), "timeout 10"},
    {"TimeoutHexadecimal", with_timeout("0x10"), timeout_answer("5")},
    {"TimeoutHuge", with_timeout("2147483647"), timeout_answer("2147483647"), "timeout 2147483647"},

    {"BlockSize1024", with_block_size("1024"), block_size_answer("1024"), "block_size 1024"},
    {"BlockSize32764", with_block_size("32764"), block_size_answer("32764"), "block_size 32764"},
    {"BlockSize32767", with_block_size("32767"), block_size_answer("32767"), "block_size 32767"},
    {"BlockSize32768", with_block_size("32768"), block_size_answer("32768"), "block_size 32768"},
    {"BlockSize32769", with_block_size("32769"), block_size_answer("32768"), "block_size 32768",
     "RRQ boot.img\nRequested blksize=32769 we support 32768\n"},
    {"BlockSize65464", with_block_size("65464"), block_size_answer("32768"), "block_size 32768",
     "RRQ boot.img\nRequested blksize=65464 we support 32768\n"},
    {"BlockSizeHuge", with_block_size("2147483647"), block_size_answer("32768"), "block_size 32768",
     "RRQ boot.img\nRequested blksize=2147483647 we support 32768\n"},
    {"BlockSizeHugeTwice", with({{"blksize", "40000"}, {"blksize", "050000x"}}),
     oack({{"blksize", "32768"}, {"blksize", "32768"}}), "block_size 32768",
     "RRQ boot.img\nRequested blksize=40000 we support 32768\nRequested blksize=50000 we support 32768\n"},

    // The answer has to fit into the capacity of a block and its header, and is cut there.
    {"BlockSize8", with_block_size("8"), block_size_answer("8"), "block_size 8"},
    {"BlockSizeBehindBlank", with_block_size(" 7"), bytes("\0\6blksize\0 "), "block_size 7"},
    {"BlockSizeWithUnit", with_block_size("6x"), bytes("\0\6blksize\0"), "block_size 6"},
    {"BlockSize5", with_block_size("5"), bytes("\0\6blksize"), "block_size 5"},
    {"BlockSize4", with_block_size("4"), bytes("\0\6blksiz"), "block_size 4"},
    {"BlockSize0", with_block_size("0"), bytes("\0\6bl"), "block_size 0"},
    {"BlockSizeEmpty", with_block_size(""), bytes("\0\6bl"), "block_size 0"},
    {"BlockSizeWord", with_block_size("large"), bytes("\0\6bl"), "block_size 0"},
    {"BlockSizeMinus1", with_block_size("-1"), bytes("\0\6b"), "block_size -1"},
    {"BlockSizeMinus3", with_block_size("-3"), bytes("\0"), "block_size -3"},
    {"BlockSizeMinus4", with_block_size("-4"), "", "block_size -4"},
    {"BlockSizeMinus5", with_block_size("-5"), "", "block_size -5"},
    {"BlockSizeLowest", with_block_size("-2147483648"), "", "block_size -2147483648"},
};

class NegotiatedRead : public ClientRecordTest, public testing::WithParamInterface<Negotiation> {
 protected:
  NegotiatedRead() { write_whole_file("boot.img", noise(3000)); }
};

TEST_P(NegotiatedRead, IsAnsweredByAcknowledgedOptions) {
  EXPECT_EQ(processes(GetParam().request), accepted(GetParam().printed));
  unit.expects(GetParam().answer);
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes(), "request_type 1, transfer_state 1, " + GetParam().settled +
                           (GetParam().settled.empty() ? "" : ", ") + "input_file open, received_packet " +
                           std::to_string(GetParam().request.size()) + "/512, sent_packet " +
                           std::to_string(GetParam().answer.size()) + "/" +
                           std::to_string(record.block_size + 4));
  EXPECT_EQ(contents_of(record.received_packet), GetParam().request);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*record.input_file), {}), noise(3000));
}

TEST_P(NegotiatedRead, FlushesEachLine) {
  is_asked(GetParam().request);
  const FlushRecorder output;
  server->ProcessRequest(&record);
  EXPECT_EQ(output.text(), with_flushes(GetParam().printed));
}

INSTANTIATE_TEST_SUITE_P(Options, NegotiatedRead, testing::ValuesIn(kNegotiations),
                         testing::PrintToStringParamName());

// Numbers are cut to the 32 bits of their field before they are judged.
const Negotiation kNumbersBeyondTheField[] = {
    {"Timeout2To31", with_timeout("2147483648"), timeout_answer("5")},
    {"Timeout2To32And7", with_timeout("4294967303"), timeout_answer("4294967303"), "timeout 7"},
    {"Timeout2To32And5", with_timeout("4294967301"), timeout_answer("4294967301")},
    {"Timeout2To63", with_timeout("9223372036854775808"), timeout_answer("5")},
    {"TimeoutBeyond64Bits", with_timeout("99999999999999999999"), timeout_answer("5")},
    {"BlockSize2To31", with_block_size("2147483648"), "", "block_size -2147483648"},
    {"BlockSize2To32And1024", with_block_size("4294968320"), block_size_answer("4294968320"),
     "block_size 1024"},
    {"BlockSize2To32And32769", with_block_size("4295000065"), block_size_answer("32768"), "block_size 32768",
     "RRQ boot.img\nRequested blksize=32769 we support 32768\n"},
    {"BlockSizeMinus2To32Minus1", with_block_size("-4294967297"), bytes("\0\6b"), "block_size -1"},
    {"BlockSize2To63", with_block_size("9223372036854775808"), bytes("\0\6b"), "block_size -1"},
    {"BlockSizeMinus2To63Minus1", with_block_size("-9223372036854775809"), bytes("\0\6bl"), "block_size 0"},
    {"BlockSizeBeyond64Bits", with_block_size("99999999999999999999"), bytes("\0\6b"), "block_size -1"},
};

INSTANTIATE_TEST_SUITE_P(NumbersBeyondTheField, NegotiatedRead, testing::ValuesIn(kNumbersBeyondTheField),
                         testing::PrintToStringParamName());

TEST_F(NegotiatedRequest, OptionsCountAlsoBehindANameThatWasCut) {
  const std::string name = std::string(255, 'n');
  write_whole_file(name, "contents");
  EXPECT_EQ(processes(rrq(name + "_octet", {{"tsize", "0"}}, "mail")), accepted("RRQ " + name + "\n"));
  unit.expects(oack({{"tsize", "8"}}));
}

TEST_F(NegotiatedRequest, FileSizeHas32Bits) {
  write_whole_file("boot.img", "");
  std::filesystem::resize_file("boot.img", 3221225472);
  EXPECT_EQ(processes(with({{"tsize", "0"}})), accepted("RRQ boot.img\n"));
  unit.expects(oack({{"tsize", "-1073741824"}}));
  EXPECT_EQ(record.file_size, -1073741824);
}

TEST_F(NegotiatedRequest, FileSizeOfEmptyFileIs0) {
  write_whole_file("boot.img", "");
  record.file_size = 7;
  EXPECT_EQ(processes(with({{"tsize", "1"}})), accepted("RRQ boot.img\n"));
  unit.expects(oack({{"tsize", "0"}}));
  EXPECT_EQ(record.file_size, 0);
}

TEST_F(NegotiatedRequest, NegotiatedReadIsAcceptedAlsoWhenTheAnswerCannotBeSent) {
  write_whole_file("boot.img", "contents");
  {
    Fault no_send(Call::kSendto, EPERM);
    EXPECT_EQ(processes(with_timeout("7")), accepted("RRQ boot.img\n"));
  }
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(record.transfer_state, 1);
  EXPECT_EQ(contents_of(record.sent_packet), timeout_answer("7"));
}

// As a dump of a packet leaves standard output.
TEST_F(NegotiatedRequest, OutputInHexadecimalDoesNotReachTheAnswer) {
  write_whole_file("boot.img", noise(3000));
  is_asked(with({{"blksize", "65464"}, {"timeout", "1"}, {"tsize", "0"}}));
  const Outcome outcome = outcome_of([this] {
    std::cout << std::hex << std::showbase;
    return server->ProcessRequest(&record);
  });
  EXPECT_EQ(outcome, accepted("RRQ boot.img\nRequested blksize=0xffb8 we support 0x8000\n"));
  unit.expects(oack({{"blksize", "32768"}, {"timeout", "5"}, {"tsize", "3000"}}));
}

class WholeRead : public ClientRecordTest, public testing::WithParamInterface<int> {};

TEST_P(WholeRead, DeliversTheFileInBlocksOfTheSizeAsked) {
  const std::string contents = noise(3 * 32768 + 1234);
  write_whole_file("boot.img", contents);
  const std::optional<std::string> received = reads(with_block_size(std::to_string(GetParam())));
  ASSERT_TRUE(received.has_value()) << unit.log();
  EXPECT_TRUE(*received == contents) << unit.log();
  const int block_size = std::min(GetParam(), 32768);
  EXPECT_EQ(changes_besides_disconnect(),
            "transfer_state 1, sent_packet 0/" + std::to_string(block_size + 4));
  EXPECT_EQ(printed_in_reading,
            GetParam() == block_size
                ? "RRQ boot.img\n"
                : "RRQ boot.img\nRequested blksize=" + std::to_string(GetParam()) + " we support 32768\n");
}

INSTANTIATE_TEST_SUITE_P(BlockSize, WholeRead,
                         testing::Values(8, 512, 1428, 32764, 32765, 32766, 32767, 32768, 32769, 65464),
                         testing::PrintToStringParamName());

}  // namespace
