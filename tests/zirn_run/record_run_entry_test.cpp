#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "record/run_entry.h"

namespace {

using record::BoardCall;
using record::Cut;
using record::Entry;
using record::entry_of;
using record::Gap;
using record::Line;
using record::RunBegins;
using record::RunEnds;
using record::RunEntry;
using record::said_by;
using record::StationEnds;
using record::Timeout;
using Fields = std::vector<std::pair<std::string, std::string>>;

constexpr record::Nanoseconds kAt = 1700000000123456000;

Fields fields(const std::string& message, const std::string& identifier, const std::string& kind,
              const Fields& more) {
  Fields result = {
      {"MESSAGE", message}, {"PRIORITY", "6"}, {"SYSLOG_IDENTIFIER", identifier}, {"ZIRN_ENTRY", kind}};
  result.insert(result.end(), more.begin(), more.end());
  return result;
}

std::string words(const std::optional<RunEntry>& said) {
  if (!said) return "nothing";
  const auto number = [](std::optional<int> value) { return value ? std::to_string(*value) : "unknown"; };
  if (const auto* run = std::get_if<RunBegins>(&*said))
    return run->name + "|" + run->title + "|" + run->command;
  if (const auto* line = std::get_if<Line>(&*said)) return "line " + line->text;
  if (const auto* call = std::get_if<BoardCall>(&*said))
    return "calls " + call->command + ": " + number(call->status);
  if (const auto* cut = std::get_if<Cut>(&*said)) return "cut " + std::to_string(cut->lasts);
  if (const auto* end = std::get_if<StationEnds>(&*said)) {
    return "ends: " + number(end->status) + " by " + std::to_string(end->signal);
  }
  if (const auto* gap = std::get_if<Gap>(&*said)) return "gap: " + gap->text;
  if (const auto* timeout = std::get_if<Timeout>(&*said)) return "timeout: " + std::to_string(timeout->after);
  const auto& end = std::get<RunEnds>(*said);
  return "run ends: " + end.ppt_flag + "|" + end.judged;
}

struct Said {
  RunEntry entry;
  std::string words;
  Fields fields;
};

const std::vector<Said> kAll = {
    {RunBegins{"loss-20", "A fifth is lost", "TFTP -o 172.40.0.1"},
     "loss-20|A fifth is lost|TFTP -o 172.40.0.1",
     fields("the run begins: loss-20", "zirn-run", "run-begins",
            {{"ZIRN_NAME", "loss-20"},
             {"ZIRN_TITLE", "A fifth is lost"},
             {"ZIRN_COMMAND", "TFTP -o 172.40.0.1"}})},
    {RunBegins{}, "||", fields("the run begins", "zirn-run", "run-begins", {})},
    {Line{"Cmd received: a"}, "line Cmd received: a", fields("Cmd received: a", "TFTP", "line", {})},
    {Line{""}, "line ", fields("", "TFTP", "line", {})},
    {BoardCall{"envtool show mode", 1}, "calls envtool show mode: 1",
     fields("the board runs envtool show mode: status 1", "zirn-run", "board-call",
            {{"ZIRN_COMMAND", "envtool show mode"}, {"ZIRN_STATUS", "1"}})},
    {BoardCall{"envtool", std::nullopt}, "calls envtool: unknown",
     fields("the board runs envtool", "zirn-run", "board-call", {{"ZIRN_COMMAND", "envtool"}})},
    {Cut{2500000001}, "cut 2500000001",
     fields("the cable is out for 2500 ms", "zirn-run", "cut", {{"ZIRN_LASTS_NANOSECONDS", "2500000001"}})},
    {StationEnds{2, 0}, "ends: 2 by 0",
     fields("the station ends with status 2", "zirn-run", "station-ends", {{"ZIRN_STATUS", "2"}})},
    {StationEnds{std::nullopt, 13}, "ends: unknown by 13",
     fields("the station ends by signal 13", "zirn-run", "station-ends", {{"ZIRN_SIGNAL", "13"}})},
    {StationEnds{}, "ends: unknown by 0", fields("the station ends", "zirn-run", "station-ends", {})},
    {RunEnds{"failed", "as it was to go"}, "run ends: failed|as it was to go",
     fields("the run ends: as it was to go", "zirn-run", "run-ends",
            {{"ZIRN_PPT_FLAG", "failed"}, {"ZIRN_JUDGED", "as it was to go"}})},
    {RunEnds{}, "run ends: |", fields("the run ends", "zirn-run", "run-ends", {})},
    {Gap{"lan0 is back"}, "gap: lan0 is back", fields("lan0 is back", "zirn-run", "gap", {})},
    {Timeout{2500000001}, "timeout: 2500000001",
     fields("the run takes longer than 2500 ms: the station is asked to end", "zirn-run", "timeout",
            {{"ZIRN_AFTER_NANOSECONDS", "2500000001"}})},
};

TEST(RunEntry, IsAnEntryOfTheJournal) {
  for (const Said& said : kAll) {
    const Entry entry = entry_of(said.entry, kAt);
    EXPECT_EQ(entry.at, kAt);
    EXPECT_EQ(entry.number, 0U);
    EXPECT_EQ(entry.fields, said.fields);
  }
}

TEST(RunEntry, IsReadAsItWasWritten) {
  for (const Said& said : kAll) {
    EXPECT_EQ(said.entry.index(), said_by(entry_of(said.entry, kAt)).value().index());
    EXPECT_EQ(words(said_by(entry_of(said.entry, kAt))), said.words);
  }
}

std::string said(const Fields& fields) {
  return words(said_by(Entry{1, kAt, fields}));
}

TEST(RunEntry, NumbersThatAreNoneAreNotKnown) {
  EXPECT_EQ(said({{"ZIRN_ENTRY", "station-ends"}, {"ZIRN_STATUS", "2x"}, {"ZIRN_SIGNAL", ""}}),
            "ends: unknown by 0");
  EXPECT_EQ(said({{"ZIRN_ENTRY", "board-call"}, {"ZIRN_STATUS", "99999999999"}}), "calls : unknown");
  EXPECT_EQ(said({{"ZIRN_ENTRY", "cut"}, {"ZIRN_LASTS_NANOSECONDS", "long"}}), "cut 0");
}

TEST(RunEntry, OtherEntriesSayNothing) {
  EXPECT_EQ(said({}), "nothing");
  EXPECT_EQ(said({{"ZIRN_ENTRY", "later-kind"}, {"SYSLOG_IDENTIFIER", "TFTP"}}), "nothing");
  EXPECT_EQ(said({{"MESSAGE", "a"}, {"SYSLOG_IDENTIFIER", "kernel"}}), "nothing");
  EXPECT_EQ(said({{"MESSAGE", "a"}, {"_SYSTEMD_UNIT", "other.service"}, {"_TRANSPORT", "stdout"}}),
            "nothing");
  EXPECT_EQ(
      said({{"MESSAGE", "a"}, {"_SYSTEMD_UNIT", "zirn-test-station.service"}, {"_TRANSPORT", "journal"}}),
      "nothing");
}

TEST(RunEntry, TheStationsLinesAreThoseOfItsProgramAndOfWhatItStarted) {
  EXPECT_EQ(said({{"MESSAGE", "a line"}, {"SYSLOG_IDENTIFIER", "TFTP"}}), "line a line");
  EXPECT_EQ(
      said({{"MESSAGE", "a line"}, {"_SYSTEMD_UNIT", "zirn-test-station.service"}, {"_TRANSPORT", "stdout"}}),
      "line a line");
}

Fields exits(const std::string& code, const std::string& status, const std::string& command = "ExecStart") {
  return {{"MESSAGE_ID", "98e322203f7a4ed290d09fe03c09fe15"},
          {"UNIT", "zirn-test-station.service"},
          {"COMMAND", command},
          {"EXIT_CODE", code},
          {"EXIT_STATUS", status}};
}

TEST(RunEntry, SystemdSaysHowTheStationEnded) {
  EXPECT_EQ(said(exits("exited", "1")), "ends: 1 by 0");
  EXPECT_EQ(said(exits("killed", "9")), "ends: unknown by 9");
  EXPECT_EQ(said(exits("dumped", "6")), "ends: unknown by 6");
  EXPECT_EQ(said(exits("killed", "PIPE")), "ends: unknown by " + std::to_string(SIGPIPE));
  EXPECT_EQ(said(exits("dumped", "ABRT")), "ends: unknown by " + std::to_string(SIGABRT));
  EXPECT_EQ(said(exits("killed", "NOSUCH")), "ends: unknown by 0");
  EXPECT_EQ(said(exits("exited", "1", "")), "ends: 1 by 0");
}

TEST(RunEntry, OfAServiceThatEndedWellSystemdKeepsTheStatus) {
  EXPECT_EQ(said({{"MESSAGE_ID", "7ad2d189f7e94e70a38c781354912448"}, {"UNIT", "zirn-test-station.service"}}),
            "ends: unknown by 0");
}

TEST(RunEntry, OtherProcessesAndServicesAreNotTheStation) {
  EXPECT_EQ(said(exits("exited", "1", "ExecStopPost")), "nothing");
  EXPECT_EQ(said(exits("trapped", "1")), "nothing");
  Fields other = exits("exited", "1");
  other[1].second = "other.service";
  EXPECT_EQ(said(other), "nothing");
  other[1].second = "zirn-test-station.service";
  other[0].second = "39f53479d3a045ac8e11786248231fbf";
  EXPECT_EQ(said(other), "nothing");
}

}  // namespace
