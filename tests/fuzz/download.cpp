#include <cstdint>

#include "fuzz/confined_files.h"
#include "fuzz/script.h"
#include "tftp_client/tftp_client.h"

// A download from a server that says what it likes. The first byte chooses the block size that is asked for.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  Script script(bytes + 1, size - 1);
  const ConfinedFiles files;
  TFTPClient client("127.0.0.1", 69);
  client.block_size = bytes[0] % 2 == 0 ? 512 : 40000;
  try {
    const int result = client.getFile("remote", "downloaded");
    require(result == 0 || result == 1, "a download succeeds or fails");
    require(!script.sent.empty() && script.sent.front()[1] == 1, "a download begins with a read request");
    for (std::size_t i = 1; i < script.sent.size(); ++i) {
      const std::string& packet = script.sent[i];
      // Nothing has been acknowledged yet when the first acknowledgement is to be repeated.
      require(packet.empty() || (packet.size() == 4 && packet[1] == 4), "all that follows acknowledges");
    }
  } catch (const EndlessWait&) {
    // A server that acknowledges a negative timeout keeps the download for ever: it is meant.
    require(client.timeout < 0, "only a negative timeout makes a download endless");
  }
  return 0;
}
