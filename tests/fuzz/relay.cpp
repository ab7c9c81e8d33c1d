#include <cstdint>

#include "fuzz/script.h"
#include "message_server/message_server.h"

// The relay, with datagrams of any kind.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static MessageServer record(12345);
  Script script(bytes, size);
  record.udp_local_ip = record.udp_remote_ip = "127.0.0.1";
  record.udp_running = true;
  script.cleared_at_end = &record.udp_running;
  UdpMessageServerProc(&record);
  for (const std::string& datagram : script.sent) {
    require(datagram.size() <= 256 && datagram.find('\0') == datagram.size() - 1,
            "a datagram is passed on up to its first NUL");
  }
  script.closes_newest_descriptor();  // the socket that it sends from is never closed
  return 0;
}
