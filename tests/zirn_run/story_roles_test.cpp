#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "story/story.h"
#include "zirn_run/made_run.h"

namespace {

using story::Reading;
using story::Role;
using tftp::rrq;

constexpr made::Endpoint kUnit{made::kUnit, 2000};
constexpr made::Endpoint kAsking{made::kStationAtPpt, 40000};
constexpr made::Endpoint kPpt{made::kPptServer, 69};

// Nobody: an address that no party has.
Role role_of(const Reading& reading, std::uint32_t address) {
  for (const story::Party& party : reading.parties) {
    if (std::count(party.addresses.begin(), party.addresses.end(), address) > 0) return party.role;
  }
  ADD_FAILURE() << frames::dotted(address) << " is nobody";
  return Role::kEveryone;
}

TEST(Roles, StationBoardAndEveryoneAreAlwaysThere) {
  MadeRun run;
  ASSERT_EQ(run.reading().parties.size(), 3U);
  EXPECT_EQ(run.reading().parties[story::kStation].role, Role::kStation);
  EXPECT_EQ(run.reading().parties[story::kBoard].role, Role::kBoard);
  EXPECT_EQ(run.reading().parties[story::kEveryone].role, Role::kEveryone);
}

TEST(Roles, StationBroadcastsTheBootScript) {
  MadeRun run;
  run.udp({made::kStation, 999}, {made::kBroadcast, 2222}, "ZIRN install boot script\r\n", true);
  EXPECT_EQ(role_of(run.reading(), made::kStation), Role::kStation);
  EXPECT_EQ(run.reading().message_port, 2222);
  EXPECT_EQ(run.reading().parties[story::kStation].mac, (frames::Mac{2, 0, 172, 40, 0, 1}));
}

TEST(Roles, StationIsAskedOnTheTftpPort) {
  MadeRun run;
  Exchange(&run, kUnit, made::kStation).asks(rrq("boot.img"));
  EXPECT_EQ(role_of(run.reading(), made::kStation), Role::kStation);
  EXPECT_EQ(role_of(run.reading(), made::kUnit), Role::kUnit);
}

TEST(Roles, StationAsksForVerdictsByItsOwnNames) {
  MadeRun run;
  run.udp(kAsking, kPpt, rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  EXPECT_EQ(role_of(run.reading(), made::kStationAtPpt), Role::kStation);
  EXPECT_EQ(role_of(run.reading(), made::kPptServer), Role::kPptServer);
}

TEST(Roles, StationHasAnAddressOnEitherNetwork) {
  MadeRun run;
  Exchange(&run, kUnit, made::kStation).asks(rrq("F_l_m_01MEMORY_PASSED"));
  run.udp(kAsking, kPpt, rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  EXPECT_EQ(run.reading().parties[story::kStation].addresses,
            (std::vector<std::uint32_t>{made::kStation, made::kStationAtPpt}));
}

// A datagram was relayed before anything showed who relays.
TEST(Roles, StationKeepsWhatItDidBeforeItWasKnown) {
  MadeRun run;
  run.udp(kAsking, {made::kPptServer, 12345}, "line 1 is up");
  EXPECT_EQ(role_of(run.reading(), made::kStationAtPpt), Role::kOther);
  run.udp(kAsking, kPpt, rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  EXPECT_EQ(run.reading().steps[0].source, story::kStation);
  EXPECT_EQ(role_of(run.reading(), made::kStationAtPpt), Role::kStation);
}

TEST(Roles, PptServerIsWhomTheStationConnectsTo) {
  MadeRun run;
  run.broadcasts_boot_script();
  run.tcp({made::kStation, 40001}, {made::kPptServer, 12345}, made::kSyn, 1);
  EXPECT_EQ(role_of(run.reading(), made::kPptServer), Role::kPptServer);
}

TEST(Roles, CommandLineSaysWhoServesAndWhoIsAsked) {
  MadeRun run;
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1 --serverip=172.30.0.9 -n7069 -p 7070 -m=7071"});
  run.udp({made::kUnit, 5}, {made::kStation, 7069}, "x");
  EXPECT_EQ(role_of(run.reading(), made::kStation), Role::kStation);
  EXPECT_EQ(role_of(run.reading(), made::kUnit), Role::kUnit);
  EXPECT_EQ(role_of(run.reading(), 0xac1e0009), Role::kPptServer);
  EXPECT_EQ(run.reading().tftp_port, 7069);
  EXPECT_EQ(run.reading().ppt_port, 7070);
  EXPECT_EQ(run.reading().message_port, 7071);
}

TEST(Roles, CommandLineHasThePptServersAddressAsADefault) {
  MadeRun run;
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"});
  run.udp({made::kStationAtPpt, 40001}, {made::kPptServer, 12345}, "relayed");
  EXPECT_EQ(role_of(run.reading(), made::kPptServer), Role::kPptServer);
  EXPECT_EQ(role_of(run.reading(), made::kStationAtPpt), Role::kStation);
}

TEST(Roles, StationsFirstLineSaysIt) {
  MadeRun run;
  run.line("Starting TFTP server on 172.40.0.1:7069 PPT Server: 172.30.0.9");
  EXPECT_EQ(role_of(run.reading(), made::kStation), Role::kStation);
  EXPECT_EQ(role_of(run.reading(), 0xac1e0009), Role::kPptServer);
  EXPECT_EQ(run.reading().tftp_port, 7069);
}

TEST(Roles, NonsenseOnTheCommandLineIsNobody) {
  for (const char* command : {"TFTP -o", "TFTP -o -o", "TFTP -o 300.1.1.1 -s nobody", "-", "TFTP -n"}) {
    MadeRun run;
    run.says(record::RunBegins{"", "", command});
    EXPECT_TRUE(run.reading().parties[story::kStation].addresses.empty()) << command;
  }
}

TEST(Roles, WhatIsGivenCounts) {
  story::Given given;
  given.station = {0x0a000001};
  given.ppt_server = 0x0a000002;
  given.tftp_port = 70;
  MadeRun run(given);
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1 -s 172.30.0.9 -n 71"});
  run.broadcasts_boot_script();
  EXPECT_EQ(run.reading().parties[story::kStation].addresses, (std::vector<std::uint32_t>{0x0a000001}));
  EXPECT_EQ(role_of(run.reading(), made::kStation), Role::kOther);
  EXPECT_EQ(role_of(run.reading(), 0x0a000002), Role::kPptServer);
  EXPECT_EQ(run.reading().tftp_port, 70);
}

TEST(Roles, SecondStationIsNone) {
  MadeRun run;
  run.broadcasts_boot_script();
  run.udp({0xac280011, 12345}, {made::kBroadcast, 12345}, "ZIRN install boot script\r\n...", true);
  Exchange(&run, kUnit, made::kStation).asks(rrq("boot.img"));
  Exchange(&run, {made::kUnitB, 5}, 0xac280011).asks(rrq("boot.img"));
  EXPECT_EQ(run.reading().parties[story::kStation].addresses, (std::vector<std::uint32_t>{made::kStation}));
  EXPECT_EQ(role_of(run.reading(), 0xac280011), Role::kOther);
  EXPECT_EQ(role_of(run.reading(), made::kUnitB), Role::kOther);
  EXPECT_EQ(run.reading().boot_script->count, 1U);
}

TEST(Roles, SeveralUnitsAreSeveralParties) {
  MadeRun run;
  Exchange(&run, kUnit, made::kStation).asks(rrq("boot.img"));
  Exchange(&run, {made::kUnitB, 5}, made::kStation).asks(rrq("boot.img"));
  run.tcp({0xac280004, 3000}, {made::kStation, 12345}, made::kSyn, 1);
  run.udp({0xac280005, 3000}, {made::kStation, 12345}, "hello");
  for (const std::uint32_t address : {made::kUnit, made::kUnitB, 0xac280004U, 0xac280005U}) {
    EXPECT_EQ(role_of(run.reading(), address), Role::kUnit);
  }
}

TEST(Roles, PartiesBeyondManyAreEveryone) {
  MadeRun run;
  for (std::uint32_t i = 0; i < 1000; ++i) run.udp({0x0a000000 + i, 5}, {made::kStation, 9}, "x");
  EXPECT_EQ(run.reading().parties.size(), story::Book::kMaxParties);
  EXPECT_EQ(run.reading().steps.back().source, story::kEveryone);
}

}  // namespace
