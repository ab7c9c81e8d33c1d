#include "recorder/link.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace recorder {

namespace {

constexpr int kMostFrameBytes = 262144;
constexpr record::Nanoseconds kSecond = 1000000000;
constexpr std::uint16_t kRawInFiles = 101;  // what libpcap calls DLT_RAW has another number in files
constexpr char kAllLinks[] = "any";

bool is_up(const std::string& name) {
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  name.copy(request.ifr_name, IFNAMSIZ - 1);
  const bool result = ioctl(descriptor, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
  ::close(descriptor);
  return result;
}

void take_frame(u_char* take, const pcap_pkthdr* header, const u_char* bytes) {
  const record::Nanoseconds at = header->ts.tv_sec * kSecond + header->ts.tv_usec;
  (*reinterpret_cast<const Link::Take*>(take))(at, {reinterpret_cast<const char*>(bytes), header->caplen},
                                               header->len);
}

}  // namespace

bool Link::open(const Filter& filter) {
  std::array<char, PCAP_ERRBUF_SIZE> error = {};
  std::unique_ptr<pcap_t, Closes> handle(pcap_create(name_.c_str(), error.data()));
  if (handle == nullptr) throw std::system_error(ENOMEM, std::generic_category(), error.data());
  pcap_set_snaplen(handle.get(), kMostFrameBytes);
  pcap_set_timeout(handle.get(), kBlockMilliseconds);
  pcap_set_buffer_size(handle.get(), static_cast<int>(ring_bytes_));
  pcap_set_tstamp_precision(handle.get(), PCAP_TSTAMP_PRECISION_NANO);
  index_ = name_ == kAllLinks ? 0 : if_nametoindex(name_.c_str());
  const int result = pcap_activate(handle.get());
  lacks_right_ = result == PCAP_ERROR_PERM_DENIED;
  problem_ = result == PCAP_ERROR_NO_SUCH_DEVICE ? "no such link"
             : result == PCAP_ERROR_IFACE_NOT_UP ? "the link is down"
             : lacks_right_
                 ? "the right CAP_NET_RAW is missing: be root, or give it to the program for good: "
                   "setcap cap_net_raw+ep /usr/bin/zirn-run"
             : result < 0 ? pcap_geterr(handle.get())
                          : "";
  if (result < 0) return false;
  std::vector<bpf_insn> instructions = program_of(filter, handle.get());
  bpf_program program = {static_cast<u_int>(instructions.size()), instructions.data()};
  if (pcap_setfilter(handle.get(), &program) != 0 || pcap_setnonblock(handle.get(), 1, error.data()) != 0) {
    problem_ = pcap_geterr(handle.get());
    return false;
  }
  const int kind = pcap_datalink(handle.get());
  link_type_ = kind == DLT_RAW ? kRawInFiles : static_cast<std::uint16_t>(kind);
  handle_ = std::move(handle);
  return true;
}

void Link::close() {
  const pcap_stat counted = count();
  received_ += counted.ps_recv;
  dropped_ += counted.ps_drop;
  handle_.reset();
}

bool Link::is_there() const {
  return name_ == kAllLinks || (if_nametoindex(name_.c_str()) == index_ && is_up(name_));
}

int Link::descriptor() const {
  return is_open() ? pcap_get_selectable_fd(handle_.get()) : -1;
}

std::size_t Link::receive(std::size_t most, const Take& take) {
  if (!is_open()) return 0;
  const int count = pcap_dispatch(handle_.get(), static_cast<int>(most), take_frame,
                                  reinterpret_cast<u_char*>(const_cast<Take*>(&take)));
  return count < 0 ? 0 : static_cast<std::size_t>(count);
}

pcap_stat Link::count() const {
  pcap_stat counted = {};
  if (is_open()) pcap_stats(handle_.get(), &counted);
  return counted;
}

LinkNews::LinkNews()
    : descriptor_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
  sockaddr_nl address = {};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK;
  if (descriptor_ < 0 || bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::system_error(errno, std::generic_category(), "the system does not tell of its links");
}

LinkNews::~LinkNews() {
  ::close(descriptor_);
}

void LinkNews::clear() {
  std::array<char, 4096> nobody_reads = {};
  while (recv(descriptor_, nobody_reads.data(), nobody_reads.size(), 0) > 0 || errno == ENOBUFS) continue;
}

}  // namespace recorder
