#include "exhaustive/client_model.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "support/tftp_bytes.h"

namespace {

constexpr int kMaxPacket = 32768;
constexpr std::size_t kUploadBlock = 512;

int word(const std::string& array, std::size_t offset) {
  const auto byte = [&](std::size_t at) { return at < array.size() ? array[at] & 0xFF : 0; };
  return byte(offset) << 8 | byte(offset + 1);
}

// The text up to its NUL, the array's end or the limit.
std::string text(const std::string& array, std::size_t offset, std::size_t limit) {
  if (offset >= array.size()) return "";
  return std::string(array.substr(offset, limit).c_str());
}

std::string dump(const std::string& packet) {
  std::string result =
      "\n--------------DATA DUMP---------------------\nSize: " + std::to_string(packet.size()) + "\n";
  for (char byte : packet) {
    char words[8];
    std::snprintf(words, sizeof words, byte == 0 ? "00 " : "0x%x ", static_cast<unsigned>(byte & 0xFF));
    result += words;
  }
  return result + "\n--------------------------------------------\n\n";
}

template <typename List>
std::string numbers(const List& list) {
  std::string words;
  for (auto value : list) words += std::to_string(value) + " ";
  return words;
}

}  // namespace

void must_agree(const Seen& expected, const Seen& seen) {
  must_be_same("printed", expected.printed, seen.printed);
  must_be_same("sent", expected.sent, seen.sent);
  must_be_same("ports that were sent to", numbers(expected.destinations), numbers(seen.destinations));
  must_be_same("waits in seconds", numbers(expected.waits), numbers(seen.waits));
  must_be_same("result", expected.result, seen.result);
  must_be_same("local file", expected.has_file, seen.has_file);
  must_be_same("contents of the local file", expected.file, seen.file);
  must_be_same("timeout", expected.timeout, seen.timeout);
  must_be_same("block_size", expected.block_size, seen.block_size);
  must_be_same("port of the server", expected.server_port, seen.server_port);
  must_be_same("size of the received packet", expected.received_size, seen.received_size);
  must_be_same("received packet", {expected.received}, {seen.received});
}

ClientModel::Came ClientModel::waits(const Event& event, int seconds, std::string& array, int& size) {
  seen.waits.push_back(seconds);
  fates_ = event.sends;
  if (event.brings == Brings::kTimeOut) return Came::kNothing;
  if (event.brings == Brings::kFailedWait) {
    seen.printed += "Error in select(): \n";
    return Came::kFailure;
  }
  array.assign(array.size(), '\0');
  size = 0;
  if (event.brings == Brings::kFailedReceive) {
    seen.printed += "recv() error in waitForPackage()\n";
    return Came::kFailure;
  }
  if (event.sender_port != 0) sender_port_ = event.sender_port;
  seen.server_port = sender_port_;
  const std::size_t count = std::min(event.datagram.size(), array.size());
  if (count == 0) {
    seen.printed += "Connection was closed by server\n";
    return Came::kFailure;
  }
  array.replace(0, count, event.datagram, 0, count);
  size = static_cast<int>(count);
  return Came::kDatagram;
}

int ClientModel::sends(const std::string& packet) {
  seen.sent.push_back(packet);
  seen.destinations.push_back(seen.server_port);
  if (fates_.empty()) return static_cast<int>(packet.size());
  const Sending fate = fates_.front();
  fates_.erase(fates_.begin());
  return fate == Sending::kFails ? -1 : fate == Sending::kSendsNothing ? 0 : static_cast<int>(packet.size());
}

void ClientModel::print_error(const std::string& array, int size) {
  static const char* const texts[] = {"",
                                      "File not found",
                                      "Access violation",
                                      "Disk full or allocation exceeded",
                                      "Illegal TFTP operation",
                                      "Unknown transfer ID",
                                      "File already exists",
                                      "No such user"};
  const int code = word(array, 2);
  seen.printed += "Error! Error code: " + number(code) + "\nError message: ";
  if (code == 0) seen.printed += size > 4 ? text(array, 4, 255) : "";
  if (code > 0) seen.printed += code < 8 ? texts[code] : "Not defined";
  seen.printed += "\n";
}

std::string ClientModel::number(int value) const {
  char words[16];
  std::snprintf(words, sizeof words, hexadecimal_ ? "%#x" : "%d", static_cast<unsigned>(value));
  return words;
}

DownloadModel::DownloadModel(const std::string& remote_name, const std::string& received, int received_size)
    : remote_name_(remote_name) {
  seen.received = received;
  seen.received_size = received_size;
  sends(tftp::rrq(remote_name, {{"timeout", "5"}, {"blksize", "512"}, {"tsize", "0"}}));
}

void DownloadModel::takes(const Event& event) {
  const Came came = waits(event, wait_, seen.received, seen.received_size);
  if (came == Came::kNothing) {
    seen.printed += "ERROR: Select Timeout. File: " + remote_name_ + "\n";
    ++time_outs_;
    if (is_first_ || time_outs_ == 10) {
      seen.printed += "Connection timeout\n";
      return end(0);
    }
    sends(acknowledgement_);
    wait_ = seen.timeout;
    return;
  }
  if (came == Came::kDatagram && word(seen.received, 0) == 5) {
    print_error(seen.received, seen.received_size);
    return end(0);
  }
  if (is_first_) return take_first();
  take_block();
}

void DownloadModel::take_first() {
  const int opcode = word(seen.received, 0);
  if (opcode == 5) return end(1);
  if (opcode != 6) {
    if (opcode == 3) {
      seen.timeout = wait_ = 5;
      seen.block_size = 512;
      seen.printed += "Transfer started\n";
      is_first_ = false;
    }
    return take_block();
  }
  for (std::size_t at = 2; at < static_cast<std::size_t>(std::max(seen.received_size, 0));) {
    const std::string name = text(seen.received, at, kMaxPacket);
    at += name.size() + 1;
    const std::string value = text(seen.received, at, kMaxPacket);
    at += value.size() + 1;
    if (name == "timeout") seen.timeout = std::atoi(value.c_str());
    if (name == "blksize") seen.block_size = std::atoi(value.c_str());
    if (name == "tsize") seen.printed += "Remote file is " + value + " byte\n";
  }
  resize(seen.block_size + 4);
  acknowledge(0);
  seen.printed += "Transfer started\n";
  is_first_ = false;
  wait_ = seen.timeout;
}

void DownloadModel::take_block() {
  const int opcode = word(seen.received, 0);
  const int block = opcode == 3 || opcode == 4 ? word(seen.received, 2) : 0;
  if (block != expected_) {
    seen.printed += "Block number mismatch. Last_packet=" + std::to_string(expected_) +
                    " From server = " + std::to_string(block) + "\n";
  } else {
    const int length = seen.received_size - 4;
    if (length > 0) seen.file += seen.received.substr(4, static_cast<std::size_t>(length));
    const int sent = acknowledge(block);
    if (length < seen.block_size && sent != 0) return end(1);
    expected_ = expected_ == 65535 ? 0 : expected_ + 1;
    time_outs_ = 0;
  }
  resize(seen.block_size + 4);
  wait_ = is_first_ ? 5 : seen.timeout;
}

void DownloadModel::resize(int capacity) {
  const auto new_size = static_cast<std::size_t>(std::max(capacity, 0));
  if (capacity > kMaxPacket || new_size == seen.received.size()) return;
  seen.received.assign(new_size, '\0');
  seen.received_size = 0;
}

int DownloadModel::acknowledge(int block) {
  acknowledgement_ = tftp::ack(block);
  return sends(acknowledgement_);
}

void DownloadModel::end(int result) {
  seen.result = result;
  if (result == 1) return;
  seen.has_file = false;
  seen.file.clear();
}

std::string DownloadModel::key() const {
  const std::vector<int> all = {is_first_,         expected_,       time_outs_,       wait_,
                                seen.timeout,      seen.block_size, seen.server_port, sender_port_,
                                seen.received_size};
  // Behind its size a packet is zero, and the file is never read.
  const auto size = static_cast<std::size_t>(std::max(seen.received_size, 0));
  return numbers(all) + "|" + std::to_string(seen.received.size()) + "|" + acknowledgement_ + "|" +
         seen.received.substr(0, size);
}

UploadModel::UploadModel(const std::string& remote_name, const std::string& contents, bool ends)
    : contents_(contents), ends_(ends) {
  using tftp::bytes;
  const std::string request = bytes("\0\2") + remote_name + bytes("\0\0") + "octet" + bytes("\0\0");
  seen.printed += dump(request);
  hexadecimal_ = true;
  sends(request);
}

void UploadModel::takes(const Event& event) {
  std::string array(kMaxPacket, '\0');
  int size = 0;
  const Came came = waits(event, 5, array, size);
  const int opcode = word(array, 0);
  if (came == Came::kNothing) {
    seen.printed += "We have an error in waitForPacket()\n";
  } else if (opcode == 5) {
    seen.printed += "ACK expected, but got Error\n";
    print_error(array, size);
    seen.printed += "Server has timed out\n";
    seen.result = 0;
    return;
  } else if (opcode == 3 || opcode == 4) {
    seen.printed += std::string(opcode == 4 ? "ACK" : "DATAK") + " for packet " + number(word(array, 2)) +
                    "(expected: " + number(block_) + ")\n";
  } else {
    seen.printed += "Unhandled packet\n";
  }
  const std::size_t offset = static_cast<std::size_t>(block_) * kUploadBlock;
  const std::string bytes = offset < contents_.size() ? contents_.substr(offset, kUploadBlock) : "";
  ++block_;
  sends(tftp::data(block_, bytes));
  if (ends_ && bytes.size() < kUploadBlock) seen.result = 1;
}
