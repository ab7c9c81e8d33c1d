#include <cstdlib>
#include <iostream>

#include "signals/signals.h"
#include "tftp_client/tftp_client.h"

namespace {

constexpr char kFinalFailed[] = "PPT_FAILED";
constexpr char kFinalPassed[] = "PPT_PASSED";
constexpr char kStepFailed[] = "TEST_FAILED";
constexpr char kMarkBoardFailed[] = "envtool ppt_flag=failed";
constexpr char kTag[] = "CPU_2_";
constexpr std::size_t kTagPosition = 8;
constexpr int kRequestCapacity = 1024;
constexpr int kReplyCapacity = 512;

bool contains(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

void mark_board_failed() {
  const SignalsLetIn for_the_command;
  // Without envtool the run goes on: what the shell makes of the command is not looked at.
  [[maybe_unused]] const int ignored = std::system(kMarkBoardFailed);
}

}  // namespace

int TFTPClient::sendMagic(const std::string& file_name) {
  std::string command = file_name;
  std::cout << "Cmd received: " << command << std::endl;

  // A final verdict stays here, and the mark on the board is never taken back (known behaviour 12).
  if (contains(command, kFinalFailed)) {
    mark_board_failed();
    return 1;
  }
  if (contains(command, kFinalPassed)) return 1;
  if (contains(command, kStepFailed)) mark_board_failed();

  command.insert(kTagPosition, kTag);
  TFTP_Packet request;
  request.reSize(kRequestCapacity);
  request.createRRQ(command, {}, {});
  sendPacket(&request);
  // One attempt: whatever comes or does not come, the first block is acknowledged.
  received_packet.reSize(kReplyCapacity);
  waitForPacketData(timeout);
  TFTP_Packet acknowledgement;
  acknowledgement.createACK(1);
  sendPacket(&acknowledgement);
  return 0;
}
