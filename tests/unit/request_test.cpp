#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <string>

#include "support/client_record.h"
#include "support/fault.h"
#include "support/flush_recorder.h"

using namespace tftp;

namespace {

const std::string kLongName = std::string(255, 'n') + "0123456789";

class ProcessRequest : public ClientRecordTest {};

// ---- Refusals ----

struct Refusal {
  const char* situation;
  std::string request;
  std::string printed;
  std::string answer;
};

void PrintTo(const Refusal& refusal, std::ostream* stream) {
  *stream << refusal.situation;
}

const Refusal kRefusals[] = {
    {"MissingFile", rrq("missing"), "RRQ missing\n", error(1, "")},
    {"MissingFileWithOptions", rrq("missing", {{"blksize", "1024"}}), "RRQ missing\n", error(1, "")},
    {"MissingDirectory", rrq("missing/boot.img"), "RRQ missing/boot.img\n", error(1, "")},
    {"OtherCase", rrq("Boot.img"), "RRQ Boot.img\n", error(1, "")},
    {"VerdictPrefixInside", rrq("xF_l_m_01PPT_PASSED"), "RRQ xF_l_m_01PPT_PASSED\n", error(1, "")},
    {"VerdictPrefixInOtherCase", rrq("f_l_m_01PPT_PASSED"), "RRQ f_l_m_01PPT_PASSED\n", error(1, "")},
    {"VerdictPrefixCut", rrq("F_l_m"), "RRQ F_l_m\n", error(1, "")},
    {"VerdictPrefixOther", rrq("F_l_m01PPT_PASSED"), "RRQ F_l_m01PPT_PASSED\n", error(1, "")},
    {"EmptyName", rrq(""), "RRQ \nFilename is not set\n", error(1, "File not found")},
    {"EmptyNameAndWrongMode", rrq("", {}, "mail"), "RRQ \nFilename is not set\n", error(1, "File not found")},
    {"OpcodeOnly", bytes("\0\1"), "RRQ \nFilename is not set\n", error(1, "File not found")},
    {"NetasciiMode", rrq("boot.img", {}, "netascii"), "RRQ boot.img\nMode netascii not supported\n",
     error(0, "Mode not supported")},
    {"UpperCaseMode", rrq("boot.img", {}, "OCTET"), "RRQ boot.img\nMode OCTET not supported\n",
     error(0, "Mode not supported")},
    {"LongerMode", rrq("boot.img", {}, "octets"), "RRQ boot.img\nMode octets not supported\n",
     error(0, "Mode not supported")},
    {"EmptyMode", rrq("boot.img", {}, ""), "RRQ boot.img\nMode  not supported\n",
     error(0, "Mode not supported")},
    {"NoMode", bytes("\0\1boot.img\0"), "RRQ boot.img\nMode  not supported\n",
     error(0, "Mode not supported")},
    {"UnterminatedName", bytes("\0\1boot.img"), "RRQ boot.img\nMode  not supported\n",
     error(0, "Mode not supported")},
    {"WrongModeOfMissingFile", rrq("missing", {}, "mail"), "RRQ missing\nMode mail not supported\n",
     error(0, "Mode not supported")},
    {"ModeOf300Characters", rrq("boot.img", {}, std::string(300, 'm')),
     "RRQ boot.img\nMode " + std::string(255, 'm') + " not supported\n", error(0, "Mode not supported")},
    {"NameOf256Characters", rrq(kLongName.substr(0, 256)),
     "RRQ " + kLongName.substr(0, 255) + "\nMode  not supported\n", error(0, "Mode not supported")},
    // What is taken for the mode begins one character behind the 255 of the name.
    {"NameOf265Characters", rrq(kLongName),
     "RRQ " + kLongName.substr(0, 255) + "\nMode 123456789 not supported\n", error(0, "Mode not supported")},
    {"NameThatFillsTheDatagram", bytes("\0\1") + std::string(510, 'n'),
     "RRQ " + std::string(255, 'n') + "\nMode " + std::string(254, 'n') + " not supported\n",
     error(0, "Mode not supported")},
    {"WriteToExistingFile", wrq("boot.img"), "WRQ \n", error(6, "")},
    {"WriteToFileInDirectory", wrq("images/boot.img"), "WRQ \n", error(6, "")},
    {"Data", data(1, "x"), "Unexpected packet\n", error(4, "")},
    {"Ack", ack(0), "Unexpected packet\n", error(4, "")},
    {"Error", error(0, "no"), "Unexpected packet\n", error(4, "")},
    {"Oack", oack({{"blksize", "512"}}), "Unexpected packet\n", error(4, "")},
    {"Opcode0", bytes("\0\0boot.img\0octet\0"), "Unexpected packet\n", error(4, "")},
    {"Opcode7", bytes("\0\7boot.img\0octet\0"), "Unexpected packet\n", error(4, "")},
    {"Opcode256", bytes("\1\0boot.img\0octet\0"), "Unexpected packet\n", error(4, "")},
    {"Opcode257", bytes("\1\1boot.img\0octet\0"), "Unexpected packet\n", error(4, "")},
    {"NoBytes", "", "Unexpected packet\n", error(4, "")},
    {"OneByte", bytes("\1"), "Unexpected packet\n", error(4, "")},
};

class RefusedRequest : public ProcessRequest, public testing::WithParamInterface<Refusal> {
 protected:
  RefusedRequest() {
    std::filesystem::create_directory("images");
    write_whole_file("boot.img", "contents");
    write_whole_file("images/boot.img", "contents");
  }
};

TEST_P(RefusedRequest, IsAnsweredByErrorAndResetsRecord) {
  has_been_used();
  const int descriptors = open_descriptors();
  EXPECT_EQ(processes(GetParam().request), refused(GetParam().printed));
  EXPECT_EQ(open_descriptors(), descriptors - 1);
  unit.expects(GetParam().answer);
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes_besides_disconnect(), "");
  EXPECT_EQ(record.received_packet.getWord(0), 0);
  EXPECT_EQ(whole_file("boot.img"), "contents");
  EXPECT_EQ(whole_file("images/boot.img"), "contents");
  EXPECT_FALSE(std::filesystem::exists("missing"));
}

TEST_P(RefusedRequest, FlushesEachLine) {
  is_asked(GetParam().request);
  const FlushRecorder output;
  server->ProcessRequest(&record);
  EXPECT_EQ(output.text(), with_flushes(GetParam().printed));
}

INSTANTIATE_TEST_SUITE_P(ProcessRequest, RefusedRequest, testing::ValuesIn(kRefusals),
                         testing::PrintToStringParamName());

TEST_F(ProcessRequest, RefusesAlsoWhenTheErrorCannotBeSent) {
  Fault no_send(Call::kSendto, EPERM);
  EXPECT_EQ(processes(rrq("missing")), refused("RRQ missing\n"));
  EXPECT_EQ(changes_besides_disconnect(), "");
}

// ---- Read requests ----

TEST_F(ProcessRequest, ReadWithoutOptionsStartsWithFirstBlock) {
  write_whole_file("boot.img", noise(1000));
  EXPECT_EQ(processes(rrq("boot.img")), accepted("RRQ boot.img\n"));
  unit.expects(data(1, noise(1000).substr(0, 512)));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes(),
            "request_type 1, block_number 1, transfer_state 2, input_file open, received_packet 0/516, "
            "sent_packet 516/516");
  EXPECT_EQ(contents_of(record.sent_packet), data(1, noise(1000).substr(0, 512)));
}

TEST_F(ProcessRequest, ReadOfShortFileStartsWithItsLastBlock) {
  write_whole_file("boot.img", "contents");
  EXPECT_EQ(processes(rrq("boot.img")), accepted("RRQ boot.img\n"));
  unit.expects(data(1, "contents"));
  EXPECT_EQ(changes(),
            "request_type 1, block_number 1, transfer_state 2, input_file open, last_block 1, "
            "received_packet 0/516, sent_packet 12/516");
}

TEST_F(ProcessRequest, ReadOfEmptyFileStartsWithEmptyBlock) {
  write_whole_file("empty", "");
  EXPECT_EQ(processes(rrq("empty")), accepted("RRQ empty\n"));
  unit.expects(data(1, ""));
  EXPECT_TRUE(record.last_block);
}

// The record's block size is what counts, also when no option has set it.
TEST_F(ProcessRequest, ReadWithoutOptionsUsesBlockSizeOfRecord) {
  write_whole_file("boot.img", noise(40000));
  record.block_size = 32768;
  EXPECT_EQ(processes(rrq("boot.img")), accepted("RRQ boot.img\n"));
  unit.expects(data(1, noise(40000).substr(0, 32768)));
  EXPECT_EQ(record.received_packet.max_size, 32772);
  EXPECT_EQ(record.sent_packet.max_size, 32772);
}

TEST_F(ProcessRequest, ReadGoesOnWithoutStateWhenFirstBlockCannotBeSent) {
  write_whole_file("boot.img", "contents");
  record.transfer_state = 7;
  {
    Fault no_send(Call::kSendto, EPERM);
    EXPECT_EQ(processes(rrq("boot.img")), accepted("RRQ boot.img\n"));
  }
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(record.transfer_state, 7);
  EXPECT_EQ(record.block_number, 1);
}

TEST_F(ProcessRequest, ReadsFileInDirectory) {
  std::filesystem::create_directories("images/old");
  write_whole_file("images/old/boot.img", "old");
  EXPECT_EQ(processes(rrq("images/old/boot.img")), accepted("RRQ images/old/boot.img\n"));
  unit.expects(data(1, "old"));
}

TEST_F(ProcessRequest, ReadsNameExactlyAsReceived) {
  const std::string name = " boot\timage.%s\xe4 ";
  write_whole_file(name, "contents");
  EXPECT_EQ(processes(rrq(name)), accepted("RRQ " + name + "\n"));
  unit.expects(data(1, "contents"));
}

TEST_F(ProcessRequest, ReadsFileByAbsoluteName) {
  write_whole_file("boot.img", "contents");
  std::filesystem::current_path("/");
  EXPECT_EQ(processes(rrq(directory.file("boot.img"))), accepted("RRQ " + directory.file("boot.img") + "\n"));
  unit.expects(data(1, "contents"));
}

TEST_F(ProcessRequest, ReadsFileAboveDirectory) {
  std::filesystem::create_directory("images");
  write_whole_file("boot.img", "contents");
  std::filesystem::current_path("images");
  EXPECT_EQ(processes(rrq("../boot.img")), accepted("RRQ ../boot.img\n"));
  unit.expects(data(1, "contents"));
}

// It has no place that could be gone back to.
TEST_F(ProcessRequest, ReadOfNamedPipeSendsNothingOfIt) {
  ASSERT_EQ(mkfifo("pipe", S_IRUSR | S_IWUSR), 0);
  const int pipe = open("pipe", O_RDWR | O_CLOEXEC);
  ASSERT_EQ(write(pipe, "text", 4), 4);
  EXPECT_EQ(processes(rrq("pipe")), accepted("RRQ pipe\n"));
  unit.expects(data(1, ""));
  close(pipe);
}

TEST_F(ProcessRequest, ReadOfDirectorySendsEmptyBlocksWithoutEnd) {
  std::filesystem::create_directory("images");
  EXPECT_EQ(processes(rrq("images")), accepted("RRQ images\n"));
  for (int block = 1; block <= 3; ++block) {
    unit.expects(data(block, ""));
    unit.sends(ack(block));
    EXPECT_EQ(server->Receive(&record), 1);
    EXPECT_EQ(server->Send(&record), 1);
  }
  EXPECT_FALSE(record.last_block);
}

TEST_F(ProcessRequest, ReadsNameOf255Characters) {
  const std::string name = kLongName.substr(0, 255);
  write_whole_file(name, "contents");
  EXPECT_EQ(processes(rrq(name)), accepted("RRQ " + name + "\n"));
  unit.expects(data(1, "contents"));
}

TEST_F(ProcessRequest, FindsModeOfLongerNameOneCharacterBehindTheCut) {
  const std::string name = kLongName.substr(0, 255);
  write_whole_file(name, "contents");
  EXPECT_EQ(processes(rrq(name + "_octet", {}, "mail")), accepted("RRQ " + name + "\n"));
  unit.expects(data(1, "contents"));
}

// ---- Write requests ----

TEST_F(ProcessRequest, WriteCreatesEmptyFileAndAcknowledges) {
  const int descriptors = open_descriptors();
  EXPECT_EQ(processes(wrq("new.log")), accepted("WRQ \n"));
  EXPECT_EQ(open_descriptors(), descriptors + 1);
  unit.expects(ack(0));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes(), "request_type 2, output_file open, received_packet 16/512");
  ASSERT_NE(record.output_file, nullptr);
  EXPECT_TRUE(record.output_file->is_open());
  EXPECT_EQ(whole_file("new.log"), "");
}

TEST_F(ProcessRequest, WriteReadsNeitherModeNorOptions) {
  EXPECT_EQ(processes(wrq("new.log", {{"blksize", "1024"}, {"timeout", "9"}, {"tsize", "7"}}, "netascii")),
            accepted("WRQ \n"));
  unit.expects(ack(0));
  EXPECT_EQ(changes(), "request_type 2, output_file open, received_packet 50/512");
  EXPECT_EQ(whole_file("new.log"), "");
}

TEST_F(ProcessRequest, WriteTakesDoubledNulsAndMissingMode) {
  EXPECT_EQ(processes(bytes("\0\2new.log\0\0octet\0\0")), accepted("WRQ \n"));
  unit.expects(ack(0));
  EXPECT_EQ(whole_file("new.log"), "");
}

TEST_F(ProcessRequest, WriteTakesUnterminatedName) {
  EXPECT_EQ(processes(bytes("\0\2new.log")), accepted("WRQ \n"));
  unit.expects(ack(0));
  EXPECT_EQ(whole_file("new.log"), "");
}

TEST_F(ProcessRequest, WriteIsClosedOnceAndKeepsTheFile) {
  EXPECT_EQ(processes(wrq("new.log")), accepted("WRQ \n"));
  EXPECT_EQ(server->disconnectClient(&record), 1);
  EXPECT_EQ(changes_besides_disconnect(), "");
  EXPECT_EQ(whole_file("new.log"), "");
}

TEST_F(ProcessRequest, WriteDataIsNotTaken) {
  EXPECT_EQ(processes(wrq("new.log")), accepted("WRQ \n"));
  unit.expects(ack(0));
  unit.sends(data(1, "contents"));
  EXPECT_EQ(outcome_of([this] { return ClientProc(&record) == nullptr ? 1 : 0; }), accepted(""));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(record.request_type, 2);
  EXPECT_EQ(whole_file("new.log"), "");
}

TEST_F(ProcessRequest, WriteOfVerdictNameIsAnOrdinaryWrite) {
  EXPECT_EQ(processes(wrq("F_l_m_01PPT_PASSED")), accepted("WRQ \n"));
  unit.expects(ack(0));
  EXPECT_TRUE(server->running);
  EXPECT_EQ(whole_file("F_l_m_01PPT_PASSED"), "");
}

TEST_F(ProcessRequest, WriteOfUncreatableFileIsAcknowledged) {
  EXPECT_EQ(processes(wrq("missing/new.log")), accepted("WRQ \n"));
  unit.expects(ack(0));
  EXPECT_EQ(changes(), "request_type 2, output_file open, received_packet 24/512");
  ASSERT_NE(record.output_file, nullptr);
  EXPECT_FALSE(record.output_file->is_open());
}

TEST_F(ProcessRequest, WriteOfEmptyNameIsAcknowledged) {
  EXPECT_EQ(processes(wrq("")), accepted("WRQ \n"));
  unit.expects(ack(0));
  ASSERT_NE(record.output_file, nullptr);
  EXPECT_FALSE(record.output_file->is_open());
  EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(ProcessRequest, WriteCutsNameTo255Characters) {
  EXPECT_EQ(processes(wrq(kLongName)), accepted("WRQ \n"));
  unit.expects(ack(0));
  EXPECT_EQ(whole_file(kLongName.substr(0, 255)), "");
  EXPECT_TRUE(std::filesystem::exists(kLongName.substr(0, 255)));
}

// A directory exists where the file system can tell the end of one, and is uncreatable where it cannot.
TEST_F(ProcessRequest, WriteLeavesDirectoryAlone) {
  std::filesystem::create_directory("images");
  const int descriptor = open("images", O_RDONLY);
  const bool has_end = lseek64(descriptor, 0, SEEK_END) != -1;
  close(descriptor);
  EXPECT_EQ(processes(wrq("images")), (Outcome{has_end ? 0 : 1, "WRQ \n"}));
  unit.expects(has_end ? error(6, "") : ack(0));
  EXPECT_TRUE(std::filesystem::is_directory("images"));
}

TEST_F(ProcessRequest, WriteIsAcceptedAlsoWhenTheAcknowledgementCannotBeSent) {
  {
    Fault no_send(Call::kSendto, EPERM);
    EXPECT_EQ(processes(wrq("new.log")), accepted("WRQ \n"));
  }
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(record.request_type, 2);
  EXPECT_EQ(whole_file("new.log"), "");
}

// ---- A record that has its request ----

TEST_F(ProcessRequest, SecondCallDoesNothing) {
  write_whole_file("boot.img", noise(2000));
  EXPECT_EQ(processes(rrq("boot.img")), accepted("RRQ boot.img\n"));
  unit.expects(data(1, noise(512)));
  is_prepared();
  EXPECT_EQ(outcome_of([this] { return server->ProcessRequest(&record); }), accepted(""));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes(), "");
}

TEST_F(ProcessRequest, AnyRequestTypeBut0EndsTheCall) {
  write_whole_file("boot.img", "contents");
  for (int type : {1, 2, 3, -1}) {
    record.request_type = type;
    EXPECT_EQ(processes(rrq("boot.img")), accepted(""));
    EXPECT_EQ(processes(ack(0)), accepted(""));
    EXPECT_EQ(record.request_type, type);
  }
  EXPECT_EQ(record.input_file, nullptr);
  unit.expects_nothing(kShortWhile);
}

TEST_F(ProcessRequest, RefusedRecordIsUnexpectedAtASecondCall) {
  EXPECT_EQ(processes(rrq("missing")), refused("RRQ missing\n"));
  unit.expects(error(1, ""));
  EXPECT_EQ(outcome_of([this] { return server->ProcessRequest(&record); }), refused("Unexpected packet\n"));
  unit.expects_nothing(kShortWhile);
}

}  // namespace
