#include "message_server/relay_records.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "message_server/message_server.h"
#include "message_server/worker.h"

namespace {

struct Registry {
  std::mutex guard;
  std::vector<RelayRecord*> all;
  // Under the address that the thread is given. A record at the same address may have come in between.
  std::vector<std::pair<const MessageServer*, std::unique_ptr<RelayRecord>>> announced;
};

// Relays run until the process has ended, and so does what they share.
Registry& registry() {
  static Registry& the_registry = *new Registry;
  return the_registry;
}

// The oldest one; null when there is none.
std::unique_ptr<RelayRecord> take_announced(const MessageServer* record) {
  Registry& relays = registry();
  const std::lock_guard<std::mutex> lock(relays.guard);
  const auto found = std::find_if(relays.announced.begin(), relays.announced.end(),
                                  [record](const auto& entry) { return entry.first == record; });
  if (found == relays.announced.end()) return nullptr;
  std::unique_ptr<RelayRecord> taken = std::move(found->second);
  relays.announced.erase(found);
  return taken;
}

}  // namespace

RelayRecord::RelayRecord(MessageServer* record)
    : local_ip(record->udp_local_ip), remote_ip(record->udp_remote_ip), record_(record) {
  const std::lock_guard<std::mutex> lock(registry().guard);
  registry().all.push_back(this);
}

RelayRecord::~RelayRecord() {
  std::vector<RelayRecord*>& all = registry().all;
  const std::lock_guard<std::mutex> lock(registry().guard);
  all.erase(std::find(all.begin(), all.end(), this));
}

bool RelayRecord::is_to_run() const {
  const std::lock_guard<std::mutex> lock(registry().guard);
  return record_ == nullptr || record_->udp_running;
}

void RelayRecord::mark_ended() const {
  const std::lock_guard<std::mutex> lock(registry().guard);
  if (record_ != nullptr) ::mark_ended(&record_->udp_thread);
}

void announce_relay(MessageServer* record) {
  auto relay = std::make_unique<RelayRecord>(record);
  const std::lock_guard<std::mutex> lock(registry().guard);
  registry().announced.emplace_back(record, std::move(relay));
}

void withdraw_relay(const MessageServer* record) {
  take_announced(record);
}

std::unique_ptr<RelayRecord> take_relay(MessageServer* record) {
  std::unique_ptr<RelayRecord> announced = take_announced(record);
  return announced != nullptr ? std::move(announced) : std::make_unique<RelayRecord>(record);
}

void forget_record(const MessageServer* record) {
  const std::lock_guard<std::mutex> lock(registry().guard);
  for (RelayRecord* relay : registry().all) {
    if (relay->record_ == record) relay->record_ = nullptr;
  }
}
