#ifndef SUPPORT_AT_COMMANDS_H
#define SUPPORT_AT_COMMANDS_H

#include <memory>
#include <optional>
#include <string>

#include "support/descriptors.h"
#include "support/station.h"
#include "support/tcp_peer.h"

// A station behind its first verdict: connected to the PPT server, and its command receiver answers.
struct AtCommands {
  AtCommands() {
    station.network.at_ppt_server(
        [&] { listener = std::make_unique<TcpAddress>(TestNetwork::kPptServer, station::kMessagePort); });
    ppt.emplace(station.ppt_server());
    station.boots();
    takes_verdict("F_l_m_01STEP3");
    EXPECT_TRUE(station.daemon->prints(kReceiverReady));
    station.receiver_answers();
  }

  // One that is not final, and that the PPT server answers at once.
  void takes_verdict(const std::string& name) {
    station.unit_reads_verdict(name);
    ppt->expects(tftp::rrq(std::string(name).insert(8, "CPU_2_")));
    ppt->sends(tftp::data(1, ""));
    ppt->expects(tftp::ack(1));
  }
  // The unit's connection to the command receiver.
  TcpPeer unit() const {
    std::optional<TcpPeer> peer;
    station.network.at_unit([&] { peer.emplace(TestNetwork::kStation, station::kMessagePort); });
    return std::move(*peer);
  }

  static constexpr char kReceiverReady[] = "Message receiver initialized. IP: 172.30.0.254 Port=12345\n";
  static std::string lines() { return std::string("Cmd received: F_l_m_01STEP3\n") + kReceiverReady; }

  station::InNetwork station;
  std::unique_ptr<TcpAddress> listener;
  std::optional<UdpPeer> ppt;
};

#endif
