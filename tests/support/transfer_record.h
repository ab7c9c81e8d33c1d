#ifndef SUPPORT_TRANSFER_RECORD_H
#define SUPPORT_TRANSFER_RECORD_H

#include <fstream>
#include <string>

#include "support/client_record.h"

constexpr char kTimeoutLine[] = "Client timeout\n";
constexpr char kSelectLine[] = "Error in select(): \n";

// The record in the middle of a read. What the operations print is part of their outcome.
class TransferTest : public ClientRecordTest {
 protected:
  // The record as a read request leaves it while its OACK is out, with waits that end at once.
  void serves(const std::string& contents, int block_size = 512) {
    write_whole_file("boot.img", contents);
    record.input_file = new std::ifstream("boot.img", std::ios::binary);
    record.request_type = 1;
    record.transfer_state = 1;
    record.timeout = 0;
    record.block_size = block_size;
    record.received_packet.reSizeForBlock(block_size);
    record.sent_packet.reSizeForBlock(block_size);
    record.sent_packet.createOACK({"blksize"}, {std::to_string(block_size)});
    is_prepared();
  }

  // The same with the first block out, which is a change.
  void has_sent_first_block_of(const std::string& contents, int block_size = 512) {
    serves(contents, block_size);
    server->sendPacketData(&record);
    record.transfer_state = 2;
    unit.receives();
  }

  Outcome receives_packet() {
    return outcome_of([this] { return server->receivePacket(&record); });
  }

  Outcome receives() {
    return outcome_of([this] { return server->Receive(&record); });
  }

  Outcome sends() {
    return outcome_of([this] { return server->Send(&record); });
  }

  // One turn of the client's thread: the results of Receive and of Send.
  void turns(int received, int sent, const std::string& printed = "") {
    EXPECT_EQ(receives(), (Outcome{received, printed}));
    EXPECT_EQ(sends(), (Outcome{sent, ""}));
  }

  void has_received(const std::string& datagram) { is_asked(datagram); }

  // The client's thread, from the beginning to its end.
  Outcome runs_to_its_end() {
    return outcome_of([this] { return ClientProc(&record) == nullptr ? 0 : 1; });
  }

  std::string status_and_retries() const {
    return "status " + std::to_string(record.receive_status) + ", retries " + std::to_string(record.retries);
  }
};

#endif
