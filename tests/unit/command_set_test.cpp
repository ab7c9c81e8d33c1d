#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include "support/descriptors.h"
#include "support/fake_board.h"
#include "support/receiver.h"
#include "support/sandbox.h"
#include "support/tcp_peer.h"
#include "support/tftp_bytes.h"
#include "support/threads.h"

// What the unit's text commands do and how they are answered.

namespace {

std::atomic<bool> popen_fails{false};

}  // namespace

// Takes the place of the library's.
extern "C" FILE* popen(const char* command, const char* mode) {
  static auto* const next = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "popen"));
  return popen_fails ? nullptr : next(command, mode);
}

namespace {

using std::chrono::milliseconds;
using tftp::bytes;

constexpr char kAskForMac[] = "ZIRN_ASKS_FOR_HIS_MAC";
constexpr char kVoiceCalls[] = "/etc/init.d/voice stop\n/etc/init.d/voice start_ppt\n";

TEST(CommandSet, TextThatIsNoCommandIsAnsweredWithItself) {
  Receiver receiver;
  receiver.is_asked("hello", "hello");
  receiver.is_asked("x", "x");
  receiver.is_asked("do_pmc_init:7", "do_pmc_init:7");
  receiver.is_asked("ZIRN_ASKS_FOR_HIS_MA", "ZIRN_ASKS_FOR_HIS_MA");
  EXPECT_EQ(receiver.ends(), kStopped);
}

TEST(CommandSet, TextIsAnsweredUpToItsFirstNul) {
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  peer.asks(bytes("hello\0world"), "hello");
  peer.sends(bytes("\0nothing"));
  peer.expects_nothing();
  peer.asks("next", "nexthingrld");
}

TEST(CommandSet, TextOf254BytesIsAnsweredWhole) {
  Receiver receiver;
  const std::string text = std::string(253, 'a') + "b";
  receiver.is_asked(text, text);
}

TEST(CommandSet, LongerTextIsTakenAsTwo) {
  Receiver receiver;
  std::string text;
  for (int i = 0; i < 300; ++i) text += static_cast<char>('a' + i % 26);
  // The second text of 46 bytes is followed by what the first has left behind.
  receiver.is_asked(text, text.substr(0, 254) + text.substr(254) + text.substr(46, 208));
  receiver.is_asked(text.substr(0, 255), text.substr(0, 254) + text.substr(254, 1) + text.substr(1, 253));
}

TEST(CommandSet, TwoSegmentsAreTwoTexts) {
  const FakeBoard board;
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  peer.asks("ZIRN_ASKS_", "ZIRN_ASKS_");
  peer.asks("FOR_HIS_MAC", "FOR_HIS_MAC");
  peer.ends_its_texts();
  EXPECT_EQ(receiver.ends(), kStopped);
  EXPECT_EQ(board.calls(), "");
}

TEST(CommandSet, ShorterTextIsFollowedByTheRestOfALongerOne) {
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  peer.asks("hello world", "hello world");
  peer.asks("HEY", "HEYlo world");
  peer.asks("12345", "12345 world");
  peer.asks("a longer text", "a longer text");
}

TEST(CommandSet, NewConnectionBeginsWithAnEmptyBuffer) {
  Receiver receiver;
  receiver.is_asked("hello world", "hello world");
  receiver.is_asked("HEY", "HEY");
}

// What envtool prints, and the MAC address that the unit is given for it.
struct MacCase {
  const char* name;
  std::string envtool_output;
  std::string mac;
};

std::ostream& operator<<(std::ostream& stream, const MacCase& mac_case) {
  return stream << testing::PrintToString(mac_case.envtool_output);
}

class AssignedMac : public testing::TestWithParam<MacCase> {};

TEST_P(AssignedMac, IsTheStationsTemporaryMacPlusTwo) {
  const FakeBoard board;
  board.prints(FakeBoard::kEnvtool, GetParam().envtool_output);
  Receiver receiver;
  receiver.is_asked(kAskForMac, GetParam().mac);
  EXPECT_EQ(receiver.ends(), "Assigned MAC is " + GetParam().mac + "\n" + kStopped);
  EXPECT_EQ(board.calls(), "envtool show tempmac\n");
}

const MacCase kMacCases[] = {
    {"Usual", "tempmac=02:00:00:00:00:01\n", "02:00:00:00:00:03"},
    {"WithoutNewline", "tempmac=02:00:00:00:00:07", "02:00:00:00:00:09"},
    {"CarryIntoTheNextByte", "tempmac=02:00:00:00:00:fe\n", "02:00:00:00:01:00"},
    {"CarryIntoTheFirstByte", "tempmac=02:ff:ff:ff:ff:ff\n", "03:00:00:00:00:01"},
    {"CarryOutOfTheFirstByte", "tempmac=ff:ff:ff:ff:ff:fe\n", "00:00:00:00:00:00"},
    {"EveryByteInItsPlace", "tempmac=12:34:56:78:9a:bc\n", "12:34:56:78:9a:be"},
    {"CapitalDigits", "tempmac=AB:CD:EF:AB:CD:EF\n", "ab:cd:ef:ab:cd:f1"},
    {"WithoutColons", "tempmac=020000000007\n", "02:00:00:00:00:09"},
    {"DoubledColons", "tempmac=02::00:00:00:00:07\n", "02:00:00:00:00:09"},
    {"ColonsAtBothEnds", "tempmac=:02:00:00:00:00:07:\n", "02:00:00:00:00:09"},
    {"GroupsByOtherCharacters", "tempmac=02-11-22-33-44-55\n", "02:11:22:33:44:57"},
    {"ShortGroupsByOtherCharacters", "tempmac=1-2-3\n", "00:00:00:01:02:05"},
    {"GroupsByBlanks", "tempmac=1 2\n", "00:00:00:00:01:04"},
    {"GroupsByTwoBlanks", "tempmac=1  2\n", "00:00:00:00:01:04"},
    {"UpToTheSecondOfTwoOtherCharacters", "tempmac=1..2\n", "00:00:00:00:00:03"},
    {"OneByteAboveTheOthers", "tempmac=1ff-ff\n", "00:00:00:02:00:01"},
    {"OnlyTheLow48BitsCount", "tempmac=1234567890abcdef\n", "56:78:90:ab:cd:f1"},
    {"NumberBeyond64Bits", "tempmac=12345678901234567\n", "00:00:00:00:00:02"},
    {"NoNumber", "tempmac=none\n", "00:00:00:00:00:02"},
    {"NewlineAlone", "tempmac=\n", "00:00:00:00:00:02"},
    {"NineteenCharacters", "tempmac=02:00:00:00:00:07 1\n", "00:00:00:00:07:03"},
    {"MoreThanNineteenCharacters", "tempmac=02:00:00:00:00:01:ff:ee\n", "20:00:00:00:00:21"},
    {"DigitsBehindTheNineteenthCharacter", "tempmac=02:00:00:00:00:07  1\n", "02:00:00:00:00:09"},
    {"BehindTheLastEqualsSign", "tempmac=02:00:00:00:00:11=02:00:00:00:00:21\n", "02:00:00:00:00:23"},
    {"AnywhereInTheLine", "the old tempmac=02:00:00:00:00:07\n", "02:00:00:00:00:09"},
    {"InTheLastLine", "tempmac=02:00:00:00:00:11\ntempmac=02:00:00:00:00:07\n", "02:00:00:00:00:09"},
    {"NotInTheLastLine", "tempmac=02:00:00:00:00:07\nend\n", "02:00:00:00:00:03"},
    {"EmptyLineAtTheEnd", "tempmac=02:00:00:00:00:07\n\n", "02:00:00:00:00:03"},
    {"OtherName", "permmac=02:00:00:00:00:07\n", "02:00:00:00:00:03"},
    {"NoEqualsSign", "tempmac 02:00:00:00:00:07\n", "02:00:00:00:00:03"},
    {"Silence", "", "02:00:00:00:00:03"},
    {"LineOf127Characters", std::string(101, 'x') + "tempmac=02:00:00:00:00:07\n", "02:00:00:00:00:09"},
    {"LineOf128Characters", std::string(102, 'x') + "tempmac=02:00:00:00:00:07\n", "02:00:00:00:00:03"},
    {"SecondPieceOfALongLine", std::string(127, 'x') + "tempmac=02:00:00:00:00:07\n", "02:00:00:00:00:09"},
};

INSTANTIATE_TEST_SUITE_P(Board, AssignedMac, testing::ValuesIn(kMacCases),
                         [](const auto& parameter) { return parameter.param.name; });

TEST(CommandSet, AskingForTheMacIsAnsweredWithItselfWhenTheTemporaryMacIsEmpty) {
  const FakeBoard board;
  board.prints(FakeBoard::kEnvtool, "tempmac=");
  Receiver receiver;
  receiver.is_asked("ZIRN_ASKS_FOR_HIS_MAC please", "ZIRN_ASKS_FOR_HIS_MAC please");
  EXPECT_EQ(receiver.ends(), kStopped);
  EXPECT_EQ(board.calls(), "envtool show tempmac\n");
}

TEST(CommandSet, MissingEnvtoolGivesTheDefaultMac) {
  const FakeBoard board;
  board.removes(FakeBoard::kEnvtool);
  Receiver receiver;
  receiver.is_asked(kAskForMac, "02:00:00:00:00:03");
  EXPECT_EQ(receiver.ends(), std::string("Assigned MAC is 02:00:00:00:00:03\n") + kStopped);
}

TEST(CommandSet, EnvtoolThatCannotBeStartedGivesTheDefaultMac) {
  const FakeBoard board;
  board.prints(FakeBoard::kEnvtool, "tempmac=02:00:00:00:00:07\n");
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  popen_fails = true;
  peer.asks(kAskForMac, "02:00:00:00:00:03");
  popen_fails = false;
  peer.asks(kAskForMac, "02:00:00:00:00:09");
  EXPECT_EQ(board.calls(), "envtool show tempmac\n");
}

TEST(CommandSet, StatusOfEnvtoolDoesNotMatter) {
  const FakeBoard board;
  board.prints(FakeBoard::kEnvtool, "tempmac=02:00:00:00:00:07\n");
  board.ends_with(FakeBoard::kEnvtool, 1);
  Receiver receiver;
  receiver.is_asked(kAskForMac, "02:00:00:00:00:09");
}

TEST(CommandSet, EnvtoolIsReadToItsEndThoughASignalInterrupts) {
  const FakeBoard board;
  board.prints(FakeBoard::kEnvtool, "tempmac=02:00:00:00:00:07\n");
  board.holds(FakeBoard::kEnvtool);
  struct sigaction interrupting = {};
  interrupting.sa_handler = [](int) {};
  sigaction(SIGUSR1, &interrupting, nullptr);
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  peer.sends(kAskForMac);
  ASSERT_TRUE(wait_until([&] { return !board.calls().empty(); }));
  pthread_kill(receiver.thread(), SIGUSR1);
  std::this_thread::sleep_for(milliseconds(100));
  board.releases(FakeBoard::kEnvtool);
  peer.expects("02:00:00:00:00:09");
}

TEST(CommandSet, EnvtoolLeavesNeitherADescriptorNorAProcess) {
  const FakeBoard board;
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  peer.asks("hello", "hello");
  const int before = open_descriptors();
  peer.asks(kAskForMac, "02:00:00:00:00:03");
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(CommandSet, MacIsAskedOfTheBoardEveryTime) {
  const FakeBoard board;
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  peer.asks(kAskForMac, "02:00:00:00:00:03");
  board.prints(FakeBoard::kEnvtool, "tempmac=02:00:00:00:00:07\n");
  peer.asks(kAskForMac, "02:00:00:00:00:09");
  EXPECT_EQ(board.calls(), "envtool show tempmac\nenvtool show tempmac\n");
}

TEST(CommandSet, AskingForTheMacIsRecognisedAnywhereAndBeforeThePmc) {
  const FakeBoard board;
  Receiver receiver;
  receiver.is_asked("The ZIRN_ASKS_FOR_HIS_MAC again", "02:00:00:00:00:03");
  receiver.is_asked("DO_PMC_INIT:3ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:00:03");
  receiver.is_asked("ZIRN_ASKS_FOR_HIS_MACDO_PMC_INIT:3", "02:00:00:00:00:03");
  const std::string line = "Assigned MAC is 02:00:00:00:00:03\n";
  EXPECT_EQ(receiver.ends(), line + line + line + kStopped);
  EXPECT_EQ(board.calls(), "envtool show tempmac\nenvtool show tempmac\nenvtool show tempmac\n");
}

// A receiver on a board whose commands are all there.
class PmcInitialisation : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    NEEDS_SANDBOX();
    receiver.emplace();
  }
  // Once, for each text on a connection of its own: what was printed, and what t1-e1 was called with.
  void prints_and_runs(const std::string& text, const std::string& printed, const std::string& mode) {
    board.forgets_calls();
    receiver.emplace();
    receiver->is_asked(text, "FAIL");
    EXPECT_EQ(receiver->ends(), printed + kStopped) << text;
    EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1(mode)) << text;
  }
  static std::string t1_e1(const std::string& mode) { return "/mnt/ramdisk/t1-e1 " + mode + " -1\n"; }
  std::string ends() { return receiver->ends(); }

  FakeBoard board;
  std::optional<Receiver> receiver;
};

TEST_F(PmcInitialisation, VoiceIsRestartedForPptOnceAndThenT1E1RunsEveryTime) {
  const TcpPeer peer = receiver->connection();
  peer.asks("DO_PMC_INIT:7", "FAIL");
  EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1("7"));
  peer.asks("DO_PMC_INIT:7", "FAIL");
  EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1("7") + t1_e1("7"));
  peer.ends_its_texts();
  receiver->is_asked("DO_PMC_INIT:7", "FAIL");
  EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1("7") + t1_e1("7") + t1_e1("7"));
  EXPECT_EQ(ends(), std::string("Mode detected: 7\nMode detected: 7\nMode detected: 7\n") + kStopped);
}

TEST_F(PmcInitialisation, NewRunOfTheThreadRestartsVoiceAgain) {
  receiver->is_asked("DO_PMC_INIT:7", "FAIL");
  receiver.emplace();
  receiver->is_asked("DO_PMC_INIT:7", "FAIL");
  EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1("7") + kVoiceCalls + t1_e1("7"));
}

TEST_F(PmcInitialisation, ResultOfZeroIsTheFailure) {
  const TcpPeer peer = receiver->connection();
  for (const int status : {1, 0, 255, 0, 2}) {
    board.ends_with(FakeBoard::kT1E1, status);
    peer.asks("DO_PMC_INIT:7", status == 0 ? "FAIL" : "READY");
  }
}

TEST_F(PmcInitialisation, MissingT1E1IsReady) {
  board.removes(FakeBoard::kT1E1);
  receiver->is_asked("DO_PMC_INIT:7", "READY");
}

TEST_F(PmcInitialisation, ResultsOfVoiceDoNotMatter) {
  board.ends_with(FakeBoard::kVoice, 1);
  receiver->is_asked("DO_PMC_INIT:7", "FAIL");
  EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1("7"));
}

TEST_F(PmcInitialisation, MissingVoiceDoesNotMatter) {
  board.removes(FakeBoard::kVoice);
  receiver->is_asked("DO_PMC_INIT:7", "FAIL");
  EXPECT_EQ(board.calls(), t1_e1("7"));
}

TEST_F(PmcInitialisation, ReplyWaitsForT1E1) {
  board.holds(FakeBoard::kT1E1);
  const TcpPeer peer = receiver->connection();
  peer.sends("DO_PMC_INIT:7");
  ASSERT_TRUE(wait_until([&] { return board.calls() == kVoiceCalls + t1_e1("7"); }));
  peer.expects_nothing();
  board.releases(FakeBoard::kT1E1);
  peer.expects("FAIL");
}

TEST_F(PmcInitialisation, T1E1WaitsForVoice) {
  board.holds(FakeBoard::kVoice);
  const TcpPeer peer = receiver->connection();
  peer.sends("DO_PMC_INIT:7");
  ASSERT_TRUE(wait_until([&] { return !board.calls().empty(); }));
  peer.expects_nothing();
  EXPECT_EQ(board.calls(), "/etc/init.d/voice stop\n");
  board.releases(FakeBoard::kVoice);
  peer.expects("FAIL");
}

TEST_F(PmcInitialisation, ModeIsTheLowByteOfTheNumberBehindTheColon) {
  prints_and_runs("DO_PMC_INIT:0", "Mode detected: 0\n", "0");
  prints_and_runs("DO_PMC_INIT:255", "Mode detected: 255\n", "255");
  prints_and_runs("DO_PMC_INIT:256", "Mode detected: 0\n", "0");
  prints_and_runs("DO_PMC_INIT:300", "Mode detected: 44\n", "44");
  prints_and_runs("DO_PMC_INIT:-1", "Mode detected: 255\n", "255");
  prints_and_runs("DO_PMC_INIT:99999999999999999999", "Mode detected: 255\n", "255");
}

TEST_F(PmcInitialisation, ModeIsDecimalAndEndsWithItsDigits) {
  prints_and_runs("DO_PMC_INIT: 12 13", "Mode detected: 12\n", "12");
  prints_and_runs("DO_PMC_INIT:010", "Mode detected: 10\n", "10");
  prints_and_runs("DO_PMC_INIT:0x10", "Mode detected: 0\n", "0");
  prints_and_runs("DO_PMC_INIT:none", "Mode detected: 0\n", "0");
}

TEST_F(PmcInitialisation, WithoutAColonTheModeIsZeroAndNotMentioned) {
  prints_and_runs("DO_PMC_INIT", "", "0");
  prints_and_runs("DO_PMC_INIT 7", "", "0");
}

TEST_F(PmcInitialisation, ModeIsTheSecondPieceThatIsNotEmpty) {
  prints_and_runs("DO_PMC_INIT:", "", "0");
  prints_and_runs("DO_PMC_INIT::7", "Mode detected: 7\n", "7");
  prints_and_runs("DO_PMC_INIT:7:9", "Mode detected: 7\n", "7");
  prints_and_runs("::DO_PMC_INIT:7", "Mode detected: 7\n", "7");
  prints_and_runs("5:DO_PMC_INIT:7", "Mode detected: 0\n", "0");
  prints_and_runs("5:6 DO_PMC_INIT:7", "Mode detected: 6\n", "6");
}

TEST_F(PmcInitialisation, TwoCommandsInOneTextAreOne) {
  prints_and_runs("DO_PMC_INIT:3DO_PMC_INIT:4", "Mode detected: 3\n", "3");
}

TEST_F(PmcInitialisation, ModeIsPrintedInTheNumberFormatOfTheOutput) {
  std::cout << std::hex;
  receiver->is_asked("DO_PMC_INIT:300", "FAIL");
  std::cout << std::dec;
  EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1("44"));
  EXPECT_EQ(ends(), std::string("Mode detected: 2c\n") + kStopped);
}

TEST_F(PmcInitialisation, EndOfTheMacReplyBecomesPartOfTheMode) {
  board.prints(FakeBoard::kEnvtool, "tempmac=02:00:00:00:00:01\n");
  const TcpPeer peer = receiver->connection();
  peer.asks(kAskForMac, "02:00:00:00:00:03");
  peer.asks("DO_PMC_INIT:1", "FAIL");
  peer.ends_its_texts();
  EXPECT_EQ(ends(), std::string("Assigned MAC is 02:00:00:00:00:03\nMode detected: 10\n") + kStopped);
  EXPECT_EQ(board.calls(), "envtool show tempmac\n" + (kVoiceCalls + t1_e1("10")));
}

TEST_F(PmcInitialisation, EndOfTheAskingTextStandsBehindTheMacReply) {
  const TcpPeer peer = receiver->connection();
  peer.asks(kAskForMac, "02:00:00:00:00:03");
  // The 17 characters of the reply and its NUL have taken the place of all but "MAC".
  peer.asks("eighteen character", "eighteen characterMAC");
}

TEST_F(PmcInitialisation, EndOfTheCommandLineStandsBehindReady) {
  board.ends_with(FakeBoard::kT1E1, 1);
  const TcpPeer peer = receiver->connection();
  peer.asks("DO_PMC_INIT:7", "READY");
  peer.asks("abcde", "abcde");
  peer.asks("abcdef", "abcdefamdisk/t1-e1 7 -1");
}

TEST_F(PmcInitialisation, EndOfTheCommandLineStandsBehindFail) {
  const TcpPeer peer = receiver->connection();
  peer.asks("DO_PMC_INIT:200", "FAIL");
  peer.asks("abcde", "abcderamdisk/t1-e1 200 -1");
}

TEST_F(PmcInitialisation, EndOfTheCommandLineBecomesPartOfTheNextCommand) {
  const TcpPeer peer = receiver->connection();
  peer.asks("DO_PMC_INIT:7", "FAIL");
  peer.asks("DO_PMC_INIT:", "FAIL");  // followed by "/t1-e1 7 -1"
  peer.asks("DO_PMC_INIT", "FAIL");   // followed by "k/t1-e1 0 -1"
  peer.ends_its_texts();
  EXPECT_EQ(ends(), std::string("Mode detected: 7\nMode detected: 0\n") + kStopped);
  EXPECT_EQ(board.calls(), kVoiceCalls + t1_e1("7") + t1_e1("0") + t1_e1("0"));
}

TEST_F(PmcInitialisation, TextIsCutAtTheColonBehindTheMode) {
  const TcpPeer peer = receiver->connection();
  const std::string mode(30, '1');
  const std::string first = "DO_PMC_INIT:" + mode + ":second:third";
  peer.asks(first, "FAIL");
  peer.asks(std::string(42, 'x'), std::string(42, 'x'));
  peer.asks(std::string(43, 'x'), std::string(43, 'x') + "second:third");
}

}  // namespace
