#include "story/roles.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <utility>

namespace story {

namespace {

using frames::Packet;

constexpr std::string_view kBootScript = "ZIRN install boot script";
constexpr std::size_t kLeastOfBootScript = 12;           // bytes that it is known by
constexpr std::uint32_t kDefaultPptServer = 0xac1e00fe;  // 172.30.0.254

// What follows the two texts; nothing where it is none of them.
std::optional<std::string> value_after(const std::string& word, const std::string& option) {
  if (word.rfind(option, 0) != 0) return std::nullopt;
  const std::string rest = word.substr(option.size());
  const bool is_long = option.rfind("--", 0) == 0;
  if (rest.empty() || rest.front() == '=') return rest.substr(std::min<std::size_t>(1, rest.size()));
  return is_long ? std::nullopt : std::optional<std::string>(rest);
}

// The value of "-n 70", "-n70", "-n=70", "--port 70" and "--port=70" alike, the last one; nothing where the
// option is not there.
std::optional<std::string> option_in(const std::string& command, const std::string& letter,
                                     const std::string& name) {
  std::istringstream words(command);
  std::optional<std::string> found;
  for (std::string word; words >> word;) {
    for (const std::string& option : {letter, name}) {
      const std::optional<std::string> value = value_after(word, option);
      if (!value) continue;
      found = value;
      if (word == option && !(words >> *found)) found = std::nullopt;
      break;
    }
  }
  return found;
}

void read_port(const std::string& command, const std::string& letter, const std::string& name,
               std::uint16_t* port) {
  const std::optional<std::string> value = option_in(command, letter, name);
  if (value) *port = static_cast<std::uint16_t>(std::strtol(value->c_str(), nullptr, 10));
}

bool is_an_address(std::uint32_t address) {
  return address != 0 && address >> 24 != 127;
}

}  // namespace

Roles::Roles(const Given& given, Book* book) : given_(given), book_(book) {
  Reading& reading = book_->reading;
  for (const Role role : {Role::kStation, Role::kBoard, Role::kEveryone}) {
    reading.parties.push_back({role, {}, std::nullopt});
  }
  reading.tftp_port = given.tftp_port.value_or(reading.tftp_port);
  reading.ppt_port = given.ppt_port.value_or(reading.ppt_port);
  reading.message_port = given.message_port.value_or(reading.message_port);
  for (const std::uint32_t address : given.station) make_station(address);
  if (!given.station.empty()) std::fill_n(has_station_, kEvidences, true);
  if (given.ppt_server) make_ppt_server(*given.ppt_server);
}

void Roles::read_command(const std::string& command) {
  if (command.empty()) return;
  Reading& reading = book_->reading;
  if (!given_.tftp_port) read_port(command, "-n", "--port", &reading.tftp_port);
  if (!given_.ppt_port) read_port(command, "-p", "--serverport", &reading.ppt_port);
  if (!given_.message_port) read_port(command, "-m", "--msgport", &reading.message_port);
  const auto station = frames::address_in(option_in(command, "-o", "--ipaddr").value_or(""));
  if (station && is_an_address(*station)) find_station(*station, kServes);
  const std::optional<std::string> server = option_in(command, "-s", "--serverip");
  const auto address = server ? frames::address_in(*server) : kDefaultPptServer;
  if (address && !has_ppt_server_) make_ppt_server(*address);
}

// "Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254"
void Roles::read_line(std::string_view line) {
  std::istringstream words{std::string(line)};
  std::string starting, tftp, server, on, station, ppt, colon, address;
  words >> starting >> tftp >> server >> on >> station >> ppt >> colon >> address;
  if (starting != "Starting" || tftp != "TFTP" || on != "on" || ppt != "PPT") return;
  const std::size_t end = std::min(station.find(':'), station.size());
  const auto serves = frames::address_in(std::string_view(station).substr(0, end));
  if (serves && is_an_address(*serves)) find_station(*serves, kServes);
  if (!given_.tftp_port && end < station.size()) {
    book_->reading.tftp_port =
        static_cast<std::uint16_t>(std::strtol(station.c_str() + end + 1, nullptr, 10));
  }
  const auto asked = frames::address_in(address);
  if (asked && !has_ppt_server_) make_ppt_server(*asked);
}

bool Roles::is_boot_script(const Packet& packet) const {
  if (packet.protocol != Packet::Protocol::kUdp) return false;
  const std::string_view head = packet.payload.substr(0, kBootScript.size());
  return head.size() >= kLeastOfBootScript && kBootScript.substr(0, head.size()) == head &&
         (packet.is_broadcast || packet.destination.port == book_->reading.message_port);
}

bool Roles::is(Role role, std::uint32_t address) const {
  const auto found = parties_.find(address);
  return found != parties_.end() && book_->reading.parties[found->second].role == role;
}

void Roles::learn(const Packet& packet, const frames::TftpMessage& message) {
  const Reading& reading = book_->reading;
  if (is_boot_script(packet)) {
    if (!has_station_[kBroadcasts] && !given_.message_port)
      book_->reading.message_port = packet.destination.port;
    find_station(packet.source.address, kBroadcasts);
  } else if (packet.protocol == Packet::Protocol::kUdp && frames::is_request(message)) {
    if (is_query(message.name)) {
      find_station(packet.source.address, kTalksToPpt);
      if (!has_ppt_server_ && is(Role::kStation, packet.source.address))
        make_ppt_server(packet.destination.address);
    } else if (packet.destination.port == reading.tftp_port && !is(Role::kStation, packet.source.address) &&
               !packet.is_broadcast) {
      find_station(packet.destination.address, kServes);
    }
  }
  learn_from_ports(packet);
  learn_unit(packet);
}

void Roles::learn_from_ports(const Packet& packet) {
  const Reading& reading = book_->reading;
  const bool connects = packet.protocol == Packet::Protocol::kTcp && packet.syn && !packet.ack;
  const std::uint32_t target = packet.destination.address;
  if (connects && !has_ppt_server_ && packet.destination.port == reading.message_port &&
      is(Role::kStation, packet.source.address) && !is(Role::kUnit, target) && !is(Role::kStation, target)) {
    make_ppt_server(target);
  }
  if (has_station_[kTalksToPpt]) return;
  const auto is_ppt = [&](const frames::Endpoint& end) {
    return is(Role::kPptServer, end.address) &&
           (end.port == reading.ppt_port || end.port == reading.message_port || end.port == kRelayPort);
  };
  if (is_ppt(packet.destination) && !is(Role::kUnit, packet.source.address)) {
    find_station(packet.source.address, kTalksToPpt);
  } else if (is_ppt(packet.source) && !is(Role::kUnit, target)) {
    find_station(target, kTalksToPpt);
  }
}

void Roles::learn_unit(const Packet& packet) {
  const Reading& reading = book_->reading;
  if (!is(Role::kStation, packet.destination.address)) return;
  const std::uint16_t port = packet.destination.port;
  const bool sends =
      packet.protocol == Packet::Protocol::kUdp && (port == reading.tftp_port || port == kRelayPort);
  const bool connects =
      packet.protocol == Packet::Protocol::kTcp && packet.syn && !packet.ack && port == reading.message_port;
  if (!sends && !connects) return;
  Party& party = book_->reading.parties[sender_of(packet)];
  if (party.role != Role::kOther) return;
  party.role = Role::kUnit;
  ++book_->reading.revision;
}

void Roles::find_station(std::uint32_t address, Evidence evidence) {
  if (has_station_[evidence] || is(Role::kPptServer, address)) return;
  if (evidence == kTalksToPpt && is(Role::kUnit, address)) return;
  has_station_[evidence] = true;
  make_station(address);
}

void Roles::make_station(std::uint32_t address) {
  std::vector<Party>& parties = book_->reading.parties;
  const auto [found, is_new] = parties_.emplace(address, kStation);
  const std::size_t before = std::exchange(found->second, kStation);
  if (!is_new && before == kStation) return;
  parties[kStation].addresses.push_back(address);
  ++book_->reading.revision;
  if (is_new) return;
  if (!parties[kStation].mac) parties[kStation].mac = parties[before].mac;
  parties[before] = {};
  book_->merge(before, kStation);
}

void Roles::make_ppt_server(std::uint32_t address) {
  const std::size_t party = party_of(address);
  if (party == kStation || party == kEveryone) return;
  book_->reading.parties[party].role = Role::kPptServer;
  has_ppt_server_ = true;
  ++book_->reading.revision;
}

std::size_t Roles::party_of(std::uint32_t address) {
  const auto found = parties_.find(address);
  if (found != parties_.end()) return found->second;
  std::vector<Party>& parties = book_->reading.parties;
  if (parties.size() >= Book::kMaxParties) return kEveryone;
  parties.push_back({Role::kOther, {address}, std::nullopt});
  parties_[address] = parties.size() - 1;
  ++book_->reading.revision;
  return parties.size() - 1;
}

std::size_t Roles::sender_of(const Packet& packet) {
  const std::size_t place = party_of(packet.source.address);
  Party& party = book_->reading.parties[place];
  if (!party.mac && place != kEveryone) party.mac = packet.source_mac;
  return place;
}

std::size_t Roles::receiver_of(const Packet& packet) {
  return packet.is_broadcast ? kEveryone : party_of(packet.destination.address);
}

}  // namespace story
