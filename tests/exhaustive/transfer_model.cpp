#include "exhaustive/transfer_model.h"

#include <algorithm>

#include "support/tftp_bytes.h"

TransferModel::Turn TransferModel::takes(const Event& event, Reading reading) {
  turn_ = {};
  sends_ = event.sends;
  reading_ = reading;
  wait(event);
  turn_.receive_result = judge_received();
  if (turn_.receive_result != 0) turn_.send_result = send_after();
  return turn_;
}

void TransferModel::wait(const Event& event) {
  switch (event.brings) {
    case Brings::kTimeOut:
      turn_.printed += "Client timeout\n";
      ++retries;
      receive_status = 0;
      return;
    case Brings::kFailedWait:
      turn_.printed += "Error in select(): \n";
      ++retries;
      receive_status = 1;
      return;
    case Brings::kFailedReceive:
      receive_status = 3;
      return;
    case Brings::kDatagram:
      receive(event);
  }
}

void TransferModel::receive(const Event& event) {
  if (event.datagram.empty()) {
    disconnect();
    return;
  }
  received_size = static_cast<int>(std::min(event.datagram.size(), received.size()));
  received.replace(0, static_cast<std::size_t>(received_size), event.datagram, 0,
                   static_cast<std::size_t>(received_size));
  retries = 0;
  receive_status = 4;
}

int TransferModel::judge_received() {
  const bool has_started = transfer_state == 1 || transfer_state == 2;
  if (receive_status == 0 || !has_started) return 1;
  const bool is_ack = received.substr(0, 2) == tftp::bytes("\0\4");
  if (!is_ack) {
    put_out(tftp::error(4, "Unexpected packet arrived, you have been disconnected"));
    disconnect();
    return 0;
  }
  if (received.substr(0, 4) != tftp::ack(block_number)) {
    put_out(sent);
    return 1;
  }
  transfer_state = 1;
  if (!last_block) return 1;
  turn_.is_finished = true;
  disconnect();
  return 0;
}

int TransferModel::send_after() {
  if (request_type != 1) return 1;
  if (retries >= 11) {
    disconnect();
    return 0;
  }
  if (retries >= 1) {
    put_out(sent);
  } else if (transfer_state == 1) {
    send_next_block();
  }
  return 1;
}

void TransferModel::send_next_block() {
  const std::string bytes = next_block();
  sent = tftp::data(block_number + 1, bytes);
  block_number = (block_number + 1) % 65536;
  if (put_out(sent)) transfer_state = 2;
}

std::string TransferModel::next_block() {
  ++turn_.reads;
  const auto wanted = static_cast<std::size_t>(block_size);
  if (at_end || unreadable) return "";
  if (reading_ == Reading::kError) {
    unreadable = true;
    return "";
  }
  std::string bytes = contents->substr(std::min(position, contents->size()), wanted);
  if (reading_ == Reading::kHalfAndEnd) bytes.resize(bytes.size() / 2);
  position += bytes.size();
  if (bytes.size() < wanted) at_end = last_block = true;
  return bytes;
}

// Without a socket nothing leaves.
bool TransferModel::put_out(const std::string& packet) {
  if (!connected) return false;
  turn_.sent.push_back(packet);
  Sending sending = Sending::kSucceeds;
  if (!sends_.empty()) {
    sending = sends_.front();
    sends_.erase(sends_.begin());
  }
  return sending == Sending::kSucceeds && !packet.empty();
}

void TransferModel::disconnect() {
  connected = false;
  request_type = 0;
  block_number = 0;
  receive_status = 2;
  last_block = false;
  timeout = 5;
  block_size = 512;
  received.assign(received.size(), '\0');
  received_size = 0;
  sent.clear();
}
