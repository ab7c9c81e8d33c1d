#ifndef WIRE_WIRE_H
#define WIRE_WIRE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wire/damage.h"
#include "wire/order.h"
#include "wire/tap_device.h"
#include "wire/wire_record.h"

// Carries frames among the ends of each link, records every one as it enters, and damages them on order.
//
// The two sides of a lock-step transfer wait for each other with every frame, so what counts is how soon a
// frame is at the far end, not how many can be under way. A thread that sleeps is late by the time it takes
// to wake it. After a frame, the wire therefore tries the devices again and again for kSpinTime; it offers
// its core to others between the attempts, so that on a machine with one core they lose nothing.
class Wire {
 public:
  // A link's ends, at least two: the device with that name in that namespace. What the first one sends comes to all the
  // others, and what one of these sends, to the first.
  struct End {
    const NetworkNamespace& place;
    std::string device;
  };
  using Ends = std::vector<End>;

  // Makes the devices, and the file record (wire_record.h), in which a link has the name of its first device. The
  // seed is that of all chances, which are others on each link. Throws std::runtime_error with one line that says
  // what was expected, as does run.
  Wire(const std::string& record, std::uint64_t seed, const std::vector<Ends>& links);

  // Carries frames, and follows each Order that comes by the socket, until that ends or SIGTERM or SIGINT
  // comes. Frames that wait then are dropped. Each order is answered by a byte, written to the other
  // descriptor, when the file holds all that happened before it.
  void run(int orders, int answers);

 private:
  using Time = Damage::Time;

  // The first end's direction is 0, all others' 1.
  struct Link : FrameSink {
    Link(Wire* wire, std::uint64_t seed, const Ends& devices);
    void leave(int direction, std::uint64_t number, std::string_view frame, int copies) override;
    void note(std::uint64_t number, Fate fate) override;

    std::vector<TapDevice> ends;
    Damage damage;

   private:
    Wire* const wire_;
  };

  bool take_frames(Time now);
  bool take_frames_of(std::size_t link, std::size_t end, Time now);
  enum class Wake { kTimeOrFrame, kOrder, kSignal };
  Wake sleep(int orders, int signals, Time until) const;
  bool follow_next_order(int orders, int answers);
  void follow(const Order& order);
  Time next_due(Time now) const;
  void flush();

  static constexpr std::size_t kLongestFrameBytes = 65535;

  WireRecord record_;
  std::vector<char> frame_ = std::vector<char>(kLongestFrameBytes);  // that is being carried
  std::vector<std::unique_ptr<Link>> links_;
  std::optional<Time> flush_due_;  // nothing: all is in the file
};

#endif
