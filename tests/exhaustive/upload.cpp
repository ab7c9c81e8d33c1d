// Every upload of a file of up to three blocks, with every sequence of replies and silences.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "exhaustive/client.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/whole_file.h"

namespace {

constexpr char kRemoteName[] = "remote";
constexpr char kLocalPath[] = "local";
constexpr std::size_t kDepth = 3;  // replies that are chosen; those that follow are time-outs
constexpr int kWaitsOfADirectory = 5;

class Uploads {
 public:
  explicit Uploads(const std::string& contents) : contents_(contents) {
    write_whole_file(kLocalPath, contents);
  }
  Uploads() : is_directory_(true) { std::filesystem::create_directory(kLocalPath); }
  ~Uploads() { std::filesystem::remove_all(kLocalPath); }
  Uploads(const Uploads&) = delete;
  Uploads& operator=(const Uploads&) = delete;

  void run(std::size_t depth);

  long sequences = 0;
  long transitions = 0;

 private:
  void branch(const UploadModel& model, std::size_t depth);
  void finish(UploadModel model);
  void play(const UploadModel& model);
  static std::vector<Event> events(int block);

  const std::string contents_;
  const bool is_directory_ = false;
  std::vector<Event> path_;
};

void Uploads::run(std::size_t depth) {
  branch(UploadModel(kRemoteName, contents_, !is_directory_), depth);
}

std::vector<Event> Uploads::events(int block) {
  const Event right = datagram("right ACK", tftp::ack(block));
  return {right,
          with_sends(right, {Sending::kFails}),
          with_sends(right, {Sending::kSendsNothing}),
          datagram("previous ACK", tftp::ack(block - 1)),
          datagram("next ACK", tftp::ack(block + 1)),
          datagram("ACK 65535", tftp::ack(65535)),
          datagram("ACK from elsewhere", tftp::ack(block), kStrayPort),
          datagram("right ACK and too much", tftp::ack(block) + std::string(600, 'x')),
          datagram("DATA", tftp::data(block, "x")),
          datagram("ERROR 0", tftp::error(0, "a text of its own")),
          datagram("ERROR 0 without text", tftp::error(0, "").substr(0, 4)),
          datagram("ERROR 3", tftp::error(3, "")),
          datagram("ERROR 8", tftp::error(8, "")),
          datagram("RRQ", tftp::rrq("name")),
          datagram("OACK", tftp::oack({{"blksize", "8"}})),
          datagram("empty datagram", ""),
          datagram("one byte", "\4"),
          datagram("two bytes of an ACK", tftp::ack(block).substr(0, 2)),
          datagram("three bytes of an ACK", tftp::ack(block).substr(0, 3)),
          time_out(),
          failed_wait(true),
          failed_wait(false),
          refused_receive(),
          vanished_datagram()};
}

void Uploads::branch(const UploadModel& model, std::size_t depth) {
  if (model.seen.result != -1 || path_.size() == depth) return finish(model);
  for (const Event& event : events(model.block())) {
    UploadModel next = model;
    next.takes(event);
    ++transitions;
    path_.push_back(event);
    branch(next, depth);
    path_.pop_back();
  }
}

void Uploads::finish(UploadModel model) {
  const std::vector<Event> chosen = path_;
  while (model.seen.result == -1 && path_.size() < kWaitsOfADirectory) {
    path_.push_back(time_out());
    model.takes(path_.back());
  }
  play(model);
  path_ = chosen;
}

void Uploads::play(const UploadModel& model) {
  ++sequences;
  played_so_far = std::to_string(contents_.size()) + " bytes" + names_of(path_);
  const std::string script = script_of(path_);
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  played.stops_at_end = true;
  TFTPClient client("127.0.0.1", 69);
  const Seen seen = seen_of(script, client, played,
                            [](TFTPClient& asked) { return asked.sendFile(kLocalPath, kRemoteName); });
  Seen expected = model.seen;
  expected.received.assign(TFTP_Packet::kMaxSize, '\0');
  must_agree(expected, seen);
}

// A file of more blocks than there are numbers.
void run_over_the_wrap() {
  constexpr std::size_t kBlock = 512;
  constexpr std::size_t kBlocks = 65537;
  write_whole_file(kLocalPath, "");
  std::filesystem::resize_file(kLocalPath, kBlock * kBlocks + 1);
  const std::string script(kBlocks + 1, 'T');
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  played.stops_at_end = true;
  TFTPClient client("127.0.0.1", 69);
  played_so_far = "over the wrap";
  const Printed printed;
  must_be_same("result", 1, client.sendFile(kLocalPath, kRemoteName));
  must_be_same("packets", kBlocks + 2, played.sent.size());
  for (std::size_t block = 1; block < played.sent.size(); ++block) {
    const std::string bytes(block <= kBlocks ? kBlock : 1, '\0');
    must_be_same("block", {tftp::data(static_cast<int>(block % 65536), bytes)}, {played.sent[block]});
  }
  std::filesystem::remove(kLocalPath);
}

void run_without_file() {
  Script played(nullptr, 0);
  TFTPClient client("127.0.0.1", 69);
  played_so_far = "no file";
  const Printed printed;
  must_be_same("result", 0, client.sendFile(kLocalPath, kRemoteName));
  must_be_same("printed", std::string("Unable to open file local\n"), printed.text());
  must_be_same("packets", std::size_t{0}, played.sent.size());
}

}  // namespace

int main() {
  prepare_process();
  const ScratchDirectory directory;
  long sequences = 0;
  long transitions = 0;
  const auto run = [&](Uploads&& uploads, std::size_t depth) {
    uploads.run(depth);
    sequences += uploads.sequences;
    transitions += uploads.transitions;
  };
  for (const int size : {0, 1, 511, 512, 1000, 1024, 1300, 1536, 2047}) {
    run(Uploads(noise(static_cast<std::size_t>(size))), kDepth);
  }
  run(Uploads(), 2);
  run_without_file();
  run_over_the_wrap();
  std::printf("%ld sequences of replies to depth %zu, %ld transitions\n", sequences, kDepth, transitions);
  return 0;
}
