// Every state of a download that a server can bring about, by every reply and every silence. The client is
// asked anew for each path; so that nothing that it hides is taken for known, each step is followed to two
// different ends.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "exhaustive/client.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/whole_file.h"

namespace {

constexpr char kRemoteName[] = "remote";
constexpr char kLocalPath[] = "local";
constexpr int kLastFullBlock = 3;
constexpr int kLastBlock = 4;
constexpr int kSilencesThatEnd = 10;

struct Path {
  DownloadModel model;
  std::vector<Event> events;
};

// Other bytes for each block; fewer where the size is beyond any that is looked at.
std::string block(const DownloadModel& model, int size) {
  static const std::string bytes = noise(4000);
  return bytes.substr(static_cast<std::size_t>(model.expected_block() % 7), static_cast<std::size_t>(size));
}

Event right_block(const DownloadModel& model, int size) {
  return datagram("right block of " + std::to_string(size),
                  tftp::data(model.expected_block(), block(model, size)));
}

class Downloads {
 public:
  Downloads(std::string name, std::string earlier_packet)
      : name_(std::move(name)), earlier_packet_(std::move(earlier_packet)) {}
  void run();
  // One download over the end of the block numbers, with everything that leaves it waiting at each block
  // around it.
  void run_over_the_wrap();

  long states = 0;
  long transitions = 0;
  long runs = 0;
  long not_followed = 0;

 private:
  Path beginning() const;
  std::vector<Event> events(const DownloadModel& model) const;
  void follow(const Path& path, const Event& event);
  void reach(Path path);
  void play(const Path& path);
  void play_to_two_ends(Path path);
  void extend(Path& path, const Event& event) const;

  const std::string name_;
  const std::string earlier_packet_;
  std::vector<Path> paths_;
  std::unordered_set<std::string> known_;
};

Path Downloads::beginning() const {
  std::string received = earlier_packet_;
  received.resize(TFTP_Packet::kMaxSize);
  return {DownloadModel(kRemoteName, received, static_cast<int>(earlier_packet_.size())), {}};
}

void Downloads::run() {
  reach(beginning());
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    const Path path = paths_[i];
    for (const Event& event : events(path.model)) follow(path, event);
  }
  states = static_cast<long>(paths_.size());
}

std::vector<Event> Downloads::events(const DownloadModel& model) const {
  const int expected = model.expected_block();
  const int size = model.seen.block_size;
  std::vector<Event> all = {
      right_block(model, std::max(size - 1, 0)),
      right_block(model, 0),
      datagram("right block, too long", tftp::data(expected, block(model, std::max(size, 0) + 100))),
      datagram("previous block", tftp::data(expected - 1, "previous")),
      datagram("next block", tftp::data(expected + 1, "next")),
      datagram("block 0", tftp::data(0, "zero")),
      datagram("block 65535", tftp::data(65535, "last")),
      datagram("right block from elsewhere", tftp::data(expected, "elsewhere"), kStrayPort),
      datagram("ACK", tftp::ack(expected)),
      datagram("ACK 0", tftp::ack(0)),
      datagram("ERROR 0", tftp::error(0, "stop")),
      datagram("ERROR 3", tftp::error(3, "")),
      datagram("ERROR 9", tftp::error(9, "")),
      datagram("RRQ", tftp::rrq("name")),
      datagram("empty datagram", ""),
      datagram("one byte", std::string(1, '\0')),
      datagram("two bytes of DATA", tftp::data(expected, "").substr(0, 2)),
      datagram("three bytes of DATA", tftp::data(expected, "").substr(0, 3)),
      datagram("OACK without options", tftp::oack({})),
      datagram("OACK", tftp::oack({{"timeout", "2"}, {"blksize", "8"}, {"tsize", "20"}})),
      datagram("OACK of unknown names", tftp::oack({{"BLKSIZE", "8"}, {"multicast", ""}})),
      datagram("OACK of a name alone", tftp::oack({}) + "blksize"),
      datagram("OACK blksize 40000", tftp::oack({{"blksize", "40000"}})),
      datagram("OACK blksize -9", tftp::oack({{"blksize", "-9"}})),
      time_out(),
      failed_wait(true),
      failed_wait(false),
      refused_receive(),
      vanished_datagram(),
  };
  if (expected <= kLastFullBlock && size > 0 && size <= TFTP_Packet::kMaxSize)
    all.push_back(right_block(model, size));
  return all;
}

void Downloads::extend(Path& path, const Event& event) const {
  path.model.takes(event);
  path.events.push_back(event);
}

void Downloads::follow(const Path& path, const Event& event) {
  std::vector<Event> variants = {event};
  Path plain = path;
  extend(plain, event);
  if (plain.model.seen.sent.size() > path.model.seen.sent.size()) {
    variants.push_back(with_sends(event, {Sending::kFails}));
    variants.push_back(with_sends(event, {Sending::kSendsNothing}));
  }
  for (const Event& variant : variants) {
    Path next = path;
    extend(next, variant);
    ++transitions;
    play(next);
    if (next.model.seen.result != -1) continue;
    play_to_two_ends(next);
    reach(std::move(next));
  }
}

void Downloads::reach(Path path) {
  // Behind the first reply an earlier packet is forgotten.
  if (!earlier_packet_.empty() && !path.model.awaits_first_reply()) return;
  if (path.model.expected_block() > kLastBlock) {
    ++not_followed;
    return;
  }
  if (known_.insert(path.model.key()).second) paths_.push_back(std::move(path));
}

void Downloads::play_to_two_ends(Path path) {
  Path silent = path;
  for (int i = 0; i < kSilencesThatEnd && silent.model.seen.result == -1; ++i) extend(silent, time_out());
  if (silent.model.seen.result != 0) found("ten silences end a download", "0", names_of(silent.events));
  play(silent);

  extend(path, datagram("a wrong block", tftp::data(path.model.expected_block() + 7, "wrong")));
  if (path.model.seen.result == -1) extend(path, right_block(path.model, 0));
  if (path.model.seen.result == -1) extend(path, right_block(path.model, 1));
  play(path);
}

void Downloads::play(const Path& path) {
  ++runs;
  played_so_far = name_ + names_of(path.events);
  const std::string script = script_of(path.events);
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  played.stops_at_end = true;
  TFTPClient client("127.0.0.1", 69);
  std::copy(earlier_packet_.begin(), earlier_packet_.end(), client.received_packet.getData(0));
  client.received_packet.setSize(static_cast<int>(earlier_packet_.size()));
  Seen seen = seen_of(script, client, played,
                      [](TFTPClient& asked) { return asked.getFile(kRemoteName, kLocalPath); });
  seen.has_file = std::filesystem::exists(kLocalPath);
  if (seen.has_file) seen.file = whole_file(kLocalPath);
  must_agree(path.model.seen, seen);
}

void Downloads::run_over_the_wrap() {
  Path path = beginning();
  extend(path, datagram("OACK blksize 0", tftp::oack({{"blksize", "0"}})));
  const auto leaves_it_waiting = [&](const Event& event) {
    DownloadModel model = path.model;
    model.takes(event);
    return model.seen.result == -1 && model.expected_block() == path.model.expected_block();
  };
  for (long block = 1; block < 65536 + 3; ++block) {
    const bool is_near = path.model.expected_block() >= 65534 || path.model.expected_block() <= 1;
    for (const Event& event : is_near ? events(path.model) : std::vector<Event>()) {
      if (leaves_it_waiting(event)) extend(path, event);
    }
    extend(path, right_block(path.model, 0));
  }
  ++transitions;
  played_so_far = name_;
  play(path);
}

}  // namespace

int main() {
  prepare_process();
  const ScratchDirectory directory;
  long states = 0;
  long transitions = 0;
  long runs = 0;
  long not_followed = 0;
  Downloads("over the wrap", "").run_over_the_wrap();
  for (const std::string& earlier : {std::string(), tftp::error(2, "earlier")}) {
    Downloads downloads(earlier.empty() ? "a new client" : "a client that was refused before", earlier);
    downloads.run();
    states += downloads.states;
    transitions += downloads.transitions;
    runs += downloads.runs;
    not_followed += downloads.not_followed;
    std::printf("%s: %ld states, %ld transitions\n", earlier.empty() ? "new" : "used", downloads.states,
                downloads.transitions);
    std::fflush(stdout);
  }
  std::printf("%ld states, %ld transitions in %ld downloads; %ld behind block %d not followed\n", states,
              transitions, runs, not_followed, kLastBlock);
  return 0;
}
