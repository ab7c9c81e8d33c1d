#ifndef ZIRN_RUN_MADE_RUN_H
#define ZIRN_RUN_MADE_RUN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "frames/packet.h"
#include "record/item.h"
#include "story/story.h"
#include "support/tftp_bytes.h"

// Frames built byte by byte, without the code under test.
namespace made {

using frames::Endpoint;

inline constexpr std::uint32_t kUnit = 0xac280002;          // 172.40.0.2
inline constexpr std::uint32_t kUnitB = 0xac280003;         // 172.40.0.3
inline constexpr std::uint32_t kStation = 0xac280001;       // 172.40.0.1
inline constexpr std::uint32_t kBroadcast = 0xac2800ff;     // 172.40.0.255
inline constexpr std::uint32_t kStationAtPpt = 0xac1e0001;  // 172.30.0.1
inline constexpr std::uint32_t kPptServer = 0xac1e00fe;     // 172.30.0.254
enum Flag : std::uint8_t { kFin = 1, kSyn = 2, kRst = 4, kAck = 16 };

inline std::string big(std::uint64_t number, std::size_t size) {
  std::string bytes(size, '\0');
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, number >>= 8) {
    *byte = static_cast<char>(number & 0xffU);
  }
  return bytes;
}

inline std::string udp(Endpoint from, Endpoint to, const std::string& payload) {
  return big(from.port, 2) + big(to.port, 2) + big(payload.size() + 8, 2) + big(0, 2) + payload;
}

inline std::string tcp(Endpoint from, Endpoint to, unsigned flags, std::uint32_t sequence,
                       const std::string& payload = "") {
  return big(from.port, 2) + big(to.port, 2) + big(sequence, 4) + big(0, 4) + big(0x5000U | flags, 2) +
         big(1024, 2) + big(0, 4) + payload;
}

// `fragment`: its offset in units of eight bytes, and 0x2000 where more follow.
inline std::string ip(std::uint32_t from, std::uint32_t to, unsigned protocol, const std::string& contents,
                      unsigned id = 1, unsigned fragment = 0) {
  return big(0x4500, 2) + big(contents.size() + 20, 2) + big(id, 2) + big(fragment, 2) + big(64, 1) +
         big(protocol, 1) + big(0, 2) + big(from, 4) + big(to, 4) + contents;
}

// What is said when nobody listens on the port that a datagram went to.
inline std::string port_unreachable(Endpoint from, Endpoint to) {
  return big(0x0303, 2) + big(0, 6) + ip(from.address, to.address, 17, udp(from, to, ""));
}

// Every machine has the hardware address 02:00 and its IP address.
inline std::string ethernet(const std::string& packet, bool is_broadcast = false) {
  const std::string to = is_broadcast ? std::string(6, '\xff') : big(0x0200, 2) + packet.substr(16, 4);
  return to + big(0x0200, 2) + packet.substr(12, 4) + big(0x0800, 2) + packet;
}

// IP packets of at most `most` bytes of contents, a multiple of 8.
inline std::vector<std::string> fragments(Endpoint from, Endpoint to, const std::string& payload, unsigned id,
                                          std::size_t most = 1480) {
  const std::string whole = udp(from, to, payload);
  std::vector<std::string> packets;
  for (std::size_t offset = 0; offset < whole.size(); offset += most) {
    const unsigned more = offset + most < whole.size() ? 0x2000U : 0U;
    packets.push_back(ip(from.address, to.address, 17, whole.substr(offset, most), id,
                         static_cast<unsigned>(offset / 8) | more));
  }
  return packets;
}

}  // namespace made

// A story that is told frame by frame; each is a millisecond after the one before.
class MadeRun {
 public:
  static constexpr record::Nanoseconds kStart = 1700000000000000000;
  static constexpr record::Nanoseconds kMillisecond = 1000000;

  explicit MadeRun(const story::Given& given = {}) : story(given) {}

  // So many milliseconds in which nothing is told.
  MadeRun& rests(std::int64_t milliseconds) {
    now += milliseconds * kMillisecond;
    return *this;
  }
  // What the wire does to the next frame.
  MadeRun& next_is(const char* comment) {
    comments.emplace_back(comment);
    return *this;
  }
  // From here on the capture keeps so many bytes of a frame.
  MadeRun& keeps(std::size_t bytes) {
    kept = bytes;
    return *this;
  }
  std::uint64_t frame(const std::string& bytes) {
    record::Frame frame;
    frame.number = ++number;
    frame.at = now += kMillisecond;
    frame.bytes = std::string_view(bytes).substr(0, kept);
    frame.size = static_cast<std::uint32_t>(bytes.size());
    frame.comments = std::exchange(comments, {});
    story.take(frame);
    return number;
  }
  void udp(made::Endpoint from, made::Endpoint to, const std::string& payload, bool is_broadcast = false) {
    frame(made::ethernet(made::ip(from.address, to.address, 17, made::udp(from, to, payload)), is_broadcast));
  }
  void tcp(made::Endpoint from, made::Endpoint to, unsigned flags, std::uint32_t sequence,
           const std::string& payload = "") {
    frame(
        made::ethernet(made::ip(from.address, to.address, 6, made::tcp(from, to, flags, sequence, payload))));
  }
  // Says that `from` sent to a port of `to` that is closed.
  void closed(made::Endpoint from, made::Endpoint to) {
    frame(made::ethernet(made::ip(to.address, from.address, 1, made::port_unreachable(from, to))));
  }
  void broadcasts_boot_script() {
    udp({made::kStation, 12345}, {made::kBroadcast, 12345}, "ZIRN install boot script\r\n...", true);
  }
  void says(const record::RunEntry& entry) { story.take(entry, now += kMillisecond, ++number); }
  void line(const std::string& text) { says(record::Line{text}); }

  const story::Reading& reading() const { return story.reading(); }
  const story::Reading& ends(bool is_cut_short = false) {
    story.finish(is_cut_short);
    return story.reading();
  }

  story::Story story;
  record::Nanoseconds now = kStart;
  std::uint64_t number = 0;
  std::size_t kept = std::string::npos;
  std::vector<std::string> comments;
};

// One read or write: the client asks at one port and is answered from another.
class Exchange {
 public:
  Exchange(MadeRun* run, made::Endpoint client, std::uint32_t server, std::uint16_t answering = 33133,
           std::uint16_t asked = 69)
      : run_(run), client_(client), asked_{server, asked}, answering_{server, answering} {}

  void asks(const std::string& request) { run_->udp(client_, asked_, request); }
  void answers(const std::string& payload) { run_->udp(answering_, client_, payload); }
  void sends(const std::string& payload) { run_->udp(client_, answering_, payload); }
  // Blocks and ACKs of a read, from the first to the last, the numbers wrapping.
  void blocks(int first, int last, std::size_t size) {
    for (int block = first; block <= last; ++block) {
      answers(tftp::data(block & 0xffff, std::string(size, 'x')));
      sends(tftp::ack(block & 0xffff));
    }
  }

 private:
  MadeRun* const run_;
  const made::Endpoint client_, asked_, answering_;
};

#endif
