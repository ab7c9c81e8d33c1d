#ifndef EXHAUSTIVE_CLIENT_MODEL_H
#define EXHAUSTIVE_CLIENT_MODEL_H

#include <string>
#include <utility>
#include <vector>

#include "exhaustive/events.h"

// What is seen of a download or an upload from outside, in the order in which it is compared.
struct Seen {
  std::string printed;
  std::vector<std::string> sent;
  std::vector<int> destinations;
  std::vector<long> waits;  // seconds
  int result = -1;          // -1: it still waits
  std::string file;         // the local one
  bool has_file = true;
  int timeout = 5;
  int block_size = 512;
  int server_port = 69;
  std::string received;  // the whole array of the client's packet
  int received_size = 0;
};
void must_agree(const Seen& expected, const Seen& seen);

// The client's side of one transfer, told in other words than the product's.
class ClientModel {
 public:
  Seen seen;

 protected:
  enum class Came { kNothing, kFailure, kDatagram };
  // One wait: what is printed of it, and the packet that holds what came.
  Came waits(const Event& event, int seconds, std::string& array, int& size);
  // What sendto gives.
  int sends(const std::string& packet);
  void print_error(const std::string& array, int size);
  std::string number(int value) const;

  std::vector<Sending> fates_;
  int sender_port_ = 1069;  // of whoever sent last
  bool hexadecimal_ = false;
};

class DownloadModel : public ClientModel {
 public:
  DownloadModel(const std::string& remote_name, const std::string& received, int received_size);
  void takes(const Event& event);
  // All that can influence what follows.
  std::string key() const;
  bool awaits_first_reply() const { return is_first_; }
  int expected_block() const { return expected_; }

 private:
  void end(int result);
  void take_first();
  void take_block();
  void resize(int capacity);
  int acknowledge(int block);

  std::string remote_name_;
  std::string acknowledgement_;
  bool is_first_ = true;
  int expected_ = 1;
  int time_outs_ = 0;
  int wait_ = 5;
};

class UploadModel : public ClientModel {
 public:
  UploadModel(const std::string& remote_name, const std::string& contents, bool ends);
  void takes(const Event& event);
  int block() const { return block_; }

 private:
  std::string contents_;
  bool ends_;  // a directory can be opened and never ends
  int block_ = 0;
};

#endif
