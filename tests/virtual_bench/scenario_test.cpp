#include "bench/scenario.h"

#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <sstream>
#include <string>

#include "support/whole_file.h"

namespace {

// The one step of a scenario.
Step step(const std::string& line) {
  return parse_scenario(line, "a.run").steps.at(0);
}

// What is said of a scenario that is not understood.
std::string refusal(const std::string& text) {
  try {
    parse_scenario(text, "a.run");
  } catch (const ScenarioError& error) {
    return error.what();
  }
  return "understood";
}

TEST(Scenario, TakesItsTitleFromTheFirstComment) {
  EXPECT_EQ(parse_scenario("\n#  A run \n# more\nstation starts\n", "a.run").title, "A run");
  EXPECT_EQ(parse_scenario("station starts\n", "a.run").title, "");
}

TEST(Scenario, MayBeginWithAByteOrderMark) {
  const Scenario scenario = parse_scenario("\xEF\xBB\xBF# A run\nstation starts\n", "a.run");
  EXPECT_EQ(scenario.title, "A run");
  EXPECT_EQ(scenario.steps.size(), 1U);
}

TEST(Scenario, KeepsTheStepsInTheirOrderWithTheirLines) {
  const Scenario scenario = parse_scenario("# title\n\n  station starts \nwire is whole\r\n", "a.run");
  ASSERT_EQ(scenario.steps.size(), 2U);
  EXPECT_STREQ(scenario.steps[0].command->form, "station starts [with TEXT]");
  EXPECT_EQ(scenario.steps[0].line, 3);
  EXPECT_EQ(scenario.steps[0].text, "station starts");
  EXPECT_STREQ(scenario.steps[1].command->form, "[ppt] wire is whole");
  EXPECT_EQ(scenario.steps[1].line, 4);
}

constexpr char kReads[] =
    "unit reads NAME [blksize BLOCK] [timeout TIMEOUT] [repeats TIMES times after PATIENCE s] [tries TRIES] "
    "[within SECONDS s] [dies after SIZE UNIT]";

struct Line {
  const char* text;
  const char* form;
};
void PrintTo(const Line& line, std::ostream* out) {
  *out << line.text;
}
class EveryForm : public testing::TestWithParam<Line> {};

TEST(Scenario, TellsUnitsApart) {
  EXPECT_EQ(step("unit reads b").unit, 0U);
  EXPECT_EQ(step("unit b reads b").unit, 1U);
  EXPECT_EQ(step("unit d crashes").unit, 3U);
  EXPECT_EQ(step("unit sends bytes 00fF").bytes_of("HEX"), std::string("\0\xff", 2));
}

TEST_P(EveryForm, IsUnderstood) {
  EXPECT_STREQ(step(GetParam().text).command->form, GetParam().form);
}

INSTANTIATE_TEST_SUITE_P(
    Scenario, EveryForm,
    testing::Values(
        Line{"file a.txt holds \"x y\"", "file NAME holds TEXT"},
        Line{"file a.img is 5 MiB", "file NAME is SIZE UNIT"},
        Line{"wire loses 5 %", "[ppt] wire loses PERCENT %"},
        Line{"wire duplicates 0.5 %", "[ppt] wire duplicates PERCENT %"},
        Line{"wire swaps 100 %", "[ppt] wire swaps PERCENT %"},
        Line{"wire damages by seed 7", "wire damages by seed SEED"},
        Line{"wire delays 20 ms", "[ppt] wire delays MILLISECONDS ms"},
        Line{"wire is cut for 3 s", "[ppt] wire is cut for SECONDS s"},
        Line{"wire is whole", "[ppt] wire is whole"},
        Line{"ppt wire loses 5 %", "[ppt] wire loses PERCENT %"},
        Line{"wire loses block 3 of a.img", "[ppt] wire loses block NUMBER of NAME [TIMES times]"},
        Line{"wire loses block 70000 of a.img 2 times",
             "[ppt] wire loses block NUMBER of NAME [TIMES times]"},
        Line{"wire loses ACK 0 of a.img", "[ppt] wire loses ACK NUMBER of NAME [TIMES times]"},
        Line{"ppt wire loses the answer to X", "[ppt] wire loses the answer to NAME [TIMES times]"},
        Line{"wire loses the request of X 3 times", "[ppt] wire loses the request of NAME [TIMES times]"},
        Line{"ppt is silent", "ppt is silent"}, Line{"ppt refuses", "ppt refuses"},
        Line{"ppt answers", "ppt answers [ERROR CODE TEXT]"},
        Line{"ppt answers ERROR 2 no", "ppt answers [ERROR CODE TEXT]"},
        Line{"ppt hears F_l_m_01X", "ppt hears NAME"}, Line{"ppt has not heard X", "ppt has not heard NAME"},
        Line{"ppt is connected", "ppt is connected"}, Line{"ppt receives \"line 1\"", "ppt receives TEXT"},
        Line{"board link is called lan1", "board link is called NAME"},
        Line{"board has tempmac 02:00:00:00:00:01", "board has NAME TEXT"},
        Line{"board tool exits 0", "board tool exits STATUS"}, Line{"board ran nothing", "board ran nothing"},
        Line{"board tool hangs", "board tool hangs"}, Line{"board lacks envtool", "board lacks NAME"},
        Line{"board has port 69 taken", "board has port PORT taken"},
        Line{"board has TCP port 12345 taken", "board has TCP port PORT taken"},
        Line{"board link is down", "board link is down"},
        Line{"board link has no broadcast address", "board link has no broadcast address"},
        Line{"board address is 172.40.0.7", "board address is ADDRESS"},
        Line{"board tool goes on", "board tool goes on"},
        Line{"station lacks CAP_NET_RAW", "station lacks RIGHT"},
        Line{"station has 9 descriptors", "station has COUNT descriptors"},
        Line{"ppt answers after 6 s", "ppt answers after SECONDS s"},
        Line{"ppt answers nothing", "ppt answers nothing"},
        Line{"ppt refuses verdicts", "ppt refuses verdicts"}, Line{"ppt is absent", "ppt is absent"},
        Line{"ppt is cut off", "ppt is cut off"}, Line{"ppt is back", "ppt is back"},
        Line{"ppt is forbidden", "ppt is forbidden"},
        Line{"unit gives up a.txt blksize 1428", "unit gives up NAME blksize BLOCK [after COUNT blocks]"},
        Line{"unit gives up a.txt blksize 1428 after 3 blocks",
             "unit gives up NAME blksize BLOCK [after COUNT blocks]"},
        Line{"unit is refused \"\"", "unit is refused NAME [in mode MODE]"},
        Line{"unit is refused a.txt in mode mail", "unit is refused NAME [in mode MODE]"},
        Line{"unit repeats F_l_m_01X 3 times", "unit repeats NAME TIMES times"},
        Line{"unit writes a.txt", "unit writes NAME"},
        Line{"unit asks X and leaves", "unit asks TEXT and leaves"},
        Line{"unit asks X and breaks off", "unit asks TEXT and breaks off"},
        Line{"unit asks X expects Y and holds on", "unit asks TEXT expects REPLY and holds on"},
        Line{"unit hangs up", "unit hangs up"},
        Line{"unit ends reading in vain", "unit ends reading in vain"},
        Line{"unit sends hello to port 69", "unit sends TEXT [to port PORT]"},
        Line{"also seen is net.stray", "also seen is CAUSE"},
        Line{"fault is ppt-server", "fault is OWNER [by CAUSE]"},
        Line{"fault is ppt-server by ppt.silent", "fault is OWNER [by CAUSE]"},
        Line{"board ran \"envtool show tempmac\"", "board ran TEXT"},
        Line{"board keeps ppt_flag failed", "board keeps NAME TEXT"},
        Line{"station starts", "station starts [with TEXT]"},
        Line{"station starts with \"-n 70\"", "station starts [with TEXT]"},
        Line{"station says \"RRQ a.txt\"", "station says TEXT"},
        Line{"station gets SIGTERM", "station gets SIGNAL"},
        Line{"station exits 2", "station exits STATUS [within SECONDS s]"},
        Line{"station exits 2 within 30 s", "station exits STATUS [within SECONDS s]"},
        Line{"unit hears the boot script", "unit hears the boot script"},
        Line{"unit hears nothing for 3 s", "unit hears nothing for SECONDS s"},
        Line{"unit reads a within 60 s", kReads},
        Line{"unit obeys the boot script",
             "unit obeys the boot script [timeout TIMEOUT] [tries TRIES] [within SECONDS s]"},
        Line{"unit obeys the boot script timeout 1 tries 3",
             "unit obeys the boot script [timeout TIMEOUT] [tries TRIES] [within SECONDS s]"},
        Line{"unit reads a.txt", kReads}, Line{"unit reads a.txt blksize 1428 timeout 1 tries 3", kReads},
        Line{"unit reads a.txt tries 3", kReads}, Line{"unit reads a.txt dies after 1 MiB", kReads},
        Line{"unit begins reading a.txt blksize 1428",
             "unit begins reading NAME [blksize BLOCK] [timeout TIMEOUT] [repeats TIMES times after PATIENCE "
             "s]"},
        Line{"unit d reads a.txt repeats 3 times after 0.5 s within 9 s", kReads},
        Line{"unit is like tftp-hpa", "unit is like HABIT"}, Line{"unit c crashes", "unit crashes"},
        Line{"unit b boots again", "unit boots again"},
        Line{"unit asks on expects on", "unit asks TEXT expects REPLY"},
        Line{"unit asks on A expects B", "unit asks on TEXT expects REPLY"},
        Line{"unit is told A", "unit is told REPLY"},
        Line{"unit sends bytes", "unit sends TEXT [to port PORT]"},
        Line{"unit sends bytes 00fF to port 69", "unit sends bytes HEX [to port PORT]"},
        Line{"unit has read 8 KiB", "unit has read SIZE UNIT"},
        Line{"unit ends reading", "unit ends reading"},
        Line{
            "unit cannot read a.txt timeout 1",
            "unit cannot read NAME [blksize BLOCK] [timeout TIMEOUT] [repeats TIMES times after PATIENCE s]"},
        Line{"unit asks X expects Y", "unit asks TEXT expects REPLY"},
        Line{"unit asks X in vain", "unit asks TEXT in vain"},
        Line{"unit sends \"a text\"", "unit sends TEXT [to port PORT]"},
        Line{"bench waits 0.5 s", "bench waits SECONDS s"}));

TEST(Scenario, GivesTheWordsOfAStep) {
  const Step read = step("unit reads kernel.img blksize 1428 tries 3");
  EXPECT_EQ(read.text_of("NAME"), "kernel.img");
  EXPECT_EQ(read.number_of("BLOCK"), 1428);
  EXPECT_EQ(read.number_of("TRIES", 1), 3);
  EXPECT_FALSE(read.has("TIMEOUT"));
  EXPECT_EQ(read.number_of("TIMEOUT", 5), 5);
  EXPECT_EQ(step("wire loses 0.5 %").number_of("PERCENT"), 0.5);
}

TEST(Scenario, ResolvesWhatStandsInQuotes) {
  EXPECT_EQ(step(R"(file a holds "one \"two\"\\\r\n")").text_of("TEXT"), "one \"two\"\\\r\n");
  EXPECT_EQ(step("file a holds \"\"").text_of("TEXT"), "");
}

TEST(Scenario, CountsInBytes) {
  EXPECT_EQ(step("file a is 7 bytes").bytes(), 7);
  EXPECT_EQ(step("file a is 1.5 KiB").bytes(), 1536);
  EXPECT_EQ(step("file a is 2 MiB").bytes(), 2097152);
}

TEST(Scenario, KnowsSignalsByName) {
  EXPECT_EQ(step("station gets SIGINT").signal(), 2);
  EXPECT_EQ(step("station gets SIGKILL").signal(), 9);
  EXPECT_EQ(step("station gets SIGTERM").signal(), 15);
}

struct Refused {
  const char* text;
  const char* why;
};
void PrintTo(const Refused& refused, std::ostream* out) {
  *out << testing::PrintToString(std::string(refused.text));
}
class Refusal : public testing::TestWithParam<Refused> {};

TEST_P(Refusal, NamesFileLineAndWhatWasExpected) {
  EXPECT_EQ(refusal(GetParam().text), GetParam().why);
}

INSTANTIATE_TEST_SUITE_P(
    Scenario, Refusal,
    testing::Values(
        Refused{"# title\nstation starts\nstaton exits 2\n",
                "a.run:3: \"staton\" is not understood here; expected: \"also\", \"bench\", \"board\", "
                "\"fault\", "
                "\"file\", "
                "\"ppt\", \"station\", \"unit\", \"wire\""},
        Refused{"unit is like grub",
                "a.run:1: \"grub\" is not understood here; expected: zirn, curl, tftp-hpa, atftp, busybox, "
                "u-boot or ipxe"},
        Refused{"unit sends bytes 0a1 to port 9",
                "a.run:1: \"0a1\" is not understood here; expected: \"to\", bytes of two hexadecimal digits "
                "each, the end of the line"},
        Refused{"wire looses 5 %",
                "a.run:1: \"looses\" is not understood here; expected: \"damages\", \"delays\", "
                "\"duplicates\", \"is\", \"loses\", \"swaps\""},
        Refused{"wire loses much %",
                "a.run:1: \"much\" is not understood here; expected: \"ACK\", \"block\", \"the\", a number "
                "from 0 to 100 (PERCENT)"},
        Refused{"wire loses 1.2.3 %",
                "a.run:1: \"1.2.3\" is not understood here; expected: \"ACK\", \"block\", \"the\", a number "
                "from 0 to 100 (PERCENT)"},
        Refused{"wire loses . %",
                "a.run:1: \".\" is not understood here; expected: \"ACK\", \"block\", \"the\", a number from "
                "0 to 100 (PERCENT)"},
        Refused{"wire loses 101 %",
                "a.run:1: \"101\" is not understood here; expected: \"ACK\", \"block\", \"the\", a number "
                "from 0 to 100 (PERCENT)"},
        Refused{"wire loses -1 %",
                "a.run:1: \"-1\" is not understood here; expected: \"ACK\", \"block\", \"the\", a number "
                "from 0 to 100 (PERCENT)"},
        Refused{"wire loses \"\" %",
                "a.run:1: \"\" is not understood here; expected: \"ACK\", \"block\", \"the\", a number from "
                "0 to 100 (PERCENT)"},
        Refused{"wire loses block 1 of a 0 times",
                "a.run:1: \"0\" is not understood here; expected: a whole number from 1 to 1000 (TIMES), the "
                "end of the line"},
        Refused{"wire loses the way",
                "a.run:1: \"way\" is not understood here; expected: \"answer\", \"request\""},
        Refused{
            "wire delays 60001 ms",
            "a.run:1: \"60001\" is not understood here; expected: a number from 0 to 60000 (MILLISECONDS)"},
        Refused{"bench waits 1e3 s",
                "a.run:1: \"1e3\" is not understood here; expected: a number from 0 to 3600 (SECONDS)"},
        Refused{"bench waits 99999999999999999999 s",
                "a.run:1: \"99999999999999999999\" is not understood here; expected: a number from 0 to 3600 "
                "(SECONDS)"},
        Refused{"station exits 2.5",
                "a.run:1: \"2.5\" is not understood here; expected: a whole number from 0 to 255 (STATUS)"},
        Refused{"station exits 256",
                "a.run:1: \"256\" is not understood here; expected: a whole number from 0 to 255 (STATUS)"},
        Refused{"unit reads a blksize 0",
                "a.run:1: \"0\" is not understood here; expected: a whole number from 1 to 65464 (BLOCK)"},
        Refused{"unit reads a timeout 0.5",
                "a.run:1: \"0.5\" is not understood here; expected: a whole number from 1 to 255 (TIMEOUT)"},
        Refused{"unit reads a tries 0",
                "a.run:1: \"0\" is not understood here; expected: a whole number from 1 to 1000 (TRIES)"},
        Refused{"ppt answers ERROR 65536 a",
                "a.run:1: \"65536\" is not understood here; expected: a whole number from 0 to 65535 (CODE)"},
        Refused{
            "file a is 4294967297 bytes",
            "a.run:1: \"4294967297\" is not understood here; expected: a number from 0 to 4294967296 (SIZE)"},
        Refused{"file a is 4097 MiB", "a.run:1: the file is too large; expected: at most 4096 MiB"},
        Refused{"wire loses 5", "a.run:1: the line ends too early; expected: \"%\""},
        Refused{"file a is 5 MB", "a.run:1: \"MB\" is not understood here; expected: bytes, KiB or MiB"},
        Refused{"station gets TERM",
                "a.run:1: \"TERM\" is not understood here; expected: SIGINT, SIGTERM, SIGKILL, SIGABRT, "
                "SIGSEGV, SIGSTOP or SIGCONT"},
        Refused{"fault is mine",
                "a.run:1: \"mine\" is not understood here; expected: none, unit, test-network, ppt-server, "
                "board, "
                "station, operator or unknown"},
        Refused{"fault is unit by laziness",
                "a.run:1: \"laziness\" is not understood here; expected: a cause out of docs/causes.md"},
        Refused{"unit reads", "a.run:1: the line ends too early; expected: NAME"},
        Refused{"unit reads a blocksize 5",
                "a.run:1: \"blocksize\" is not understood here; expected: \"blksize\", "
                "\"dies\", \"repeats\", \"timeout\", \"tries\", \"within\", the end of the line"},
        Refused{"unit reads a tries 3 blksize 512",
                "a.run:1: \"blksize\" is not understood here; expected: \"dies\", \"within\", the end of the "
                "line"},
        Refused{"station starts now",
                "a.run:1: \"now\" is not understood here; expected: \"with\", the end of the line"},
        Refused{"unit sends \"a text", "a.run:1: a quote is opened and not closed; expected: \""},
        Refused{"staton exits\nstation starts\nunit reads\nwire is hole\n",
                "a.run:1: \"staton\" is not understood here; expected: \"also\", \"bench\", \"board\", "
                "\"fault\", "
                "\"file\", \"ppt\", "
                "\"station\", \"unit\", \"wire\"\n"
                "a.run:3: the line ends too early; expected: NAME\n"
                "a.run:4: \"hole\" is not understood here; expected: \"cut\", \"whole\""},
        Refused{"# nothing but a title\n", "a.run: no step at all; expected: at least one"}));

TEST(Scenario, IsRefusedWhereAByteIsZero) {
  EXPECT_EQ(refusal(std::string("station\0 starts", 15)), "a.run:1: a byte is 0; expected: text");
  EXPECT_EQ(refusal(std::string("station starts\nunit sends \"a\0b\"", 31)),
            "a.run:2: a byte is 0; expected: text");
}

TEST(Scenario, TakesAQuotedWordLikeAnyOther) {
  EXPECT_STREQ(step("\"station\" \"starts\"").command->form, "station starts [with TEXT]");
  EXPECT_STREQ(step("\tstation\tstarts\t").command->form, "station starts [with TEXT]");
}

TEST(Scenario, IsRefusedWhereThereIsNoFile) {
  for (const std::string name : {"/nowhere/a.run", "/"}) {
    try {
      read_scenario(name);
      FAIL() << "read";
    } catch (const ScenarioError& error) {
      EXPECT_EQ(error.what(), name + ": there is no such file; expected: a scenario (*.run)");
    }
  }
}

// The first column of the manual's table of steps.
std::set<std::string> forms_in_manual() {
  std::set<std::string> forms;
  std::istringstream manual(whole_file(MANUAL));
  bool in_table = false;
  for (std::string line; std::getline(manual, line);) {
    if (line == "| step | meaning |") in_table = true;
    if (!in_table || line.rfind("| `", 0) != 0) continue;
    forms.insert(line.substr(3, line.find("` |") - 3));
  }
  return forms;
}

TEST(Scenario, TheManualHasEveryStepAndNoOther) {
  std::set<std::string> forms;
  for (const Command& command : commands()) forms.insert(command.form);
  EXPECT_EQ(forms_in_manual(), forms);
}

}  // namespace
