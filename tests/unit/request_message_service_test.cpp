#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/client_record.h"

// In which order a verdict switches the message service over. The service is played by the test: this program is
// linked with it and not with the product's.

namespace {

std::string events;

void note(const std::string& event) {
  events += event + (_bTimeoutFlag ? ", timed out" : "") + "\n";
}

}  // namespace

// Takes the place of the library's.
extern "C" unsigned alarm(unsigned seconds) noexcept {
  note("alarm " + std::to_string(seconds));
  return 0;
}

MessageServer::MessageServer(int message_port) : port(message_port) {}
MessageServer::~MessageServer() {
  note("deleted");
}
int MessageServer::InitializeSender(const std::string&, bool) {
  return -1;
}
bool MessageServer::StartSender(int, const char*, int) {
  return false;
}
void MessageServer::StopSender() {
  note("StopSender");
}
bool MessageServer::StartReceive(const std::string& local_ip, const std::string& remote_ip,
                                 unsigned short message_port) {
  note("StartReceive " + local_ip + " " + remote_ip + " " + std::to_string(message_port));
  return true;
}
bool MessageServer::StartUDPServer(const std::string&, const std::string&) {
  return false;
}

namespace {

using VerdictAndMessageService = ClientRecordTest;

TEST_F(VerdictAndMessageService, CancelsTheAlarmThenForgetsItThenStopsTheSenderThenStartsTheReceiver) {
  _bTimeoutFlag = true;
  EXPECT_EQ(processes(tftp::rrq("F_l_m_01PPT_PASSED")), refused("Cmd received: F_l_m_01PPT_PASSED\n"));
  EXPECT_EQ(events,
            "alarm 0, timed out\n"
            "StopSender\n"
            "StartReceive 172.40.0.1 127.0.0.1 12000\n"
            "deleted\n");
}

}  // namespace
