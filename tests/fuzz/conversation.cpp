#include <cstdint>
#include <string>

#include "fuzz/confined_files.h"
#include "fuzz/script.h"
#include "fuzz/transfer_client.h"

// A unit's whole conversation: its request, then the turns of its thread to the end.

namespace {

// Every block of the known file holds what it is to hold.
void check(const std::string& packet, const ServerClient& client) {
  const int block_size = client.block_size;
  if (block_size <= 0 || packet[1] != 3) return;  // blocks of 0 and below move no data
  const std::size_t number =
      static_cast<std::uint8_t>(packet[2]) * 256U + static_cast<std::uint8_t>(packet[3]);
  require(number >= 1, "the first block is number 1");
  const std::size_t offset = (number - 1) * static_cast<std::size_t>(block_size);
  const std::string& contents = ConfinedFiles::contents();
  const std::string expected =
      offset < contents.size() ? contents.substr(offset, static_cast<std::size_t>(block_size)) : "";
  require(packet.substr(4) == expected, "a block holds its part of the file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Script script(bytes, size);
  if (script.next() != 'D') return 0;
  const std::string request = script.take();
  if (is_short_verdict(request)) return 0;
  const ConfinedFiles files;
  TFTPServer& server = server_under_fuzz();
  const auto client = record_of(request);
  if (server.ProcessRequest(client.get()) == 0) return 0;
  const bool is_known_file = name_of_read(request) == "file";
  std::size_t checked = 0;
  while (client->connected != 0) {
    const bool is_over = server.Receive(client.get()) == 0 || server.Send(client.get()) == 0;
    for (; is_known_file && checked < script.sent.size(); ++checked) {
      if (client->connected != 0) check(script.sent[checked], *client);
    }
    if (is_over) break;
  }
  return 0;
}
