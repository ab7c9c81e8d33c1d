#ifndef RECORDER_FILTER_H
#define RECORDER_FILTER_H

#include <pcap/pcap.h>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace recorder {

// A filter expression that libpcap does not take; it says why.
struct WrongFilter : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

// Which frames of a link are recorded, and how much of them.
struct Filter {
  // Bytes of a UDP datagram or of a further IP fragment that are kept where file contents are cut.
  static constexpr std::uint32_t kBytesOfContents = 64;

  std::string expression;               // as tcpdump takes it; empty: every frame
  bool is_whole = false;                // file contents are kept as well
  std::set<std::uint16_t> whole_ports;  // UDP ports whose datagrams are no file contents, whatever they hold
};

// The filter as a program for the link, which must be active or made by pcap_open_dead. Throws WrongFilter.
std::vector<bpf_insn> program_of(const Filter& filter, pcap_t* link);

}  // namespace recorder

#endif
