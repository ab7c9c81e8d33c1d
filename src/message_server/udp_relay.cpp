#include "message_server/message_server.h"

void* UdpMessageServerProc(void* /*record*/) {
  return nullptr;
}
