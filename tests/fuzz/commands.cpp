#include <cstdint>

#include "fuzz/connections.h"
#include "fuzz/script.h"
#include "message_server/message_server.h"

// The unit's commands: connections, texts and a board's output of any kind.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static MessageServer record(12345);
  Script script(bytes, size);
  record.receive_socket = connections::listener = script.new_descriptor();
  record.receiving = true;
  script.cleared_at_end = &record.receiving;
  ReceiverProc(&record);
  for (const std::string& reply : script.sent) {
    require(reply.size() <= 254, "a reply is no longer than a text may be");
    require(reply.find('\0') == std::string::npos, "a reply ends before its NUL");
  }
  record.receive_socket = -1;
  return 0;
}
