#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "frames/decoder.h"
#include "record/run_entry.h"
#include "zirn_run/made_run.h"

namespace {

using frames::Decoder;
using frames::Packet;
using made::big;
using made::ethernet;

constexpr made::Endpoint kUnit{made::kUnit, 2000};
constexpr made::Endpoint kTftp{made::kStation, 69};

// A packet whose payload stays.
struct Found {
  Packet packet;
  std::string payload;
};

class Frames : public testing::Test {
 protected:
  void take(const std::string& bytes, std::uint16_t link_type = record::kEthernet,
            std::vector<std::string> comments = {}) {
    take_cut(bytes, bytes.size(), link_type, std::move(comments));
  }
  void take_cut(const std::string& bytes, std::size_t kept, std::uint16_t link_type = record::kEthernet,
                std::vector<std::string> comments = {}) {
    record::Frame frame;
    frame.number = ++number;
    frame.link_type = link_type;
    frame.at = now += 1000;
    frame.bytes = std::string_view(bytes).substr(0, kept);
    frame.size = static_cast<std::uint32_t>(bytes.size());
    frame.comments = std::move(comments);
    decoder.take(frame);
  }
  std::string datagram(const std::string& payload) {
    return made::ip(kUnit.address, kTftp.address, 17, made::udp(kUnit, kTftp, payload));
  }
  std::vector<std::string> fragments(const std::string& payload, unsigned id = 7, std::size_t most = 1480) {
    std::vector<std::string> frames;
    for (const std::string& packet : made::fragments(kUnit, kTftp, payload, id, most))
      frames.push_back(ethernet(packet));
    return frames;
  }

  std::vector<Found> found;
  Decoder decoder{[this](const Packet& packet) { found.push_back({packet, std::string(packet.payload)}); }};
  std::uint64_t number = 0;
  record::Nanoseconds now = 0;
};

TEST_F(Frames, FindUdpBehindEthernet) {
  take(ethernet(datagram("hello")));
  ASSERT_EQ(found.size(), 1U);
  const Packet& packet = found[0].packet;
  EXPECT_EQ(packet.protocol, Packet::Protocol::kUdp);
  EXPECT_EQ(packet.source, kUnit);
  EXPECT_EQ(packet.destination, kTftp);
  EXPECT_EQ(found[0].payload, "hello");
  EXPECT_EQ(packet.payload_size, 5U);
  EXPECT_EQ(packet.frames.first, 1U);
  EXPECT_EQ(packet.frames.count, 1U);
  EXPECT_EQ(packet.source_mac, (frames::Mac{2, 0, 172, 40, 0, 2}));
  EXPECT_FALSE(packet.is_broadcast);
  EXPECT_TRUE(packet.is_whole);
}

TEST_F(Frames, PassOverVlanTags) {
  const std::string plain = ethernet(datagram("hello"));
  take(plain.substr(0, 12) + big(0x88a80001, 4) + big(0x81000002, 4) + plain.substr(12));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].payload, "hello");
}

TEST_F(Frames, FindUdpBehindBothCookedHeaders) {
  const std::string mac = big(0x0200ac280002, 6) + big(0, 2);
  take(big(1, 2) + big(1, 2) + big(6, 2) + mac + big(0x0800, 2) + datagram("one"), record::kLinuxCooked);
  take(big(0x0800, 2) + big(0, 2) + big(3, 4) + big(1, 2) + big(0, 1) + big(6, 1) + mac + datagram("two"),
       record::kLinuxCooked2);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].payload, "one");
  EXPECT_TRUE(found[0].packet.is_broadcast);
  EXPECT_EQ(found[1].payload, "two");
  EXPECT_FALSE(found[1].packet.is_broadcast);
  for (const Found& one : found) EXPECT_EQ(one.packet.source_mac, (frames::Mac{2, 0, 172, 40, 0, 2}));
}

TEST_F(Frames, LeaveOutOtherLinksAndProtocols) {
  take(datagram("raw IP"), 101);
  std::string ipv6 = ethernet(datagram("x"));
  ipv6[12] = '\x86';
  take(ipv6);
  take(ethernet(made::ip(kUnit.address, kTftp.address, 89, "no such protocol")));
  EXPECT_TRUE(found.empty());
}

TEST_F(Frames, LeaveOutThePaddingOfShortFrames) {
  take(ethernet(datagram("hi")) + std::string(16, '\0'));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].payload, "hi");
}

TEST_F(Frames, KeepTheSizeOfWhatWasCut) {
  take_cut(ethernet(datagram(std::string(1400, 'x'))), 64);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].packet.payload_size, 1400U);
  EXPECT_EQ(found[0].payload.size(), 64U - 14 - 20 - 8);
}

TEST_F(Frames, FindTcpWithItsFlags) {
  take(ethernet(made::ip(kUnit.address, kTftp.address, 6,
                         made::tcp(kUnit, kTftp, made::kSyn | made::kAck, 77, "text"))));
  ASSERT_EQ(found.size(), 1U);
  const Packet& packet = found[0].packet;
  EXPECT_EQ(packet.protocol, Packet::Protocol::kTcp);
  EXPECT_TRUE(packet.syn && packet.ack && !packet.fin && !packet.rst);
  EXPECT_EQ(packet.sequence, 77U);
  EXPECT_EQ(found[0].payload, "text");
}

TEST_F(Frames, FindClosedPortsWithWhatCameToThem) {
  take(ethernet(made::ip(kTftp.address, kUnit.address, 1, made::port_unreachable(kUnit, kTftp))));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].packet.protocol, Packet::Protocol::kPortUnreachable);
  EXPECT_EQ(found[0].packet.source.address, made::kStation);
  EXPECT_EQ(found[0].packet.quoted_source, kUnit);
  EXPECT_EQ(found[0].packet.quoted_destination, kTftp);
}

TEST_F(Frames, TakeFatesFromComments) {
  take(ethernet(datagram("1")), record::kEthernet, {record::kLostByCut});
  take(ethernet(datagram("2")), record::kEthernet, {"of somebody's own", record::kDuplicated});
  take(ethernet(datagram("3")), record::kEthernet, {record::kSwapped});
  ASSERT_EQ(found.size(), 3U);
  EXPECT_TRUE(found[0].packet.fate.lost && !found[0].packet.fate.duplicated);
  EXPECT_TRUE(found[1].packet.fate.duplicated && !found[1].packet.fate.lost);
  EXPECT_TRUE(found[2].packet.fate.swapped);
}

TEST_F(Frames, PutFragmentsTogether) {
  const std::string block = tftp::data(1, std::string(32768, 'b'));
  for (const std::string& frame : fragments(block)) take(frame);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].payload, block);
  EXPECT_EQ(found[0].packet.payload_size, block.size());
  EXPECT_EQ(found[0].packet.frames.first, 1U);
  EXPECT_EQ(found[0].packet.frames.last, 23U);
  EXPECT_EQ(found[0].packet.frames.count, 23U);
  EXPECT_EQ(found[0].packet.at, 1000);
  EXPECT_EQ(found[0].packet.until, 23000);
}

TEST_F(Frames, PutFragmentsTogetherInAnyOrderAndDoubled) {
  std::string block = tftp::data(1, "");
  for (int i = 0; i < 8000; ++i) block += static_cast<char>(i * 31);
  std::vector<std::string> frames = fragments(block);
  frames.push_back(frames[1]);
  frames.erase(frames.begin() + 3);
  frames.push_back(fragments(block)[3]);
  std::reverse(frames.begin(), frames.end() - 1);
  for (const std::string& frame : frames) take(frame);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].payload, block);
}

TEST_F(Frames, TellOfFragmentsThatWereCutAsFarAsTheyAreKept) {
  const std::string block = tftp::data(1, std::string(32768, 'b'));
  for (const std::string& frame : fragments(block)) take_cut(frame, 64);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].packet.payload_size, block.size());
  EXPECT_EQ(found[0].payload, block.substr(0, 64 - 14 - 20 - 8));
}

TEST_F(Frames, LoseADatagramWithOneOfItsFragments) {
  std::vector<std::string> frames = fragments(std::string(4000, 'b'));
  take(frames[0]);
  take(frames[1], record::kEthernet, {record::kLostByChance});
  take(frames[2]);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_TRUE(found[0].packet.fate.lost);
}

TEST_F(Frames, HandOverWhatStaysUnfinished) {
  const std::string block = tftp::data(1, std::string(32768, 'b'));
  const std::vector<std::string> frames = fragments(block);
  for (std::size_t i = 0; i < frames.size(); ++i) {
    if (i != 5) take(frames[i]);
  }
  EXPECT_TRUE(found.empty());
  now += Decoder::kPatience;
  take(ethernet(datagram("next")));
  ASSERT_EQ(found.size(), 2U);
  EXPECT_FALSE(found[0].packet.is_whole);
  EXPECT_EQ(found[0].packet.payload_size, block.size());
  EXPECT_EQ(found[0].packet.frames.count, 22U);
  EXPECT_EQ(found[1].payload, "next");
}

TEST_F(Frames, HandOverWhatIsUnfinishedAtTheEnd) {
  take(fragments(std::string(3000, 'b'))[0]);
  take(fragments(std::string(3000, 'c'), 8)[1]);  // without a beginning
  decoder.finish();
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].packet.payload_size, 3000U);
}

TEST_F(Frames, DropTheOldestOfTooManyUnfinishedDatagrams) {
  for (unsigned id = 0; id < Decoder::kMaxUnfinished + 10; ++id) {
    take(fragments(std::string(3000, 'b'), id)[0]);
  }
  ASSERT_EQ(found.size(), 10U);
  EXPECT_EQ(found[0].packet.frames.first, 1U);
}

TEST_F(Frames, DropTheOldestOfTooManyUnfinishedBytes) {
  unsigned id = 0;
  while (found.empty() && id < Decoder::kMaxUnfinished) {
    std::vector<std::string> frames = fragments(std::string(65000, 'b'), ++id, 32768);
    frames.pop_back();
    for (const std::string& frame : frames) take(frame);
  }
  // One more frame is looked at before the bytes are.
  EXPECT_GE(id * 32768, Decoder::kMaxUnfinishedBytes);
  EXPECT_FALSE(found.empty() && id * 32768 > Decoder::kMaxUnfinishedBytes + 65536);
}

// Fuzzing goes further; this shows at every build that nothing is read outside.
TEST_F(Frames, EndWithinWhatIsKeptWhereverTheyAreCut) {
  std::vector<std::string> samples = fragments(std::string(2000, 'b'));
  samples.push_back(ethernet(datagram("x")));
  samples.push_back(ethernet(made::ip(1, 2, 6, made::tcp(kUnit, kTftp, made::kSyn, 1, "text"))));
  samples.push_back(ethernet(made::ip(1, 2, 1, made::port_unreachable(kUnit, kTftp))));
  std::mt19937 chance(1);
  for (const std::string& sample : samples) {
    for (std::size_t kept = 0; kept <= sample.size(); ++kept) {
      const std::string exact = sample.substr(0, kept);
      const std::vector<char> bytes(exact.begin(), exact.end());  // so that one byte further is outside
      record::Frame frame;
      frame.link_type = std::array<std::uint16_t, 3>{1, 113, 276}[kept % 3];
      frame.bytes = {bytes.data(), bytes.size()};
      frame.at = static_cast<record::Nanoseconds>(chance());
      decoder.take(frame);
    }
  }
  decoder.finish();
  for (const Found& one : found) EXPECT_LE(one.payload.size(), one.packet.payload_size);
}

TEST(Addresses, AreDottedQuads) {
  EXPECT_EQ(frames::dotted(0xac280001), "172.40.0.1");
  EXPECT_EQ(frames::address_in("172.40.0.1"), 0xac280001U);
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.4 ", "a.b.c.d", "1..2.3"}) {
    EXPECT_FALSE(frames::address_in(text)) << text;
  }
}

}  // namespace
