#include "message_server/message_server.h"

void* ReceiverProc(void* record) {
  static_cast<MessageServer*>(record)->receiver_thread = 0;
  return nullptr;
}
