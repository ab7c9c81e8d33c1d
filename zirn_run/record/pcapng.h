#ifndef RECORD_PCAPNG_H
#define RECORD_PCAPNG_H

#include <cstddef>
#include <cstdint>

// The numbers of the pcapng format (https://datatracker.ietf.org/doc/draft-ietf-opsawg-pcapng/). A file is blocks:
//
//   each block    4  type
//                 4  length of the whole block, a multiple of 4
//                    what the type says, then options: code 2, length 2, value, filled up to a multiple of 4
//                 4  the length again
namespace record::pcapng {

enum BlockType : std::uint32_t {
  kSectionHeader = 0x0a0d0d0a,
  kInterfaceDescription = 1,
  kObsoletePacket = 2,
  kSimplePacket = 3,
  kInterfaceStatistics = 5,
  kEnhancedPacket = 6,
  kJournalExport = 9,
  // Wireshark gives these a number, too.
  kSysdigEvent = 0x204,
  kSysdigEvent2 = 0x216,
  kSysdigEvent2Large = 0x221,
  kCustom = 0xbad,
  kCustomNotCopied = 0x40000bad,
};

enum Option : std::uint16_t {
  kEndOfOptions = 0,
  kComment = 1,
  // section header
  kHardware = 2,
  kOs = 3,
  kApplication = 4,
  // interface description
  kName = 2,
  kTimeResolution = 9,
  kFilter = 11,
  kTimeOffset = 14,
  // interface statistics
  kReceived = 4,
  kDropped = 5,
  kDroppedByOs = 7,
};

constexpr std::uint32_t kByteOrderMagic = 0x1a2b3c4d;
constexpr std::size_t kMostComments = 100;  // of a frame; any others are left out
constexpr std::size_t kHeadBytes = 8;       // of a block: type and length
constexpr std::size_t kFrameBytes = 12;     // of a block around its contents

inline std::size_t filled_up(std::size_t size) {
  return (size + 3) & ~std::size_t{3};
}

}  // namespace record::pcapng

#endif
