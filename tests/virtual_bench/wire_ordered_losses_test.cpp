// Which frames the wire loses when it is told what they carry.
#include <gtest/gtest.h>

#include <string>

#include "support/tftp_bytes.h"
#include "wire/ordered_losses.h"
#include "zirn_run/made_run.h"

namespace {

using made::kStation;
using made::kUnit;
using What = Order::What;

class OrderedFrames : public testing::Test {
 protected:
  void order(What what, std::uint64_t number, const std::string& name, int times = 1) {
    Order order{what, static_cast<double>(number), 0, times, ""};
    name.copy(order.name, Order::kNameBytes - 1);
    losses.add(order);
  }
  // Whether it is lost.
  bool unit(const std::string& payload, bool is_lost_already = false) {
    return enters({kUnit, unit_port}, {kStation, payload[1] == 1 ? std::uint16_t{69} : station_port}, payload,
                  is_lost_already);
  }
  bool station(const std::string& payload) {
    return enters({kStation, station_port}, {kUnit, unit_port}, payload, false);
  }
  bool enters(made::Endpoint from, made::Endpoint to, const std::string& payload, bool is_lost_already) {
    return losses.takes(made::ethernet(made::ip(from.address, to.address, 17, made::udp(from, to, payload))),
                        is_lost_already);
  }
  // How many of so many blocks, each sent once and acknowledged, are lost in the read of the file.
  std::string lost_in_read(const std::string& name, std::uint64_t blocks) {
    std::string lost;
    unit(tftp::rrq(name));
    for (std::uint64_t block = 1; block <= blocks; ++block) {
      const auto number = static_cast<int>(block & 0xffffU);
      if (station(tftp::data(number, "x"))) lost += " block " + std::to_string(block);
      if (unit(tftp::ack(number))) lost += " ACK " + std::to_string(block);
    }
    return lost;
  }

  OrderedLosses losses;
  std::uint16_t unit_port = 2000;
  std::uint16_t station_port = 40000;
};

TEST_F(OrderedFrames, AreOneBlockAndOneAckOfTheFileThatIsNamed) {
  order(What::kLoseBlock, 3, "kernel.img");
  order(What::kLoseAck, 5, "kernel.img");
  EXPECT_EQ(lost_in_read("rootfs.img", 10), "");
  EXPECT_EQ(lost_in_read("kernel.img", 10), " block 3 ACK 5");
  EXPECT_EQ(lost_in_read("kernel.img", 10), "");
}

TEST_F(OrderedFrames, AreCountedOverTheWrapOfTheirNumbers) {
  order(What::kLoseBlock, 65536 + 3, "kernel.img");
  order(What::kLoseAck, 131072, "kernel.img");
  EXPECT_EQ(lost_in_read("kernel.img", 131080), " block 65539 ACK 131072");
}

TEST_F(OrderedFrames, AreSoManyCopies) {
  order(What::kLoseBlock, 1, "a", 2);
  unit(tftp::rrq("a"));
  EXPECT_TRUE(station(tftp::data(1, "x")));
  EXPECT_TRUE(station(tftp::data(1, "x")));
  EXPECT_FALSE(station(tftp::data(1, "x")));
}

TEST_F(OrderedFrames, AreTheFirstAnswerWhateverItIsAndItsRepetitions) {
  const std::string answers[] = {tftp::oack({{"blksize", "1024"}}), tftp::data(1, ""),
                                 tftp::error(1, "File not found")};
  for (const std::string& answer : answers) {
    order(What::kLoseAnswer, 0, "a", 2);
    ++unit_port;
    unit(tftp::rrq("a"));
    EXPECT_TRUE(station(answer));
    EXPECT_FALSE(station(tftp::data(2, "x")));
    EXPECT_TRUE(station(answer));
    EXPECT_FALSE(station(answer));
  }
}

TEST_F(OrderedFrames, AreNotTheFirstBlockAfterAnAnswerToOptions) {
  order(What::kLoseAnswer, 0, "a", 9);
  unit(tftp::rrq("a"));
  EXPECT_TRUE(station(tftp::oack({{"blksize", "1024"}})));
  EXPECT_FALSE(unit(tftp::ack(0)));
  EXPECT_FALSE(station(tftp::data(1, "x")));
}

TEST_F(OrderedFrames, AreTheAckOfTheOptions) {
  order(What::kLoseAck, 0, "a");
  unit(tftp::rrq("a"));
  station(tftp::oack({{"blksize", "1024"}}));
  EXPECT_TRUE(unit(tftp::ack(0)));
  EXPECT_FALSE(unit(tftp::ack(0)));
}

TEST_F(OrderedFrames, AreTheRequestItself) {
  order(What::kLoseRequest, 0, "a", 2);
  EXPECT_FALSE(unit(tftp::rrq("b")));
  EXPECT_TRUE(unit(tftp::rrq("a")));
  EXPECT_TRUE(unit(tftp::rrq("a")));
  EXPECT_FALSE(unit(tftp::rrq("a")));
}

TEST_F(OrderedFrames, AreNotThoseThatAreLostAnyway) {
  order(What::kLoseRequest, 0, "a");
  EXPECT_FALSE(unit(tftp::rrq("a"), true));
  EXPECT_TRUE(unit(tftp::rrq("a")));
}

TEST_F(OrderedFrames, AreTheFirstFragmentOfWhatIsInSeveral) {
  order(What::kLoseBlock, 1, "a");
  unit(tftp::rrq("a"));
  const made::Endpoint from{kStation, station_port}, to{kUnit, unit_port};
  const std::string datagram = made::udp(from, to, tftp::data(1, std::string(2000, 'x')));
  const auto fragment = [&](std::size_t at, unsigned flags) {
    return made::ethernet(
        made::ip(from.address, to.address, 17, datagram.substr(at, 1480), 7, flags | unsigned(at / 8)));
  };
  EXPECT_TRUE(losses.takes(fragment(0, 0x2000), false));
  EXPECT_FALSE(losses.takes(fragment(1480, 0), false));
}

TEST_F(OrderedFrames, AreNoneOnceTheWireIsWhole) {
  order(What::kLoseRequest, 0, "a");
  losses.clear();
  EXPECT_FALSE(unit(tftp::rrq("a")));
}

TEST_F(OrderedFrames, AreNeverThoseThatCarryNothingOfTheKind) {
  order(What::kLoseAck, 0, "a");
  unit(tftp::rrq("a"));
  for (const std::string& frame : {std::string(), std::string("short"), std::string(60, '\xff')})
    EXPECT_FALSE(losses.takes(frame, false));
  EXPECT_FALSE(enters({made::kUnitB, unit_port}, {kStation, station_port}, tftp::ack(0), false));
}

}  // namespace
