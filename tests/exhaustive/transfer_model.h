#ifndef EXHAUSTIVE_TRANSFER_MODEL_H
#define EXHAUSTIVE_TRANSFER_MODEL_H

#include <cstddef>
#include <string>
#include <vector>

#include "exhaustive/events.h"

// What the next read of the served file gives.
enum class Reading { kAll, kHalfAndEnd, kError };

// A read transfer on the server's side, told in other words than the product's: what one turn of a client's
// thread does to the record, and what is seen from outside.
struct TransferModel {
  // The record.
  bool connected;
  int request_type;
  int transfer_state;
  int block_number;
  int retries;
  int receive_status;
  bool last_block;
  int timeout;
  int block_size;
  std::string received;  // the whole array
  int received_size;
  std::string sent;  // as far as it is sent
  // The file.
  const std::string* contents;
  std::size_t position;
  bool at_end;
  bool unreadable;

  struct Turn {
    std::string printed;
    std::vector<std::string> sent;  // also what failed
    int receive_result = 0;
    int send_result = -1;  // -1: Send is not called
    bool is_finished = false;
    int reads = 0;
  };
  Turn takes(const Event& event, Reading reading);

 private:
  void wait(const Event& event);
  void receive(const Event& event);
  int judge_received();
  int send_after();
  bool put_out(const std::string& packet);
  void send_next_block();
  void disconnect();
  std::string next_block();

  Turn turn_;
  std::vector<Sending> sends_;
  Reading reading_ = Reading::kAll;
};

#endif
