#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "recorder/filter.h"
#include "recorder/station.h"

// How many bytes the recorder's program keeps of frames of every kind.
namespace {

using recorder::Filter;
using recorder::program_of;
using Bytes = std::string;

constexpr std::size_t kAll = 262144;
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;

Bytes u8(unsigned number) {
  return Bytes(1, static_cast<char>(number));
}

Bytes u16(unsigned number) {
  return u8(number >> 8U) + u8(number & 0xffU);
}

Bytes address(const std::string& text) {
  Bytes bytes;
  std::size_t begin = 0;
  for (int i = 0; i < 4; ++i) {
    bytes += u8(static_cast<unsigned>(std::stoul(text.substr(begin))));
    begin = text.find('.', begin) + 1;
  }
  return bytes;
}

struct Ip {
  std::uint8_t protocol = kUdp;
  std::string from = "172.40.0.1";
  std::string to = "172.40.0.2";
  std::size_t option_bytes = 0;
  unsigned fragment = 0;  // flags and offset
};

Bytes ip(const Ip& header, const Bytes& contents) {
  const auto words = static_cast<unsigned>(5 + header.option_bytes / 4);
  return u8(0x40U | words) + u8(0) + u16(static_cast<unsigned>(4 * words + contents.size())) + u16(7) +
         u16(header.fragment) + u8(64) + u8(header.protocol) + u16(0) + address(header.from) +
         address(header.to) + Bytes(header.option_bytes, '\1') + contents;
}

Bytes udp(unsigned from, unsigned to, const Bytes& contents) {
  return u16(from) + u16(to) + u16(static_cast<unsigned>(8 + contents.size())) + u16(0) + contents;
}

Bytes data_block(std::size_t size) {
  return u16(3) + u16(1) + Bytes(size, 'x');
}

struct CloseLink {
  void operator()(pcap_t* link) const { pcap_close(link); }
};
using Dead = std::unique_ptr<pcap_t, CloseLink>;

Dead link_of(int kind) {
  return Dead(pcap_open_dead(kind, kAll));
}

// A link of a kind, and what stands before the IP header there.
struct Kind {
  int kind;
  Bytes before;
  std::size_t counted;  // of these bytes, by the kernel
};

const Kind kEthernet = {DLT_EN10MB, Bytes(12, '\2') + u16(0x0800), 14};
const Kind kCooked = {DLT_LINUX_SLL, u16(0) + u16(1) + u16(6) + Bytes(8, '\2') + u16(0x0800), 0};
const Kind kCooked2 = {DLT_LINUX_SLL2, u16(0x0800) + u16(0) + Bytes(3, '\0') + u8(2) + Bytes(12, '\0'), 0};
const Kind kRaw = {DLT_RAW, "", 0};

std::size_t kept_of(const Filter& filter, int kind, const Bytes& frame) {
  const Dead link = link_of(kind);
  const std::vector<bpf_insn> program = program_of(filter, link.get());
  EXPECT_NE(bpf_validate(program.data(), static_cast<int>(program.size())), 0);
  return bpf_filter(program.data(), reinterpret_cast<const u_char*>(frame.data()),
                    static_cast<u_int>(frame.size()), static_cast<u_int>(frame.size()));
}

Filter of_station() {
  const recorder::Station station = station::station_of({"-o", "172.40.0.1"});
  return {recorder::expression_for(station, {}), false, recorder::ports_without_files(station)};
}

class RecorderFilter : public testing::TestWithParam<Kind> {
 protected:
  static std::size_t kept(const Bytes& packet, const Filter& filter = of_station()) {
    return kept_of(filter, GetParam().kind, GetParam().before + packet);
  }
  static std::size_t counted() { return GetParam().counted; }
};

INSTANTIATE_TEST_SUITE_P(Kinds, RecorderFilter, testing::Values(kEthernet, kCooked, kCooked2, kRaw),
                         [](const auto& kind) { return "Link" + std::to_string(kind.param.kind); });

TEST_P(RecorderFilter, CutsADataBlockTo64BytesOfItsDatagram) {
  EXPECT_EQ(kept(ip({}, udp(33133, 1024, data_block(1428)))), counted() + 20 + 8 + 64);
  EXPECT_EQ(kept(ip({kUdp, "172.40.0.2", "172.40.0.1"}, udp(1024, 33133, data_block(512)))),
            counted() + 20 + 8 + 64);
}

TEST_P(RecorderFilter, KeepsIpOptionsBesides) {
  EXPECT_EQ(kept(ip({kUdp, "172.40.0.1", "172.40.0.2", 40}, udp(33133, 1024, data_block(1428)))),
            counted() + 60 + 8 + 64);
}

TEST_P(RecorderFilter, CutsFragmentsOfADataBlock) {
  constexpr unsigned kMore = 0x2000;
  EXPECT_EQ(kept(ip({kUdp, "172.40.0.1", "172.40.0.2", 0, kMore}, udp(33133, 1024, data_block(1468)))),
            counted() + 20 + 8 + 64);
  EXPECT_EQ(kept(ip({kUdp, "172.40.0.1", "172.40.0.2", 0, kMore | 185}, Bytes(1480, 'x'))),
            counted() + 20 + 64);
  EXPECT_EQ(kept(ip({kUdp, "172.40.0.1", "172.40.0.2", 8, 185}, Bytes(100, 'x'))), counted() + 28 + 64);
}

TEST_P(RecorderFilter, KeepsAllElseOfTheStationWhole) {
  const Bytes text(1400, 'x');
  for (const unsigned opcode : {0U, 1U, 2U, 4U, 5U, 6U, 7U, 0x0303U})
    EXPECT_EQ(kept(ip({}, udp(33133, 1024, u16(opcode) + text))), kAll) << opcode;
  EXPECT_EQ(kept(ip({}, udp(1024, 69, data_block(1000)))), kAll);
  EXPECT_EQ(kept(ip({}, udp(12345, 1024, data_block(1000)))), kAll);
  EXPECT_EQ(kept(ip({kTcp}, u16(1024) + u16(12345) + u16(3) + text)), kAll);
  EXPECT_EQ(kept(ip({1}, text)), kAll);
  EXPECT_EQ(kept(ip({}, udp(33133, 1024, ""))), kAll);
}

TEST_P(RecorderFilter, TakesTheBootScriptFromWhateverAddress) {
  EXPECT_EQ(kept(ip({kUdp, "192.168.7.7", "172.40.0.255"}, udp(1024, 12345, "ZIRN install"))), kAll);
}

TEST_P(RecorderFilter, TakesNothingThatIsNotTheStations) {
  EXPECT_EQ(kept(ip({kUdp, "172.40.0.3", "172.40.0.2"}, udp(69, 1024, data_block(512)))), 0U);
  EXPECT_EQ(kept(ip({kTcp}, u16(22) + u16(1024) + Bytes(100, 'x'))), 0U);
  EXPECT_EQ(kept(ip({47}, Bytes(100, 'x'))), 0U);
  EXPECT_EQ(kept(Bytes(40, '\x60')), 0U);
  EXPECT_EQ(kept(""), 0U);
}

TEST_P(RecorderFilter, KeepsAFrameWholeThatEndsWithinItsHeaders) {
  const Filter every = {"", false, {}};
  for (const std::size_t option_bytes : {0U, 40U}) {
    const Bytes data =
        ip({kUdp, "172.40.0.1", "172.40.0.2", option_bytes}, udp(33133, 1024, data_block(512)));
    const Bytes part = ip({kUdp, "172.40.0.1", "172.40.0.2", option_bytes, 185}, Bytes(512, 'x'));
    for (std::size_t size = 0; size <= 28 + option_bytes; ++size) {
      EXPECT_GE(kept(data.substr(0, size), every), counted() + size) << size;
      EXPECT_GE(kept(part.substr(0, size), every), counted() + size) << size;
    }
  }
}

TEST_P(RecorderFilter, KeepsAShortDataBlockWhole) {
  EXPECT_EQ(kept(ip({}, udp(33133, 1024, data_block(0)))), kAll);
  EXPECT_GE(kept(ip({}, udp(33133, 1024, data_block(60)))), counted() + 92);
}

TEST_P(RecorderFilter, KeepsFileContentsWhereAllIsWanted) {
  Filter filter = of_station();
  filter.is_whole = true;
  EXPECT_EQ(kept(ip({}, udp(33133, 1024, data_block(1428))), filter), kAll);
  EXPECT_EQ(kept(ip({kUdp, "172.40.0.3", "172.40.0.2"}, udp(69, 1024, data_block(512))), filter), 0U);
}

TEST_P(RecorderFilter, TakesAnotherExpressionInstead) {
  const Filter filter = {"udp port 7", false, {}};
  EXPECT_EQ(kept(ip({kUdp, "10.0.0.1", "10.0.0.2"}, udp(7, 7, data_block(512))), filter), counted() + 92);
  EXPECT_EQ(kept(ip({}, udp(8, 8, data_block(512))), filter), 0U);
}

TEST(RecorderFilterOnEthernet, TakesNoArpAndNoIpv6) {
  EXPECT_EQ(kept_of(of_station(), DLT_EN10MB, Bytes(12, '\2') + u16(0x0806) + Bytes(46, '\0')), 0U);
  EXPECT_EQ(
      kept_of({"", false, {}}, DLT_EN10MB, Bytes(12, '\2') + u16(0x86dd) + u8(0x60) + Bytes(1000, '\3')),
      kAll);
}

TEST(RecorderFilterOnAnyOtherLink, KeepsFramesWhole) {
  EXPECT_EQ(
      kept_of({"", false, {}}, DLT_NULL, Bytes("\2\0\0\0", 4) + ip({}, udp(33133, 1024, data_block(512)))),
      kAll);
}

TEST(RecorderFilterExpression, IsRefusedWithTheReason) {
  const Dead link = link_of(DLT_EN10MB);
  try {
    program_of({"udp port http or or", false, {}}, link.get());
    ADD_FAILURE() << "taken";
  } catch (const recorder::WrongFilter& error) {
    EXPECT_EQ(std::string(error.what()), pcap_geterr(link.get()));
    EXPECT_FALSE(std::string(error.what()).empty());
  }
}

}  // namespace
