#ifndef EXHAUSTIVE_CLIENT_H
#define EXHAUSTIVE_CLIENT_H

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "exhaustive/client_model.h"
#include "exhaustive/events.h"
#include "fuzz/script.h"
#include "tftp_client/tftp_client.h"

constexpr int kStrayPort = 4242;

// What the client and the system show of a transfer that has played the whole script.
template <typename Transfer>
Seen seen_of(const std::string& script, TFTPClient& client, Script& played, Transfer transfer) {
  Seen seen;
  const Printed printed;
  try {
    seen.result = transfer(client);
  } catch (const EndOfScript&) {
    played.waits.pop_back();  // the wait that nothing is played for
  }
  if (!played.is_over()) found("the transfer goes on", "the whole script is played", script);
  seen.printed = printed.text();
  seen.sent = played.sent;
  seen.destinations = played.destinations;
  seen.waits = played.waits;
  seen.timeout = client.timeout;
  seen.block_size = client.block_size;
  seen.server_port = ntohs(client.server_address.sin_port);
  TFTP_Packet& packet = client.received_packet;
  seen.received.assign(reinterpret_cast<char*>(packet.getData(0)),
                       static_cast<std::size_t>(packet.receivableSize()));
  seen.received_size = packet.size;
  return seen;
}

inline std::string script_of(const std::vector<Event>& events) {
  std::string script;
  for (const Event& event : events) script += script_of(event);
  return script;
}

inline std::string names_of(const std::vector<Event>& events) {
  std::string names;
  for (const Event& event : events) names += "; " + event.name;
  return names;
}

#endif
