#include <algorithm>
#include <cstdint>
#include <string>

#include "fuzz/confined_files.h"
#include "fuzz/script.h"
#include "fuzz/transfer_client.h"

// One request: the whole input is the datagram. Nobody else says anything.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string datagram(reinterpret_cast<const char*>(bytes),
                             std::min<std::size_t>(size, kRequestCapacity));
  if (is_short_verdict(datagram)) return 0;
  Script script(nullptr, 0);
  const ConfinedFiles files;
  const auto client = record_of(datagram);
  const int result = server_under_fuzz().ProcessRequest(client.get());

  require(!script.sent.empty(), "every request is answered");
  const std::string& answer = script.sent.front();
  // A packet for blocks below zero holds little or nothing of the answer.
  if (client->block_size < 0) return 0;
  require(answer.size() >= 4 || answer == std::string("\0\6", 2), "an answer is a whole packet");
  const char kind = answer[1];
  if (result == 0) {
    require(kind == 5 || (kind == 3 && answer.size() == 4), "what ends at once is refused or is a verdict");
    require(client->socket_fd == -1 && client->connected == 0, "a client that was refused is no more");
  } else {
    require(result == 1, "a request is taken or not");
    require(kind == 3 || kind == 4 || kind == 6, "what is taken gets DATA, ACK or OACK");
    require(client->timeout >= 5 && client->block_size <= TFTP_Packet::kMaxSize, "options are within limits");
  }
  return 0;
}
