#include "recorder/held.h"

#include <cstring>
#include <limits>
#include <utility>

namespace recorder {

namespace {

constexpr record::Nanoseconds kMicrosecond = 1000;

std::size_t bytes_of(const record::Entry& entry) {
  std::size_t bytes = 0;
  for (const auto& field : entry.fields) bytes += sizeof field + field.first.size() + field.second.size();
  return bytes;
}

}  // namespace

Held::Head Held::Queue::head() const {
  Head head = {};
  std::memcpy(&head, bytes.data() + begin, sizeof head);
  return head;
}

void Held::write_to(record::Writer* writer, Told told) {
  writer_ = writer;
  told_ = std::move(told);
  frames_ = 0;
  written_entries_ = 0;
}

Held::Queue& Held::queue_of(std::size_t source) {
  if (queues_.size() <= source) queues_.resize(source + 1);
  return queues_[source];
}

void Held::add(std::size_t source, record::Nanoseconds at, std::string_view bytes, std::uint32_t size) {
  const Head head = {at, static_cast<std::uint32_t>(bytes.size()), size};
  Queue& queue = queue_of(source);
  queue.bytes.append(reinterpret_cast<const char*>(&head), sizeof head).append(bytes);
  bytes_ += sizeof head + bytes.size();
  make_room();
}

void Held::add(const record::Entry& entry) {
  bytes_ += bytes_of(entry);
  entries_.emplace(entry.at, entry);
  make_room();
}

void Held::make_room() {
  while (bytes_ > kMostBytes) write_first(std::numeric_limits<record::Nanoseconds>::max());
}

void Held::write_until(record::Nanoseconds until) {
  while (write_first(until)) continue;
}

bool Held::write_first(record::Nanoseconds until) {
  std::size_t first = queues_.size();
  record::Nanoseconds at = until;
  for (std::size_t i = 0; i < queues_.size(); ++i) {
    if (queues_[i].is_empty() || queues_[i].head().at > at) continue;
    at = queues_[i].head().at;
    first = i;
  }
  const auto entry = entries_.begin();
  if (entry != entries_.end() && entry->first <= at) {
    entry->second.number = writer_->add(entry->second);
    entry->second.at -= entry->second.at % kMicrosecond;  // as it is written
    if (told_) told_(entry->second);
    bytes_ -= bytes_of(entry->second);
    entries_.erase(entry);
    ++written_entries_;
    return true;
  }
  if (first == queues_.size()) return false;
  write_frame(&queues_[first]);
  return true;
}

void Held::write_frame(Queue* queue) {
  const Head head = queue->head();
  record::Frame frame;
  frame.interface = queue->interface;
  frame.at = head.at;
  frame.size = head.size;
  frame.bytes = std::string_view(queue->bytes).substr(queue->begin + sizeof head, head.kept);
  frame.number = writer_->add(frame);
  if (told_) told_(frame);
  ++frames_;
  const std::size_t bytes = sizeof head + head.kept;
  queue->begin += bytes;
  bytes_ -= bytes;
  if (queue->begin > queue->bytes.size() / 2) {
    queue->bytes.erase(0, queue->begin);
    queue->begin = 0;
  }
}

}  // namespace recorder
