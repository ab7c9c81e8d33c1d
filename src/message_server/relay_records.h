#ifndef MESSAGE_SERVER_RELAY_RECORDS_H
#define MESSAGE_SERVER_RELAY_RECORDS_H

#include <memory>
#include <string>

class MessageServer;

// A relay is never stopped and may outlive the MessageServer that started it, even before its thread has run
// for the first time. So it reaches its record through here alone: the two addresses as they were at the
// start, and the run flag for as long as there is a record.
class RelayRecord {
 public:
  // record: lives now. Throws std::bad_alloc.
  explicit RelayRecord(MessageServer* record);
  ~RelayRecord();
  RelayRecord(const RelayRecord&) = delete;
  RelayRecord& operator=(const RelayRecord&) = delete;

  // False once an owner has cleared udp_running. Without its record a relay goes on.
  bool is_to_run() const;
  // Clears udp_thread, where there is a record.
  void mark_ended() const;

  const std::string local_ip;
  const std::string remote_ip;

 private:
  friend void forget_record(const MessageServer* record);
  MessageServer* record_;  // null once it has gone
};

// For the owner: before the thread of a relay is created, and when it could not be. Throws std::bad_alloc.
void announce_relay(MessageServer* record);
void withdraw_relay(const MessageServer* record);
// For the thread: what was announced for it. Without an announcement the record lives.
std::unique_ptr<RelayRecord> take_relay(MessageServer* record);
// For the record's end: no relay reaches it from now on.
void forget_record(const MessageServer* record);

#endif
