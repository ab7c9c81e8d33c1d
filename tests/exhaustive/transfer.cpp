// Every state that a read transfer of the server can reach, by every event. A state is the whole record, the
// packets' arrays and the file included, and what a unit that follows the protocol has by then.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "exhaustive/events.h"
#include "exhaustive/failed_allocation.h"
#include "exhaustive/played_file.h"
#include "exhaustive/transfer_model.h"
#include "fuzz/script.h"
#include "fuzz/transfer_client.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/whole_file.h"

namespace {

constexpr int kUnitPort = 2000;
constexpr int kStrayPort = 4242;
constexpr int kSilencesThatEnd = 11;
constexpr int kBlockNumbers = 65536;
// A block that could not be sent is built on: without this limit the file's end would be built on for ever.
constexpr long kBlocksBeyondTheFile = 2;
constexpr int kAnyNumber = -1;
constexpr char kFileName[] = "served";

// What the unit has of the file, and what still holds of it.
struct Unit {
  long accepted = 0;    // blocks, in order
  bool lost = false;    // the server could not send something
  bool strays = false;  // it sent what a unit that follows the protocol does not
  bool cut = false;     // the file could not be read as it was

  // Of a unit of which nothing can be said any more, nothing is told apart.
  void forget_what_does_not_count() {
    if (cut || (lost && strays)) *this = {0, true, true, true};
  }
};

struct State {
  std::vector<std::int32_t> numbers;
  std::string received;
  std::string sent;
  std::string client_ip;
  std::size_t position;
  std::ios::iostate file_state;
  long built = 0;    // blocks
  int failures = 0;  // of sends and reads, while they are counted
  Unit unit;

  std::string key() const {
    std::string result(reinterpret_cast<const char*>(numbers.data()), numbers.size() * sizeof numbers[0]);
    const long rest[] = {static_cast<long>(position),
                         static_cast<long>(file_state),
                         built,
                         failures,
                         unit.accepted,
                         unit.lost,
                         unit.strays,
                         unit.cut};
    result.append(reinterpret_cast<const char*>(rest), sizeof rest);
    // Behind its number a packet is looked at by nobody; that it is kept is compared after every turn.
    return result + received.substr(0, 4) + '|' + sent + '|' + client_ip;
  }
};

std::string whole_array(TFTP_Packet& packet) {
  return {reinterpret_cast<char*>(packet.getData(0)), static_cast<std::size_t>(packet.receivableSize())};
}

void fill(TFTP_Packet& packet, const std::string& array, int size) {
  packet.reSizeForBlock(static_cast<int>(array.size()) - TFTP_Packet::kHeaderSize);
  std::memcpy(packet.getData(0), array.data(), array.size());
  packet.setSize(size);
}

State state_of(ServerClient& record, const PlayedFile& file) {
  return {{record.connected, record.request_type, record.block_number, record.transfer_state, record.timeout,
           record.block_size, record.file_size, record.retries, record.receive_status, record.last_block,
           record.received_packet.size, record.sent_packet.size},
          whole_array(record.received_packet),
          whole_array(record.sent_packet),
          record.client_ip,
          file.position(),
          file.rdstate(),
          0,
          0,
          {}};
}

// The record in this state, with a socket of its own.
std::unique_ptr<ServerClient> record_in(const State& state, const std::string& contents, Reading reading) {
  auto record = std::make_unique<ServerClient>(4);
  std::int32_t* const fields[] = {&record->connected,      &record->request_type, &record->block_number,
                                  &record->transfer_state, &record->timeout,      &record->block_size,
                                  &record->file_size,      &record->retries,      &record->receive_status};
  for (std::size_t i = 0; i < std::size(fields); ++i) *fields[i] = state.numbers[i];
  record->last_block = state.numbers[9] != 0;
  fill(record->received_packet, state.received, state.numbers[10]);
  fill(record->sent_packet, state.sent, state.numbers[11]);
  record->client_ip = state.client_ip;
  record->client_address.sin_port = htons(kUnitPort);
  record->socket_fd = Script::current->new_descriptor();
  record->input_file = new PlayedFile(contents, state.position, state.file_state, reading);
  return record;
}

TransferModel model_of(const ServerClient& record, const State& state, const std::string& contents) {
  TransferModel model;
  model.connected = record.connected != 0;
  model.request_type = record.request_type;
  model.transfer_state = record.transfer_state;
  model.block_number = record.block_number;
  model.retries = record.retries;
  model.receive_status = record.receive_status;
  model.last_block = record.last_block;
  model.timeout = record.timeout;
  model.block_size = record.block_size;
  model.received = state.received;
  model.received_size = record.received_packet.size;
  model.sent = state.sent.substr(0, static_cast<std::size_t>(record.sent_packet.size));
  model.contents = &contents;
  model.position = state.position;
  model.at_end = (state.file_state & std::ios::eofbit) != 0;
  model.unreadable = (state.file_state & std::ios::badbit) != 0;
  return model;
}

void must_agree(const TransferModel& model, ServerClient& record) {
  must_be_same("connected", model.connected, record.connected != 0);
  must_be_same("request_type", model.request_type, record.request_type);
  must_be_same("transfer_state", model.transfer_state, record.transfer_state);
  must_be_same("block_number", model.block_number, record.block_number);
  must_be_same("retries", model.retries, record.retries);
  must_be_same("receive_status", model.receive_status, record.receive_status);
  must_be_same("last_block", model.last_block, record.last_block);
  must_be_same("timeout", model.timeout, record.timeout);
  must_be_same("block_size", model.block_size, record.block_size);
  must_be_same("size of the received packet", model.received_size, record.received_packet.size);
  must_be_same("socket", model.connected, record.socket_fd != -1);
  must_be_same("file", model.connected, record.input_file != nullptr);
  const auto sent_size = static_cast<std::int32_t>(model.sent.size());
  must_be_same("size of the sent packet", sent_size, record.sent_packet.size);
  if (!model.connected) return;
  must_be_same("received packet", {model.received}, {whole_array(record.received_packet)});
  must_be_same("sent packet", {model.sent}, {whole_array(record.sent_packet).substr(0, model.sent.size())});
  must_be_same("position in the file", model.position,
               static_cast<PlayedFile&>(*record.input_file).position());
}

// One turn of the client's thread, as it takes it.
struct Turn {
  int receive_result;
  int send_result = -1;
  bool is_over;
};

Turn take_turn(ServerClient* record) {
  Turn turn = {server_under_fuzz().Receive(record), -1, true};
  if (turn.receive_result == 0) return turn;
  turn.send_result = server_under_fuzz().Send(record);
  turn.is_over = turn.send_result == 0 || record->connected == 0;
  return turn;
}

std::uint16_t word(const std::string& packet, std::size_t offset) {
  return static_cast<std::uint16_t>((packet[offset] & 0xFF) << 8 | (packet[offset + 1] & 0xFF));
}

class Search {
 public:
  Search(std::string name, const std::string& contents, const tftp::Options& options, int block_size)
      : name_(std::move(name)), contents_(contents), options_(options), block_size_(block_size) {}

  // From the state behind the request, whose sends come out so; `driven` blocks are read before, in order.
  void run(const std::vector<Sending>& first_sends, long driven = 0);

  int max_failures = kAnyNumber;  // of sends and reads in one run
  long states = 0;
  long transitions = 0;
  long not_followed = 0;
  long failed_allocations = 0;

 private:
  struct Node {
    State state;
    int from;
    std::string by;
  };
  struct Outcome {
    State state;
    bool is_over;
    std::size_t sends;
    int reads;
    long allocations;
  };

  State start(const std::vector<Sending>& first_sends);
  State drive(State state, long blocks);
  void expand(int node);
  std::vector<Event> events(const State& state) const;
  void follow(int node, const Event& event);
  Outcome play(const State& before, const Event& event, Reading reading);
  void reach(Outcome outcome, int from, const std::string& by);
  void observe(Unit& unit, const TransferModel::Turn& turn, const Event& event, Reading reading) const;
  static bool may_say(const Unit& unit, const std::string& datagram);
  void take_packet(Unit& unit, const std::string& packet, bool is_sent) const;
  std::string block(long index) const;
  long blocks() const { return static_cast<long>(contents_.size()) / block_size_ + 1; }
  void fall_silent(const State& state) const;
  void stays_ended(ServerClient* record) const;
  void fail_each_allocation(const State& before, const Event& event, long count);
  std::string path_to(int node) const;

  const std::string name_;
  const std::string& contents_;
  const tftp::Options options_;
  const int block_size_;
  std::vector<Node> nodes_;
  std::string path_;  // to the node that is expanded
  std::unordered_map<std::string, int> known_;
};

void Search::run(const std::vector<Sending>& first_sends, long driven) {
  nodes_.clear();
  known_.clear();
  played_so_far = name_;
  reach({drive(start(first_sends), driven), false, 0, 0, 0}, -1, "request");
  for (int node = 0; node < static_cast<int>(nodes_.size()); ++node) expand(node);
  states += static_cast<long>(nodes_.size());
}

State Search::start(const std::vector<Sending>& first_sends) {
  write_whole_file(kFileName, contents_);
  const std::string script =
      script_of(with_sends(datagram("request", tftp::rrq(kFileName, options_)), first_sends));
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  const Printed printed;
  const auto record = record_of(played.take());
  record->client_address.sin_port = htons(kUnitPort);
  if (server_under_fuzz().ProcessRequest(record.get()) == 0) found("the request is accepted", "1", "0");
  const auto position =
      static_cast<std::size_t>(record->block_number) * static_cast<std::size_t>(block_size_);
  const PlayedFile file(contents_, std::min(position, contents_.size()), record->input_file->rdstate(),
                        Reading::kAll);
  State result = state_of(*record, file);
  result.built = record->block_number;
  const bool is_sent = first_sends.empty() || first_sends[0] == Sending::kSucceeds;
  result.unit.lost = !is_sent;
  take_packet(result.unit, played.sent.at(0), is_sent);
  return result;
}

State Search::drive(State state, long driven) {
  while (state.unit.accepted < driven) {
    state = play(state, datagram("right ACK", tftp::ack(state.numbers[2])), Reading::kAll).state;
  }
  return state;
}

void Search::expand(int node) {
  path_ = path_to(node);
  played_so_far = path_;
  fall_silent(nodes_[static_cast<std::size_t>(node)].state);
  for (const Event& event : events(nodes_[static_cast<std::size_t>(node)].state)) follow(node, event);
}

std::vector<Event> Search::events(const State& state) const {
  const int block = state.numbers[2];
  const std::string excess(600, 'x');
  return {datagram("right ACK", tftp::ack(block)),
          datagram("previous ACK", tftp::ack(block - 1)),
          datagram("next ACK", tftp::ack(block + 1)),
          datagram("ACK 0", tftp::ack(0)),
          datagram("ACK 65535", tftp::ack(65535)),
          datagram("right ACK from elsewhere", tftp::ack(block), kStrayPort),
          datagram("ERROR from elsewhere", tftp::error(5, ""), kStrayPort),
          datagram("right ACK and more", tftp::ack(block) + "more"),
          datagram("right ACK and too much", tftp::ack(block) + excess),
          datagram("DATA", tftp::data(block, "x")),
          datagram("too long DATA", tftp::data(block, excess)),
          datagram("ERROR", tftp::error(0, "stop")),
          datagram("RRQ", tftp::rrq(kFileName)),
          datagram("OACK", tftp::oack({})),
          datagram("empty datagram", ""),
          datagram("one byte 0", std::string(1, '\0')),
          datagram("one byte 4", "\4"),
          datagram("two bytes of an ACK", tftp::ack(block).substr(0, 2)),
          datagram("three bytes of the right ACK", tftp::ack(block).substr(0, 3)),
          time_out(),
          failed_wait(true),
          failed_wait(false),
          refused_receive()};
}

// The event, then each way in which the sends and reads that it causes can come out.
void Search::follow(int node, const Event& event) {
  constexpr auto kFails = Sending::kFails;
  constexpr auto kSucceeds = Sending::kSucceeds;
  const State before = nodes_[static_cast<std::size_t>(node)].state;
  played_so_far = path_ + "; " + event.name;
  const Outcome plain = play(before, event, Reading::kAll);
  reach(plain, node, event.name);
  if (before.failures == 0 && !before.unit.lost) fail_each_allocation(before, event, plain.allocations);
  if (before.failures == max_failures) return;
  std::vector<std::vector<Sending>> variants;
  if (plain.sends >= 1) variants = {{kFails}, {Sending::kSendsNothing}};
  if (plain.sends >= 2) variants.insert(variants.end(), {{kSucceeds, kFails}, {kFails, kFails}});
  for (const auto& sends : variants) {
    const Event variant = with_sends(event, sends);
    played_so_far = path_ + "; " + variant.name;
    reach(play(before, variant, Reading::kAll), node, variant.name);
  }
  for (Reading reading : {Reading::kHalfAndEnd, Reading::kError}) {
    if (plain.reads == 0) break;
    const std::string name = event.name + (reading == Reading::kError ? ", failed read" : ", short read");
    played_so_far = path_ + "; " + name;
    reach(play(before, event, reading), node, name);
  }
}

Search::Outcome Search::play(const State& before, const Event& event, Reading reading) {
  ++transitions;
  const std::string script = script_of(event);
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  const auto record = record_in(before, contents_, reading);
  TransferModel model = model_of(*record, before, contents_);
  const int timeout = record->timeout;
  const TransferModel::Turn expected = model.takes(event, reading);
  const Printed printed;
  const long allocations_before = allocations_so_far();
  const Turn seen = take_turn(record.get());
  const long allocations = allocations_so_far() - allocations_before;
  must_be_same("printed", expected.printed, printed.text());
  must_be_same("sent", expected.sent, played.sent);
  must_be_same("result of Receive", expected.receive_result, seen.receive_result);
  must_be_same("result of Send", expected.send_result, seen.send_result);
  must_be_same("waits", std::size_t{1}, played.waits.size());
  must_be_same("wait in seconds", long{timeout}, played.waits[0]);
  for (int port : played.destinations) must_be_same("port that is sent to", kUnitPort, port);
  must_agree(model, *record);

  Outcome outcome = {before, seen.is_over, played.sent.size(), expected.reads, allocations};
  if (record->connected != 0) {
    outcome.state = state_of(*record, static_cast<PlayedFile&>(*record->input_file));
    outcome.state.built = before.built + expected.reads;
    const bool fails = reading != Reading::kAll || !event.sends.empty();
    outcome.state.failures = before.failures + (fails && max_failures != kAnyNumber ? 1 : 0);
    outcome.state.unit = before.unit;
  } else {
    stays_ended(record.get());
  }
  observe(outcome.state.unit, expected, event, reading);
  return outcome;
}

void Search::reach(Outcome outcome, int from, const std::string& by) {
  if (outcome.is_over) return;
  if (outcome.state.built > blocks() + kBlocksBeyondTheFile) {
    ++not_followed;
    return;
  }
  if (!known_.emplace(outcome.state.key(), static_cast<int>(nodes_.size())).second) return;
  nodes_.push_back({std::move(outcome.state), from, by});
}

// What a unit that follows the protocol makes of the turn, and what must hold of it.
void Search::observe(Unit& unit, const TransferModel::Turn& turn, const Event& event, Reading reading) const {
  if (reading != Reading::kAll && turn.reads > 0) unit.cut = true;
  if (event.brings == Brings::kDatagram && !may_say(unit, event.datagram)) unit.strays = true;
  for (std::size_t i = 0; i < turn.sent.size(); ++i) {
    const bool is_sent = i >= event.sends.size() || event.sends[i] == Sending::kSucceeds;
    if (!is_sent) unit.lost = true;
    take_packet(unit, turn.sent[i], is_sent);
  }
  if (turn.is_finished && !unit.strays && !unit.cut && unit.accepted != blocks()) {
    found("a unit that acknowledged to the end has the whole file", std::to_string(blocks()) + " blocks",
          std::to_string(unit.accepted));
  }
  unit.forget_what_does_not_count();
}

// A unit that follows the protocol acknowledges the last block that it has, or says again what it said
// before.
bool Search::may_say(const Unit& unit, const std::string& datagram) {
  if (datagram.size() < 4 || word(datagram, 0) != 4) return false;
  const int behind = static_cast<std::uint16_t>(unit.accepted - word(datagram, 2));
  return behind <= unit.accepted && behind < kBlockNumbers / 2;
}

void Search::take_packet(Unit& unit, const std::string& packet, bool is_sent) const {
  if (!is_sent || unit.cut || packet.size() < 4 || word(packet, 0) != 3) return;
  const bool has_all = unit.accepted == blocks();
  const int number = word(packet, 2);
  const bool is_next = number == (unit.accepted + 1) % kBlockNumbers;
  const bool is_again = unit.accepted > 0 && number == unit.accepted % kBlockNumbers;
  if (!is_next && !is_again) {
    if (unit.lost) return;
    found("blocks come in order", "block " + std::to_string(unit.accepted) + " or the next",
          tftp::in_words(packet));
  }
  if (is_next && has_all) {
    if (unit.lost) return;  // what could not be sent was built on
    found("nothing comes behind the last block", "", tftp::in_words(packet));
  }
  if (is_next) ++unit.accepted;
  must_be_same("a block has its part of the file", {tftp::data(number, block(unit.accepted - 1))}, {packet});
}

std::string Search::block(long index) const {
  const std::size_t offset = static_cast<std::size_t>(index) * static_cast<std::size_t>(block_size_);
  return offset > contents_.size() ? "" : contents_.substr(offset, static_cast<std::size_t>(block_size_));
}

// From here on nobody says anything more: the last packet goes out again until the waits in a row are eleven.
void Search::fall_silent(const State& state) const {
  const std::string script(kSilencesThatEnd, 'T');
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  const auto record = record_in(state, contents_, Reading::kAll);
  const int silences = kSilencesThatEnd - record->retries;
  const std::string last = state.sent.substr(0, static_cast<std::size_t>(record->sent_packet.size));
  const Printed printed;
  std::string lines;
  int turns = 0;
  for (bool is_over = false; !is_over && turns < silences; ++turns, lines += "Client timeout\n") {
    is_over = take_turn(record.get()).is_over;
  }
  must_be_same("silences until the end", silences, turns);
  must_be_same("still connected after them", 0, record->connected);
  must_be_same("printed in silence", lines, printed.text());
  must_be_same("sent in silence", std::vector<std::string>(static_cast<std::size_t>(silences - 1), last),
               played.sent);
  stays_ended(record.get());
}

// The thread of a client that is disconnected ends without a wait and without a word.
void Search::stays_ended(ServerClient* record) const {
  const std::string empty;
  const std::size_t sent = Script::current->sent.size();
  const std::size_t waits = Script::current->waits.size();
  ClientProc(record);
  must_be_same("sent after the disconnect", sent, Script::current->sent.size());
  must_be_same("waits after the disconnect", waits, Script::current->waits.size());
}

// A thread that gets no memory drops its client: it ends, and nothing is sent any more.
void Search::fail_each_allocation(const State& before, const Event& event, long count) {
  const std::string script = script_of(event);
  for (int nth = 1; nth <= count; ++nth) {
    Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
    const auto record = record_in(before, contents_, Reading::kAll);
    Printed printed;
    printed.reserves(1024);  // the stream would hide the failure
    FailedAllocation failed(nth);
    ClientProc(record.get());
    if (!failed.struck()) continue;
    ++failed_allocations;
    must_be_same("connected after a failed allocation", 0, record->connected);
    must_be_same("socket after a failed allocation", -1, record->socket_fd);
    must_be_same("sent after a failed allocation", failed.sent_before(), played.sent.size());
  }
}

std::string Search::path_to(int node) const {
  if (node == -1) return name_;
  const Node& reached = nodes_[static_cast<std::size_t>(node)];
  return path_to(reached.from) + "; " + reached.by;
}

constexpr int kSmallBlock = 8;

tftp::Options small_blocks() {
  return {{"blksize", std::to_string(kSmallBlock)}, {"timeout", "7"}, {"tsize", "0"}};
}

struct Totals {
  long states = 0;
  long transitions = 0;
  long not_followed = 0;
  long failed_allocations = 0;
  void add(const Search& search) {
    states += search.states;
    transitions += search.transitions;
    not_followed += search.not_followed;
    failed_allocations += search.failed_allocations;
  }
};

}  // namespace

int main() {
  prepare_process();
  const ScratchDirectory directory;
  Totals totals;
  const auto run = [&](const std::string& name, int size, const tftp::Options& options, int block_size,
                       int max_failures, long driven = 0) {
    const std::string contents = noise(static_cast<std::size_t>(size));
    Search search(name + " of " + std::to_string(size) + " bytes", contents, options, block_size);
    search.max_failures = max_failures;
    search.run({}, driven);
    if (driven == 0) search.run({Sending::kFails});
    std::printf("%-32s %7ld states %8ld transitions\n",
                (name + ", " + std::to_string(size) + " bytes").c_str(), search.states, search.transitions);
    std::fflush(stdout);
    totals.add(search);
  };
  run("over the wrap", 8 * 65537 + 3, small_blocks(), kSmallBlock, 0, 65533);
  for (const int size : {0, 512}) run("plain", size, {}, 512, kAnyNumber);
  for (const int size : {511, 1024, 1300}) run("plain", size, {}, 512, 1);
  for (const int size : {700, 1536}) run("plain", size, {}, 512, 0);
  for (const int size : {0, 7, 8, 12, 20}) run("negotiated", size, small_blocks(), kSmallBlock, 1);
  for (const int size : {16, 24}) run("negotiated", size, small_blocks(), kSmallBlock, 0);
  std::printf("%ld states, %ld transitions; %ld beyond the end not followed; %ld failed allocations\n",
              totals.states, totals.transitions, totals.not_followed, totals.failed_allocations);
  return 0;
}
