#ifndef RECORDER_LINK_H
#define RECORDER_LINK_H

#include <pcap/pcap.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "record/item.h"
#include "recorder/filter.h"

namespace recorder {

// A link whose frames are recorded while it is up. The kernel puts them into a ring that it shares with us, and hands
// them over by the block, which has 256 KiB: when one is full, or kBlockMilliseconds after its first frame. The longer
// that is, the longer we may be kept from a processor before frames are dropped.
class Link {
 public:
  static constexpr int kBlockMilliseconds = 100;

  // `ring_bytes`: several blocks.
  Link(std::string name, std::size_t ring_bytes) : name_(std::move(name)), ring_bytes_(ring_bytes) {}

  // Begins to receive. False: there is no such link, or it is down, or the right is missing; `problem` says which.
  // Throws WrongFilter.
  bool open(const Filter& filter);
  void close();
  bool is_open() const { return handle_ != nullptr; }
  // Whether what is open is still there, and up.
  bool is_there() const;

  const std::string& name() const { return name_; }
  const std::string& problem() const { return problem_; }
  bool lacks_right() const { return lacks_right_; }
  // To wait for frames by; -1 where it is not open.
  int descriptor() const;
  std::uint16_t link_type() const { return link_type_; }

  using Take = std::function<void(record::Nanoseconds at, std::string_view bytes, std::uint32_t size)>;
  // Hands over frames that are there, at most so many. Returns how many.
  std::size_t receive(std::size_t most, const Take& take);

  // Frames that passed the filter, and those of them that the kernel dropped, since it was first opened.
  std::uint64_t received() const { return received_ + count().ps_recv; }
  std::uint64_t dropped() const { return dropped_ + count().ps_drop; }

 private:
  pcap_stat count() const;

  struct Closes {
    void operator()(pcap_t* handle) const { pcap_close(handle); }
  };

  const std::string name_;
  const std::size_t ring_bytes_;
  std::unique_ptr<pcap_t, Closes> handle_;
  unsigned index_ = 0;  // the system's, while it was opened; 0: of all links
  std::uint16_t link_type_ = 0;
  std::uint64_t received_ = 0;  // before it was opened the last time
  std::uint64_t dropped_ = 0;
  std::string problem_;
  bool lacks_right_ = false;
};

// Tells when a link comes, goes, or changes.
class LinkNews {
 public:
  LinkNews();
  ~LinkNews();
  LinkNews(const LinkNews&) = delete;
  LinkNews& operator=(const LinkNews&) = delete;

  int descriptor() const { return descriptor_; }
  // What is there has been taken note of.
  void clear();

 private:
  int descriptor_;
};

}  // namespace recorder

#endif
