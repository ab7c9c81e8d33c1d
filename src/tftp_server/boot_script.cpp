#include <iostream>
#include <string>

#include "tftp_server/tftp_server.h"

namespace {

constexpr int kUntilStopped = -1;

// What the unit's boot loader is told, in its own command language.
std::string boot_script(int message_port) {
  return "ZIRN install boot script"
         "\r\nsetenv msgport " +
         std::to_string(message_port) +
         "\r\n#setaddr 172.40.0.1"
         "\r\nsetenv ppt_flag 1\r\nsave"
         "\r\ntftp 46000000 bootscript.txt\r\n#ifint\r\n#netstate\r\n4\r\n\treset\r\n#endif"
         "\r\ntftp 45000000 F_l_m_t_Bootstrap_loading"
         "\r\ninst 46000000"
         "\r\n#endscript\r\n";
}

}  // namespace

int TFTPServer::SendBroadcastScript(const std::string& interface_name) {
  const std::string script = boot_script(message_port);
  if (message_server->InitializeSender(interface_name, true) != 0) {
    std::cout << "Error: Failed to initialize sender" << std::endl;
    return 0;
  }
  const int length_with_nul = static_cast<int>(script.size()) + 1;
  return message_server->StartSender(kUntilStopped, script.c_str(), length_with_nul) ? 1 : 0;
}
