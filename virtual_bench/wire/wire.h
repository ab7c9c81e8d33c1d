#ifndef WIRE_WIRE_H
#define WIRE_WIRE_H

#include <signal.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wire/arguments.h"
#include "wire/capture.h"
#include "wire/damage.h"
#include "wire/fates.h"
#include "wire/orders.h"
#include "wire/tap_device.h"

// Carries frames between the two ends of each link, records every one as it enters, and damages those of the
// first link on order.
//
// The two sides of a lock-step transfer wait for each other with every frame, so what counts is how soon a
// frame is at the far end, not how many can be under way. A thread that sleeps is late by the time it takes
// to wake it. After a frame, the wire therefore tries the devices again and again for kWakefulTime; it offers
// its core to others between the attempts, so that on a machine with one core they lose nothing. A frame is
// read into the capture's buffer and written to the far end from there: it is never copied.
class Wire : private FrameSink {
 public:
  // Makes the devices and the files. From here on SIGTERM and SIGINT are blocked: they end run().
  // Throws std::runtime_error with one line that says what was expected, as does run.
  explicit Wire(const Arguments& arguments);
  ~Wire() override;
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  // Says "ready" on standard output, then carries frames and follows the orders from standard input until
  // that ends or a signal comes. Frames that wait then are dropped. Each order is answered when the files
  // hold all that happened before it.
  void run();

 private:
  using Time = Damage::Time;
  struct Link {
    std::array<TapDevice, 2> ends;
  };

  void leave(int direction, std::uint64_t number, std::string_view frame, int copies) override;
  void suffer(std::uint64_t number, Fate fate) override;

  bool take_frames(Time now);
  bool take_frames_of(std::size_t link, int end, Time now);
  void deliver(std::size_t link, int direction, std::uint64_t number, std::string_view frame, int copies);
  bool goes_on_after_waiting(Time until);
  bool follow_orders();
  std::string answer_to(std::string_view line);
  void follow(const Order& order);
  Time next_due(Time now) const;
  void flush();

  Capture capture_;
  Fates fates_;
  Damage damage_;
  std::vector<Link> links_;
  int signals_;                    // readable when SIGTERM or SIGINT has come
  std::string unfinished_line_;    // of standard input
  std::optional<Time> flush_due_;  // nothing: all is in the files
};

#endif
