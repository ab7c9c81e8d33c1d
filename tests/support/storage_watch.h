#ifndef SUPPORT_STORAGE_WATCH_H
#define SUPPORT_STORAGE_WATCH_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <thread>

// Follows the blocks of one size that are allocated by operator new, on any thread, while the object lives:
//   StorageWatch records(sizeof(ServerClient));
// This header replaces operator new and delete of the program: one file of a test program may include it.
// New storage is filled with a pattern, so that a field without a value shows.
class StorageWatch {
 public:
  // Blocks of other things may happen to have the size: on the thread that a test runs on, mostly strings.
  enum Threads { kAllThreads, kOtherThreads };
  explicit StorageWatch(std::size_t size, Threads threads = kAllThreads);
  ~StorageWatch();
  StorageWatch(const StorageWatch&) = delete;
  StorageWatch& operator=(const StorageWatch&) = delete;

  // Runs before each of the allocations, in its place if it throws.
  std::function<void()> before_each;
  // Runs when one of the blocks is released, before it is.
  std::function<void(void*)> at_release;

  int made() const { return made_; }
  int alive() const;
  // The nth of the blocks, from 1; also when it was released.
  void* block(int n) const { return blocks_.at(static_cast<std::size_t>(n) - 1).start; }
  // Whether the nth was released.
  bool released(int n) const { return blocks_.at(static_cast<std::size_t>(n) - 1).released; }

  static void* allocate(std::size_t size);
  static void release(void* start);

 private:
  struct Block {
    std::atomic<void*> start{nullptr};
    std::atomic<bool> released{false};
  };
  static constexpr std::size_t kMostBlocks = 256;
  static constexpr std::size_t kMostWatches = 4;
  static constexpr int kPattern = 1;  // no field is 0, and a bool is true

  bool watches(std::size_t size) const {
    return size == size_ && (threads_ == kAllThreads || std::this_thread::get_id() != maker_);
  }
  void notes_release(void* start);

  static inline std::array<std::atomic<StorageWatch*>, kMostWatches> watches_{};
  std::size_t size_;
  Threads threads_;
  std::thread::id maker_ = std::this_thread::get_id();
  std::array<Block, kMostBlocks> blocks_;
  std::atomic<int> made_{0};
};

inline StorageWatch::StorageWatch(std::size_t size, Threads threads) : size_(size), threads_(threads) {
  for (auto& place : watches_) {
    StorageWatch* none = nullptr;
    if (place.compare_exchange_strong(none, this)) return;
  }
  std::abort();
}

inline StorageWatch::~StorageWatch() {
  for (auto& place : watches_) {
    StorageWatch* self = this;
    place.compare_exchange_strong(self, nullptr);
  }
}

inline int StorageWatch::alive() const {
  int count = 0;
  for (int n = 1; n <= made_; ++n) count += released(n) ? 0 : 1;
  return count;
}

inline void StorageWatch::notes_release(void* start) {
  for (int n = made_; n >= 1; --n) {
    Block& found = blocks_[static_cast<std::size_t>(n) - 1];
    if (found.start != start || found.released) continue;
    if (at_release) at_release(start);
    found.released = true;
    return;
  }
}

inline void* StorageWatch::allocate(std::size_t size) {
  for (auto& place : watches_) {
    const StorageWatch* const watch = place;
    if (watch != nullptr && watch->watches(size) && watch->before_each) watch->before_each();
  }
  void* const start = std::malloc(size == 0 ? 1 : size);
  if (start == nullptr) throw std::bad_alloc();
  std::memset(start, kPattern, size);
  for (auto& place : watches_) {
    StorageWatch* const watch = place;
    if (watch == nullptr || !watch->watches(size)) continue;
    watch->blocks_.at(static_cast<std::size_t>(watch->made_)).start = start;
    ++watch->made_;
  }
  return start;
}

inline void StorageWatch::release(void* start) {
  if (start == nullptr) return;
  for (auto& place : watches_) {
    StorageWatch* const watch = place;
    if (watch != nullptr) watch->notes_release(start);
  }
  std::free(start);
}

// clang-format off
void* operator new(std::size_t size) { return StorageWatch::allocate(size); }
void* operator new[](std::size_t size) { return StorageWatch::allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void operator delete(void* start) noexcept { StorageWatch::release(start); }
void operator delete[](void* start) noexcept { StorageWatch::release(start); }
void operator delete(void* start, std::size_t) noexcept { StorageWatch::release(start); }
void operator delete[](void* start, std::size_t) noexcept { StorageWatch::release(start); }
void operator delete(void* start, const std::nothrow_t&) noexcept { StorageWatch::release(start); }
void operator delete[](void* start, const std::nothrow_t&) noexcept { StorageWatch::release(start); }
// clang-format on

#endif
