// How an explanation says it.
#include <gtest/gtest.h>

#include "explanation/text.h"
#include "zirn_run/explained_run.h"

namespace {

class Words : public testing::Test, public ExplainedRun {
 protected:
  void begins_with_a_verdict() {
    begins();
    gives("F_l_m_t_Bootstrap_loading");
  }
  void fails() {
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
  void expect_told(const std::string& part) {
    fault();
    const std::string text = explanation::text_of(told, "run");
    EXPECT_NE(text.find(part), std::string::npos) << text;
  }
  std::size_t times_told(const std::string& part) {
    fault();
    const std::string text = explanation::text_of(told, "run");
    std::size_t times = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++times;
    return times;
  }
};

TEST_F(Words, TakeTheirPlaces) {
  using explanation::filled;
  EXPECT_EQ(filled("Put {file:the file} there."), "Put the file there.");
  EXPECT_EQ(filled("Put {file:the file} there.", {{"file", "a{b:c}"}}), "Put a{b:c} there.");
  EXPECT_EQ(filled("{end:Wait.} Go {x:on}.", {{"end", ""}}), "Go on.");
}

// Each placeholder in the table has a default.
TEST_F(Words, OfTheTableAreWhole) {
  for (const explanation::Cause& cause : explanation::causes()) {
    for (const std::string& text : {explanation::filled(cause.meaning), explanation::filled(cause.advice)}) {
      EXPECT_EQ(text.find_first_of("{}"), std::string::npos) << text;
      EXPECT_EQ(text.find("known behaviour"), std::string::npos) << text;
    }
  }
}

// The other one must not be put aside.
TEST_F(Words, NameTheUnitOfAVerdictWhereThereAreTwo) {
  begins_with_a_verdict();
  unit.address = made::kUnitB;
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  fault();
  const std::string text = explanation::text_of(told, "run");
  EXPECT_NE(text.find("The unit gave F_l_m_09PPT_FAILED at "), std::string::npos) << text;
  EXPECT_NE(text.find(", from 172.40.0.3 (frames "), std::string::npos) << text;
}

TEST_F(Words, NameTheMissingFile) {
  begins_with_a_verdict();
  is_refused("kernel.img", 1, "");
  fails();
  expect_told("is kernel.img there, under this very name");
  expect_told("Then begin a new run. This unit: test it again.\n");
  expect_told("Also seen, unit (unit.failed): the unit then gave F_l_m_09PPT_FAILED at ");
  expect_told("; it may be because of this fault (");
}

TEST_F(Words, DoNotSendAFailedUnitToAnotherTest) {
  begins_with_a_verdict();
  fails();
  expect_told("with a note of F_l_m_09PPT_FAILED for");
  EXPECT_EQ(times_told("test it again"), 0U);
  EXPECT_EQ(times_told("F_l_m_09PPT_FAILED at "), 1U);
}

// Its loader's fault may be the unit's own, or its script's.
TEST_F(Words, PutAUnitAsideThatFailsTwiceByItself) {
  begins_with_a_verdict();
  is_refused("kernel.img", 0, "Mode not supported", "netascii");
  fails();
  expect_told("This unit: test it again; if the same comes again, put it aside as failed.\n");
  expect_told("Read: kernel.img; nothing of it came\n");
}

TEST_F(Words, DoNotSendAUnitThatHasNotFailedToAnotherTest) {
  begins_with_a_verdict();
  is_refused("kernel.img", 1, "");
  ends(15);
  EXPECT_EQ(times_told("test it again"), 0U);
}

TEST_F(Words, NameThePptServer) {
  begins();
  ppt = Ppt::kSilent;
  gives("F_l_m_01MEMORY_PASSED");
  fails();
  expect_told("ping 172.30.0.254.");
}

TEST_F(Words, NameTheToolThatHangsAndEndWhatHasNotEnded) {
  begins_with_a_verdict();
  asks("DO_PMC_INIT:7", "", 20000);
  line("Mode detected: 7");
  expect_told(
      "What to do: End this run if it still goes on. On the station's board, as root, run "
      "\"/mnt/ramdisk/t1-e1 7 -1\" by");
}

TEST_F(Words, DoNotEndWhatHasEnded) {
  begins_with_a_verdict();
  line("Mode detected: 7");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "", 20000);
  is_killed(SIGKILL);
  expect_told("What to do: On the station's board, as root, run \"envtool show tempmac\" by hand.");
  expect_told(" until the record ends (");
  expect_told("operator (end.sigkill): the run was killed from outside (SIGKILL) at ");
}

TEST_F(Words, NameThePortAndJoinWhatWasPrintedTwice) {
  says(record::RunBegins{"lan0-1", "", "TFTP -o 172.40.0.1 -m 20000"});
  starts();
  gives("F_l_m_t_Bootstrap_loading");
  line("ERROR on binding. Address already in use");
  gives("F_l_m_01MEMORY_PASSED");
  line("ERROR on binding. Address already in use");
  fails();
  fault();
  ASSERT_FALSE(told.also.empty());
  const explanation::Claim* claim = nullptr;
  for (const explanation::Claim& also : told.also) {
    if (also.cause->id == "command.port-in-use") claim = &also;
  }
  claim = claim == nullptr ? &told.fault : claim;
  ASSERT_EQ(claim->cause->id, "command.port-in-use");
  EXPECT_NE(claim->advice.find("TCP port 20000"), std::string::npos) << claim->advice;
  ASSERT_EQ(claim->statements.size(), 1U);
  EXPECT_EQ(claim->statements[0].evidence.lines.count, 2U);
  EXPECT_EQ(times_told("ERROR on binding"), 1U);
}

TEST_F(Words, SayBothTimesOfOneConnection) {
  begins_with_a_verdict();
  line("ERROR on connect() to 172.30.0.254:12345. Connection refused");
  const made::Endpoint client{made::kUnit, 3000}, server{made::kStation, 12345};
  for (int i = 0; i < 2; ++i) {
    run.rests(1000);
    tcp(client, server, made::kSyn, 100);
    tcp(server, client, made::kRst | made::kAck, 0);
  }
  fails();
  EXPECT_EQ(times_told("station's command port refused the unit's connection at 3.0 s and at 4.0 s"), 1U);
  EXPECT_EQ(times_told("command port"), 1U);
}

TEST_F(Words, CountAClosedPortOfThePptServerToItsRefusal) {
  begins();
  ppt = Ppt::kClosed;
  gives("F_l_m_t_Bootstrap_loading");
  line("ERROR on connect() to 172.30.0.254:12345. Connection refused");
  asks_in_vain();
  fails();
  EXPECT_EQ(fault(), "ppt-server ppt.refused");
  EXPECT_FALSE(has_also("ppt.closed"));
  expect_told("UDP port 69 is closed there");
}

TEST_F(Words, SayOnceThatTheCableIsOut) {
  begins_with_a_verdict();
  says(record::Cut{60000000000});
  run.next_is(record::kLostByCut);
  asks_for("kernel.img");
  run.rests(5000);
  ends(15);
  EXPECT_EQ(fault(), "test-network net.cable-out");
  EXPECT_EQ(told.fault.statements.size(), 1U);
  EXPECT_FALSE(has_also("net.loss"));
  expect_told("the request did not reach the station; the cable was out from ");
}

TEST_F(Words, SayThatEnvtoolIsMissing) {
  begins_with_a_verdict();
  line("sh: 1: envtool: not found");
  line("sh: 1: envtool: not found");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:00:03");
  fails();
  EXPECT_EQ(fault(), "board board.mac-default");
  EXPECT_FALSE(has_also("board.tool-missing"));
  expect_told("and none of its own: envtool is missing on the station's board.\n");
  EXPECT_EQ(times_told("envtool: not found"), 1U);
}

TEST_F(Words, DoNotSayWhatTheBoardLacksWhereNothingShowsIt) {
  begins_with_a_verdict();
  asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:00:03");
  fails();
  expect_told("envtool is missing on the station's board, or knows no tempmac.\n");
}

TEST_F(Words, TellTwoOfAKindAndCountMore) {
  begins();
  ppt = Ppt::kSilent;
  gives("F_l_m_01MEMORY_PASSED");
  gives("F_l_m_02FLASH_PASSED");
  gives("F_l_m_09PPT_PASSED");
  expect_told("Also seen, PPT server (ppt.silent): F_l_m_01MEMORY_PASSED went to ");
  expect_told("); F_l_m_02FLASH_PASSED went to ");
}

TEST_F(Words, CountMoreThanTwoOfAKind) {
  begins();
  ppt = Ppt::kSilent;
  for (int i = 0; i < 3; ++i) gives("F_l_m_0" + std::to_string(i) + "MEMORY_PASSED");
  gives("F_l_m_09PPT_PASSED");
  expect_told(", and 2 more\n");
  EXPECT_EQ(times_told("went to"), 1U);
}

TEST_F(Words, NameTheReasonOfTheEnd) {
  begins_with_a_verdict();
  fails();
  expect_told("Exit status: 2 (the final verdict ended the run)\n");
}

TEST_F(Words, NameAnInterruptAsTheReasonOfTheEnd) {
  begins_with_a_verdict();
  run.rests(1000);
  ends(2);
  expect_told("Exit status: 2 (SIGINT ended the run)\n");
  expect_told("The run was stopped from outside (SIGINT");
}

TEST_F(Words, DoNotNameTheReasonOfAnEndThatNothingShows) {
  ends(2);
  expect_told("Exit status: 2 (a final verdict or SIGINT ended the run)\n");
}

TEST_F(Words, NameAShortVerdictAsTheReasonOfAnAbort) {
  begins();
  asks_for("F_l_m_1");
  station_sends(answering, tftp::data(1, ""));
  line("Cmd received: F_l_m_1");
  is_killed(SIGABRT);
  expect_told("Exit status: 134 (abort: a verdict name of fewer than eight characters came)\n");
}

}  // namespace
