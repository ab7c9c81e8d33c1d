#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/station.h"

namespace {

using namespace station;

class BadInput : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

// One request, the datagram that answers it, and all that is printed about it.
void is_answered(const std::string& request, const std::string& answer, const std::string& lines) {
  OnLoopback station;
  UdpPeer client = station.asks(request);
  client.expects(answer);
  station.printed(lines);
}

TEST_F(BadInput, ModeOtherThanOctetIsRefused) {
  for (const std::string mode : {"netascii", "OCTET", "octets", "octe", "mail", "octet "}) {
    is_answered(rrq("next", {}, mode), error(0, "Mode not supported"),
                "RRQ next\nMode " + mode + " not supported\n");
  }
}

TEST_F(BadInput, EmptyModeIsRefused) {
  is_answered(rrq("next", {}, ""), error(0, "Mode not supported"), "RRQ next\nMode  not supported\n");
}

TEST_F(BadInput, RequestThatEndsBehindTheNameIsRefused) {
  is_answered(bytes("\0\1next\0"), error(0, "Mode not supported"), "RRQ next\nMode  not supported\n");
  is_answered(bytes("\0\1next"), error(0, "Mode not supported"), "RRQ next\nMode  not supported\n");
}

TEST_F(BadInput, ModeMayLackItsNul) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.client();
  EXPECT_EQ(read_by_tftp(client, bytes("\0\1file\0octet")), "contents");
  station.printed("RRQ file\n");
}

TEST_F(BadInput, MissingFileIsReportedOnlyByAnErrorWithoutText) {
  is_answered(rrq("missing"), error(1, ""), "RRQ missing\n");
}

TEST_F(BadInput, MissingFileWithOptionsIsReportedOnlyByAnErrorWithoutText) {
  is_answered(rrq("missing", {{"blksize", "70000"}}), error(1, ""), "RRQ missing\n");
}

TEST_F(BadInput, EmptyNameIsRefusedWithText) {
  is_answered(rrq(""), error(1, "File not found"), "RRQ \nFilename is not set\n");
}

TEST_F(BadInput, RequestOfAnOpcodeAloneHasAnEmptyName) {
  is_answered(bytes("\0\1"), error(1, "File not found"), "RRQ \nFilename is not set\n");
}

TEST_F(BadInput, NameOf255CharactersIsServed) {
  OnLoopback station;
  const std::string name(255, 'n');
  write_whole_file(name, "contents");
  UdpPeer client = station.client();
  EXPECT_EQ(read_by_tftp(client, rrq(name)), "contents");
  station.printed("RRQ " + name + "\n");
}

TEST_F(BadInput, NameOf255CharactersMayBeMissing) {
  const std::string name(255, 'n');
  is_answered(rrq(name), error(1, ""), "RRQ " + name + "\n");
}

TEST_F(BadInput, ModeIsLookedForBehindTheFirst255CharactersOfALongerName) {
  const std::string cut(255, 'n');
  is_answered(rrq(cut + "n"), error(0, "Mode not supported"), "RRQ " + cut + "\nMode  not supported\n");
  is_answered(rrq(cut + "nm"), error(0, "Mode not supported"), "RRQ " + cut + "\nMode m not supported\n");
  is_answered(rrq(cut + "nnnnntail"), error(0, "Mode not supported"),
              "RRQ " + cut + "\nMode nnnntail not supported\n");
}

TEST_F(BadInput, LongNameWithOctetBehindItsFirst256CharactersIsTheFileOfTheFirst255) {
  OnLoopback station;
  const std::string name(255, 'n');
  write_whole_file(name, "contents");
  UdpPeer client = station.client();
  EXPECT_EQ(read_by_tftp(client, rrq(name + "noctet")), "contents");
  station.printed("RRQ " + name + "\n");
}

TEST_F(BadInput, DirectoryGivesBlocksWithoutBytes) {
  OnLoopback station;
  std::filesystem::create_directory("directory");
  UdpPeer client = station.asks(rrq("directory"));
  client.expects(data(1, ""));
  client.sends(ack(1));
  client.expects(data(2, ""));
  station.printed("RRQ directory\n");
}

TEST_F(BadInput, FullRequestWithoutAnyNulIsRefused) {
  is_answered(bytes("\0\1") + std::string(510, 'a'), error(0, "Mode not supported"),
              "RRQ " + std::string(255, 'a') + "\nMode " + std::string(254, 'a') + " not supported\n");
}

TEST_F(BadInput, RequestIsCutTo512Bytes) {
  is_answered(bytes("\0\1") + std::string(30000, 'a'), error(0, "Mode not supported"),
              "RRQ " + std::string(255, 'a') + "\nMode " + std::string(254, 'a') + " not supported\n");
}

TEST_F(BadInput, OptionsBehindTheFirst512BytesAreLost) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.client();
  // \0\1file\0octet\0 has 13 bytes; the option's name takes 499 and leaves no room for its value.
  const std::string name(498, 'o');
  client.sends(rrq("file", {{name, "value"}}));
  client.expects(oack({{name, ""}}));
  station.printed("RRQ file\n");
}

TEST_F(BadInput, WriteRequestWithoutAnyNulCreatesTheFileOfItsFirst255Characters) {
  OnLoopback station;
  UdpPeer client = station.asks(bytes("\0\2") + std::string(510, 'a'));
  client.expects(ack(0));
  EXPECT_EQ(whole_file(std::string(255, 'a')), "");
  station.printed("WRQ \n");
}

TEST_F(BadInput, WriteRequestForAnExistingFileIsRefusedAndLeavesIt) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.asks(wrq("file"));
  client.expects(error(6, ""));
  EXPECT_EQ(whole_file("file"), "contents");
  station.printed("WRQ \n");
}

TEST_F(BadInput, WriteRequestIsAcknowledgedInAnyModeAndGoesNoFurther) {
  OnLoopback station;
  UdpPeer client = station.asks(wrq("new", {{"blksize", "1024"}}, "netascii"));
  client.expects(ack(0));
  client.sends(data(1, "contents"));
  client.expects_nothing(std::chrono::milliseconds(500));
  EXPECT_EQ(whole_file("new"), "");
  station.printed("WRQ \n");
}

TEST_F(BadInput, WriteRequestThatCannotBeCarriedOutIsAcknowledgedAllTheSame) {
  is_answered(wrq("no such directory/new"), ack(0), "WRQ \n");
  is_answered(wrq(""), ack(0), "WRQ \n");
}

TEST_F(BadInput, FirstDatagramThatIsNoRequestIsRefused) {
  for (const std::string& datagram :
       {ack(0), ack(1), data(1, "contents"), error(1, "text"), oack({}), oack({{"blksize", "512"}}),
        bytes("\0\7"), bytes("\0\0name\0octet\0"), bytes("\0\377name\0octet\0"), bytes("\1\0name\0octet\0"),
        bytes("\1\1name\0octet\0"), bytes("\377\377"), std::string(512, 'a'), std::string(512, '\0')}) {
    is_answered(datagram, error(4, ""), "Unexpected packet\n");
  }
}

TEST_F(BadInput, DatagramsOfNoneAndOneByteAreRefused) {
  is_answered("", error(4, ""), "Unexpected packet\n");
  is_answered(bytes("\0"), error(4, ""), "Unexpected packet\n");
  is_answered(bytes("\1"), error(4, ""), "Unexpected packet\n");
}

// A transfer of three blocks whose first one is out.
struct OpenTransfer {
  OpenTransfer() {
    write_whole_file("file", contents);
    client.sends(rrq("file"));
    client.expects(data(1, contents.substr(0, 512)));
  }

  OnLoopback station;
  std::string contents = noise(1200);
  UdpPeer client = station.client();
};

TEST_F(BadInput, AcknowledgementFromAForeignPortCountsAsTheClients) {
  OpenTransfer transfer;
  UdpPeer stranger = transfer.station.client(2003, transfer.client.their_port());
  stranger.sends(ack(1));
  transfer.client.expects(data(2, transfer.contents.substr(512, 512)));
  stranger.expects_nothing(std::chrono::milliseconds(200));
  transfer.station.printed("RRQ file\n");
}

TEST_F(BadInput, ForeignPacketThatIsNoAcknowledgementEndsTheTransferOfTheClient) {
  OpenTransfer transfer;
  UdpPeer stranger = transfer.station.client(2003, transfer.client.their_port());
  stranger.sends(data(1, "foreign"));
  transfer.client.expects(error(4, "Unexpected packet arrived, you have been disconnected"));
  transfer.client.sends(ack(1));
  transfer.client.expects_nothing(std::chrono::milliseconds(500));
  stranger.expects_nothing(std::chrono::milliseconds(1));
  transfer.station.printed("RRQ file\n");
}

TEST_F(BadInput, ErrorFromTheClientIsAnsweredAndEndsTheTransfer) {
  OpenTransfer transfer;
  transfer.client.sends(error(0, "aborted"));
  transfer.client.expects(error(4, "Unexpected packet arrived, you have been disconnected"));
  // Nothing goes out again: the wait of five seconds is over by then.
  transfer.client.expects_nothing(std::chrono::milliseconds(5500));
  transfer.station.printed("RRQ file\n");
}

TEST_F(BadInput, EmptyDatagramEndsTheTransferWithoutAnAnswer) {
  OpenTransfer transfer;
  transfer.client.sends("");
  transfer.client.expects_nothing(std::chrono::milliseconds(5500));
  transfer.station.printed("RRQ file\n");
}

TEST_F(BadInput, WrongAcknowledgementBringsTheSameBlockAgain) {
  OpenTransfer transfer;
  for (const int number : {0, 2, 65535}) {
    transfer.client.sends(ack(number));
    transfer.client.expects(data(1, transfer.contents.substr(0, 512)));
  }
  transfer.client.sends(ack(1));
  transfer.client.expects(data(2, transfer.contents.substr(512, 512)));
  transfer.station.printed("RRQ file\n");
}

TEST_F(BadInput, WrongAcknowledgementOfTheOptionsBringsThemAgainAndTheFirstBlock) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.asks(rrq("file", {{"tsize", "0"}}));
  client.expects(oack({{"tsize", "8"}}));
  client.sends(ack(7));
  client.expects(oack({{"tsize", "8"}}));
  client.expects(data(1, "contents"));
  station.printed("RRQ file\n");
}

TEST_F(BadInput, ShortVerdictNameAbortsTheProgramAfterTheEmptyFile) {
  for (const std::string name : {"F_l_m_", "F_l_m_1"}) {
    OnLoopback station;
    UdpPeer client = station.asks(rrq(name));
    client.expects(data(1, ""));
    EXPECT_EQ(station.daemon->exit_status(), -SIGABRT);
    EXPECT_EQ(station.daemon->output(), station::starting("127.0.0.1") + station::kServing +
                                            station::kNoSender + "Cmd received: " + name + "\n");
  }
}

TEST_F(BadInput, VerdictPrefixInOtherLettersOrPlacesIsAFileName) {
  for (const std::string name : {"f_l_m_01PPT_PASSED", "F_l_m01PPT_PASSED", "xF_l_m_01PPT_PASSED"}) {
    is_answered(rrq(name), error(1, ""), "RRQ " + name + "\n");
  }
}

TEST_F(BadInput, PortInUseEndsTheProgramWithStatus1) {
  const UdpPeer occupant("127.0.0.1", station::kTftpPort);
  Daemon daemon;
  EXPECT_EQ(daemon.exit_status(), 1);
  EXPECT_EQ(daemon.output(), station::starting("127.0.0.1") +
                                 "Socket Bind exception: Address already in use\n"
                                 "Message Server was shut down\n"
                                 "TFTP Server was shut down\n");
  EXPECT_EQ(daemon.errors(), "");
}

TEST_F(BadInput, WithoutTheTestNetworkItServesOn) {
  const OnLoopback station({}, OnLoopback::Relay::kHasNoAddress);
  station.printed("");
}

}  // namespace
