#include "picture/transfers.h"

#include <string>

#include "picture/arrows.h"
#include "picture/bundling.h"
#include "picture/words.h"

namespace picture {

namespace {

constexpr std::size_t kDefaultBlockBytes = 512;
constexpr std::size_t kMaxBlocksAsArrows = 3;

using Kind = TftpMessage::Kind;

bool is_block_or_ack(const TftpMessage& message) {
  return message.kind == Kind::kData || message.kind == Kind::kAck;
}

// Tells the packets of one transfer, as many of them as arrows as it takes to see what happened: the same
// message of the same side, when nothing of the transfer was in between, is sent again; from its second time
// on it is counted.
class Teller {
 public:
  explicit Teller(std::vector<Event>* events) : events_(events) {}

  void tell(const Packet& packet, bool from_client, const std::string& text, bool is_again) {
    std::string& last = from_client ? last_of_client_ : last_of_server_;
    const bool repeats = is_again || last == text;
    last = text;
    const std::string told = repeats ? text + ", again" : text;
    const bool same_as_before = repeats && told == told_last_ && from_client == from_client_last_;
    told_last_ = told;
    from_client_last_ = from_client;
    if (same_as_before) {
      fold_into(&events_->back(), packet.at, packet.fate);
      return;
    }
    const bool verdict = is_verdict(tftp_message_in(packet.payload, packet.payload_size));
    const bool from_unit = packet.source_lane == Lane::kUnit;
    const Event::Look look = verdict && from_unit ? Event::Look::kVerdict : Event::Look::kDatagram;
    events_->push_back(arrow_of(packet, look, told));
  }

 private:
  std::vector<Event>* const events_;
  std::string last_of_client_;
  std::string last_of_server_;
  std::string told_last_;
  bool from_client_last_ = false;
};

// The data goes from `sender` to `receiver`.
Event bundle_event(const Bundle& bundle, Lane sender, Lane receiver) {
  Event event = event_of(Event::Kind::kBundle, bundle.packets.front().at, bundle.packets.back().at, "");
  event.bundle = std::make_shared<Bundle>(bundle);
  event.last = bundle.packets.size();
  event.source = sender;
  event.target = receiver;
  return event;
}

}  // namespace

Transfers::Transfers(const Ports& ports) : ports_(ports) {}

bool Transfers::take(const Packet& packet) {
  Step step{packet, tftp_message_in(packet.payload, packet.payload_size), false};
  const bool to_server = is_to_server(packet);
  Transfer* const mine = find({packet.source, packet.source_port}, packet.destination_port);
  // A server may answer from the port that requests go to.
  const bool begins = to_server && (mine == nullptr || is_request(step.message));
  if (!begins && mine == nullptr) return take_answer(step);
  step.from_client = true;
  if (begins) {
    begin(step);
  } else {
    mine->steps.push_back(step);
  }
  return true;
}

bool Transfers::is_to_server(const Packet& packet) const {
  if (packet.target_lane == Lane::kStation) {
    return packet.source_lane == Lane::kUnit && packet.destination_port == ports_.tftp;
  }
  return packet.target_lane == Lane::kPptServer && packet.destination_port == ports_.ppt;
}

bool Transfers::take_answer(const Step& step) {
  const Client receiver{step.packet.destination, step.packet.destination_port};
  if (latest_.count(receiver) == 0) return false;
  Transfer* transfer = find(receiver, step.packet.source_port);
  if (transfer == nullptr) {
    const std::size_t place = take_unanswered(receiver);
    answered_[{receiver, step.packet.source_port}] = place;
    transfer = &transfers_[place];
  }
  transfer->steps.push_back(step);
  return true;
}

void Transfers::begin(const Step& request) {
  const Client client{request.packet.source, request.packet.source_port};
  Transfer transfer;
  transfer.request = request.message;
  transfer.steps.push_back(request);
  if (const Transfer* const before = latest(client)) {
    bool client_went_on = false;
    for (std::size_t i = 1; i < before->steps.size(); ++i) client_went_on |= before->steps[i].from_client;
    transfer.repeats_request = !client_went_on && in_words(before->request) == in_words(transfer.request);
  }
  // Answers from that very port belong to this request from now on.
  answered_.erase({client, request.packet.destination_port});
  latest_[client] = transfers_.size();
  if (!request.packet.fate.lost) unanswered_[client].push_back(transfers_.size());
  transfers_.push_back(transfer);
}

// The youngest one with these ends: ports are used again.
Transfers::Transfer* Transfers::find(const Client& client, std::uint16_t server_port) {
  const auto found = answered_.find({client, server_port});
  return found == answered_.end() ? nullptr : &transfers_[found->second];
}

Transfers::Transfer* Transfers::latest(const Client& client) {
  const auto found = latest_.find(client);
  return found == latest_.end() ? nullptr : &transfers_[found->second];
}

// The place of the one that a first answer belongs to.
std::size_t Transfers::take_unanswered(const Client& client) {
  std::deque<std::size_t>& waiting = unanswered_[client];
  if (!waiting.empty()) {
    const std::size_t place = waiting.front();
    waiting.pop_front();
    return place;
  }
  Transfer transfer;
  transfer.request = latest(client)->request;
  transfer.is_second_answer = true;
  transfers_.push_back(transfer);
  return transfers_.size() - 1;
}

std::vector<Event> Transfers::events() const {
  std::vector<Event> events;
  std::map<Client, std::size_t> last_repetition;  // where among the events
  for (const Transfer& transfer : transfers_) {
    const Step& first = transfer.steps.front();
    const Client client{first.packet.source, first.packet.source_port};
    const auto before = last_repetition.find(client);
    if (!transfer.repeats_request) {
      last_repetition.erase(client);
      tell(transfer, 0, &events);
    } else if (before == last_repetition.end()) {
      last_repetition[client] = events.size();
      tell(transfer, 0, &events);
    } else {
      fold_into(&events[before->second], first.packet.at, first.packet.fate);
      tell(transfer, 1, &events);
    }
  }
  return events;
}

// A transfer of few blocks is told packet by packet; of a longer one, the blocks and ACKs are one event.
void Transfers::tell(const Transfer& transfer, std::size_t first_step, std::vector<Event>* events) {
  Bundling bundling(printable(transfer.request.name), block_size_of(transfer));
  Packet first_data;
  for (const Step& step : transfer.steps) {
    if (!is_block_or_ack(step.message)) continue;
    if (step.message.kind == Kind::kData && bundling.bundle().blocks == 0) first_data = step.packet;
    bundling.add(step.packet.at, step.message, step.packet.fate);
  }
  const bool is_long = bundling.bundle().blocks > kMaxBlocksAsArrows;
  Teller teller(events);
  const bool is_further = transfer.is_second_answer || transfer.repeats_request;
  for (std::size_t i = first_step; i < transfer.steps.size(); ++i) {
    const Step& step = transfer.steps[i];
    if (is_long && is_block_or_ack(step.message)) continue;
    std::string text = in_words(step.message);
    if (is_further && !step.from_client) text += ", for " + printable(transfer.request.name);
    teller.tell(step.packet, step.from_client, text, i == 0 && transfer.repeats_request);
  }
  if (!is_long) return;
  events->push_back(bundle_event(bundling.bundle(), first_data.source_lane, first_data.target_lane));
}

// What the server acknowledged; without that, the default.
std::size_t Transfers::block_size_of(const Transfer& transfer) {
  for (const Step& step : transfer.steps) {
    const std::size_t size = option_number(step.message, "blksize");
    if (step.message.kind == Kind::kOptionAck && size > 0) return size;
  }
  return kDefaultBlockBytes;
}

}  // namespace picture
