#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/script.h"
#include "tftp_packet/tftp_packet.h"

// The parsers on whatever a datagram may hold, in a packet of any capacity; then the builders, and the
// parsers on what was built.

namespace {

constexpr int kMaxLength = 600;
constexpr int kMaxOffset = 700;

void receive(TFTP_Packet& packet, const std::string& datagram) {
  const std::size_t count = std::min(datagram.size(), static_cast<std::size_t>(packet.receivableSize()));
  if (count > 0) std::memcpy(packet.getData(0), datagram.data(), count);
  packet.setSize(static_cast<int>(datagram.size()));
}

void read_text(const TFTP_Packet& packet, int offset, int length) {
  constexpr char kUntouched = '\x5a';
  std::vector<char> text(static_cast<std::size_t>(std::max(length, 1)), kUntouched);
  packet.getString(offset, text.data(), length);
  require(text.back() == kUntouched, "the last byte of the destination is not touched");
  packet.copyData(offset, text.data(), length);
}

void parse(const TFTP_Packet& packet, FuzzedDataProvider& numbers) {
  std::vector<std::string> names;
  std::vector<std::string> values;
  if (packet.hasOption(names, values)) {
    require(packet.isRRQ() || packet.isWRQ(), "only requests have options");
    require(!names.empty(), "what has options has one at least");
  }
  require(names.size() == values.size(), "every option of a request has a value");
  require(packet.isOACK(names, values) == (packet.getWord(0) == 6), "an OACK is known by its opcode");
  require(names.size() == values.size(), "every option of an OACK has a value");
  const int kinds = packet.isRRQ() + packet.isWRQ() + packet.isData() + packet.isACK() + packet.isError();
  require(kinds <= 1, "a packet is of one kind");
  require(packet.isData() || packet.isACK() || packet.getNumber() == 0, "only DATA and ACK have numbers");
  require(packet.sendableSize() <= packet.receivableSize(), "what is sent is within the array");
  for (int i = 0; i < 4; ++i) {
    const int offset = numbers.ConsumeIntegralInRange(-kMaxOffset, kMaxOffset);
    read_text(packet, offset, numbers.ConsumeIntegralInRange(0, kMaxLength));
    require(packet.getWord(offset) == packet.getByte(offset) * 256 + packet.getByte(offset + 1),
            "a word is two bytes");
  }
}

void build(TFTP_Packet& packet, FuzzedDataProvider& bytes) {
  const std::string text = bytes.ConsumeRandomLengthString(kMaxLength);
  const std::vector<std::string> names = {bytes.ConsumeRandomLengthString(20), "blksize"};
  const std::vector<std::string> values = {bytes.ConsumeRandomLengthString(20), "1024"};
  const int number = bytes.ConsumeIntegral<int>();
  switch (bytes.ConsumeIntegralInRange(0, 7)) {
    case 0:
      packet.createRRQ(text, names, values);
      break;
    case 1:
      packet.createWRQ(text);
      break;
    case 2:
      packet.createData(number, text.data(), static_cast<int>(text.size()));
      break;
    case 3:
      packet.createACK(number);
      require(packet.isACK() && packet.getNumber() == (number & 0xFFFF), "an ACK has the number given");
      break;
    case 4:
      packet.createError(number, text);
      break;
    case 5:
      packet.createOACK(names, values);
      break;
    case 6:
      packet.addMemory(text.data(), std::min(number, static_cast<int>(text.size())));
      break;
    default:
      packet.reSizeForBlock(std::min(number, kMaxLength));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider input(bytes, size);
  TFTP_Packet packet;
  packet.reSize(input.ConsumeBool() ? 512 : input.ConsumeIntegralInRange(-4, kMaxLength));
  const std::string datagram = input.ConsumeRandomLengthString(kMaxLength);
  receive(packet, datagram);
  parse(packet, input);
  build(packet, input);
  parse(packet, input);
  return 0;
}
