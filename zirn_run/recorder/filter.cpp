#include "recorder/filter.h"

#include <optional>

// The result of a filter is the number of bytes that the kernel keeps of a frame: what is cut here is never copied.
// libpcap makes programs that keep all or nothing, so several of them stand in a row, each with its ends changed:
//
//   a frame of the station?      no: keep nothing   yes: the next program
//   a DATA block?                no: the next one   yes: keep the headers and 64 bytes of the datagram
//   a further IP fragment?       no: the next one   yes: keep the header and 64 bytes
//   keep all
//
// A return is as long as a jump, so that one takes the other's place. libpcap turns each constant that a program
// returns, but 0, into the largest there is, and leaves alone what is returned from the accumulator: all lengths are
// returned from there. A program for a cooked link ("any") is written as if the cooked header stood before the frame;
// libpcap moves its offsets, since the kernel gives it what comes behind that header, and counts from there.
namespace recorder {

namespace {

constexpr std::uint32_t kAll = 262144;        // as many as fit into the record
constexpr std::uint32_t kIpHeaderBytes = 20;  // without options
constexpr std::uint32_t kUdpHeaderBytes = 8;

using Program = std::vector<bpf_insn>;

struct LinkHeader {
  std::uint32_t bytes;    // before the IP header
  std::uint32_t counted;  // of these, by the kernel
};

// Nothing for a kind of link whose frames are kept whole.
std::optional<LinkHeader> link_header_of(int kind) {
  switch (kind) {
    case DLT_EN10MB:
      return LinkHeader{14, 14};
    case DLT_LINUX_SLL:
      return LinkHeader{16, 0};
    case DLT_LINUX_SLL2:
      return LinkHeader{20, 0};
    case DLT_RAW:
      return LinkHeader{0, 0};
    default:
      return std::nullopt;
  }
}

bpf_insn instruction(unsigned code, std::uint32_t operand = 0) {
  return {static_cast<u_short>(code), 0, 0, operand};
}

Program compiled(const std::string& expression, pcap_t* link) {
  bpf_program program = {};
  if (pcap_compile(link, &program, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
    throw WrongFilter(pcap_geterr(link));
  Program copy(program.bf_insns, program.bf_insns + program.bf_len);
  pcap_freecode(&program);
  return copy;
}

// How many instructions behind a program's last one it goes on; nothing: it returns there.
struct Ends {
  std::optional<std::size_t> yes;
  std::optional<std::size_t> no;
};

void append(Program program, const Ends& ends, Program* all) {
  for (std::size_t i = 0; i < program.size(); ++i) {
    if (BPF_CLASS(program[i].code) != BPF_RET) continue;
    const std::optional<std::size_t> behind = program[i].k != 0 ? ends.yes : ends.no;
    if (!behind) continue;
    program[i] = instruction(BPF_JMP | BPF_JA, static_cast<std::uint32_t>(program.size() - i - 1 + *behind));
  }
  all->insert(all->end(), program.begin(), program.end());
}

// Keeps so many bytes behind the IP header, and all that stands before them, of frames for which the expression holds.
// A program that reads beyond a frame's end takes nothing of it, so that shorter frames are passed over first.
void append_cut(const std::string& expression, LinkHeader header, std::uint32_t bytes, pcap_t* link,
                Program* all) {
  const std::uint32_t shortest = header.counted + kIpHeaderBytes + bytes;
  const Program keep = {instruction(BPF_LDX | BPF_B | BPF_MSH, header.bytes), instruction(BPF_MISC | BPF_TXA),
                        instruction(BPF_ALU | BPF_ADD, header.counted + bytes), instruction(BPF_RET | BPF_A)};
  append(compiled("len > " + std::to_string(shortest) + " and " + expression, link), {0, keep.size()}, all);
  all->insert(all->end(), keep.begin(), keep.end());
}

}  // namespace

Program program_of(const Filter& filter, pcap_t* link) {
  Program all;
  append(compiled(filter.expression, link), {0, std::nullopt}, &all);
  const std::optional<LinkHeader> header = link_header_of(pcap_datalink(link));
  if (header && !filter.is_whole) {
    std::string data = "udp[8:2] = 3";
    for (const std::uint16_t port : filter.whole_ports) data += " and not udp port " + std::to_string(port);
    append_cut(data, *header, kUdpHeaderBytes + Filter::kBytesOfContents, link, &all);
    append_cut("ip proto 17 and ip[6:2] & 0x1fff != 0", *header, Filter::kBytesOfContents, link, &all);
  }
  all.push_back(instruction(BPF_LD | BPF_IMM, kAll));
  all.push_back(instruction(BPF_RET | BPF_A));
  return all;
}

}  // namespace recorder
