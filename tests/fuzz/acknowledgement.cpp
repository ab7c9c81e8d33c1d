#include <cstdint>

#include "fuzz/confined_files.h"
#include "fuzz/script.h"
#include "tftp_client/tftp_client.h"

// The waits for an acknowledgement: one alone, those of an upload, and the one of a verdict, from a server
// that says what it likes.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Script script(bytes, size);
  const ConfinedFiles files;
  TFTPClient client("127.0.0.1", 69);
  const int alone = client.waitForPacketACK(1, 5);
  require(alone == 0 || alone == 1, "a wait for an acknowledgement tells an error or not");
  require(script.sent.empty(), "a wait sends nothing");

  const int uploaded = client.sendFile("file", "remote");
  // The request, then blocks of 512 bytes to the end of the file.
  constexpr std::size_t kPackets = 1 + (ConfinedFiles::kFileSize + 511) / 512;
  require(uploaded == 0 || script.sent.size() == kPackets, "an upload that succeeds has sent every block");
  require(script.sent.size() <= kPackets, "no block is sent twice");

  script.sent.clear();
  require(client.sendMagic("F_l_m_01TEST_FAILED") == 0, "a step's verdict does not end the run");
  require(script.sent.size() == 2, "a verdict is one request and one acknowledgement");
  require(script.sent[1] == std::string("\0\4\0\1", 4), "the first block is acknowledged");
  return 0;
}
