#include "tftp_packet/tftp_packet.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <utility>

namespace {

enum Opcode : std::uint16_t { kRRQ = 1, kWRQ = 2, kDATA = 3, kACK = 4, kERROR = 5, kOACK = 6 };

constexpr int kOpcodeSize = 2;
constexpr int kFileNameOffset = 2;
constexpr int kNumberOffset = 2;  // of a block number or an error code
constexpr int kErrorTextOffset = 4;
constexpr int kShortTextSize = 256;  // with its NUL

// Of code 0, which carries its text in the packet, nothing more is to be said.
constexpr const char* kErrorTexts[] = {
    "",
    "File not found",
    "Access violation",
    "Disk full or allocation exceeded",
    "Illegal TFTP operation",
    "Unknown transfer ID",
    "File already exists",
    "No such user",
};
constexpr char kUnknownErrorText[] = "Not defined";
constexpr int kKnownErrors = sizeof kErrorTexts / sizeof kErrorTexts[0];

std::uint16_t low_16_bits(int number) {
  return static_cast<std::uint16_t>(static_cast<unsigned>(number) & 0xFFFFU);
}

}  // namespace

TFTP_Packet::TFTP_Packet() : TFTP_Packet(kMaxSize) {}

TFTP_Packet::TFTP_Packet(int capacity) {
  replaceArray(capacity);
}

TFTP_Packet::~TFTP_Packet() {
  release();
}

void TFTP_Packet::clear() {
  size = 0;
  if (data != nullptr) std::memset(data, 0, static_cast<std::size_t>(receivableSize()));
}

bool TFTP_Packet::reSize(int new_capacity) {
  if (new_capacity > kMaxSize) return false;
  if (new_capacity != max_size) replaceArray(new_capacity);
  return true;
}

bool TFTP_Packet::reSizeForBlock(int block_size) {
  if (block_size > kMaxSize) return false;
  const std::int32_t capacity = block_size + kHeaderSize;
  if (capacity != max_size) replaceArray(capacity);
  return true;
}

bool TFTP_Packet::setSize(int new_size) {
  if (new_size > kMaxSize) return false;
  size = new_size;
  return true;
}

std::uint8_t* TFTP_Packet::getData(int offset) {
  return data == nullptr ? nullptr : data + offset;
}

std::int32_t TFTP_Packet::sendableSize() const {
  return std::clamp(size, 0, receivableSize());
}

std::int32_t TFTP_Packet::receivableSize() const {
  return data == nullptr ? 0 : std::max(max_size, 0);
}

bool TFTP_Packet::copyData(int offset, char* destination, int count) const {
  if (data == nullptr || offset < 0 || offset > size || size - offset > count) return false;
  const int held = std::clamp(receivableSize() - offset, 0, count);
  if (held > 0) std::memcpy(destination, data + offset, static_cast<std::size_t>(held));
  if (count > held) std::memset(destination + held, 0, static_cast<std::size_t>(count - held));
  return true;
}

void TFTP_Packet::dumpData() const {
  std::cout << "\n--------------DATA DUMP---------------------\n";
  std::cout << "Size: " << size << std::endl;
  for (int offset = 0; offset < size; ++offset) {
    // The format is left set: later numbers on standard output come out in hexadecimal too.
    std::cout << std::showbase << std::internal << std::setfill('0') << std::setw(2) << std::hex
              << static_cast<int>(getByte(offset)) << " ";
  }
  std::cout << "\n--------------------------------------------\n\n";
}

bool TFTP_Packet::addByte(std::uint8_t byte) {
  if (size < 0 || size >= receivableSize()) return false;
  data[size++] = byte;
  return true;
}

bool TFTP_Packet::addWord(std::uint16_t word) {
  if (!addByte(static_cast<std::uint8_t>(word >> 8))) return false;
  // True tells that only half of the word was written (known behaviour 22).
  return !addByte(static_cast<std::uint8_t>(word & 0xFF));
}

bool TFTP_Packet::addString(const std::string& text) {
  for (char character : text) {
    if (!addByte(static_cast<std::uint8_t>(character))) return false;
  }
  addByte(0);
  return true;
}

bool TFTP_Packet::addMemory(const char* source, int count) {
  if (std::int64_t{size} + count > max_size) {
    std::cout << "Packet max size exceeded\n";
    return false;
  }
  if (data == nullptr || size < 0 || count < 0) return false;
  if (count > 0) std::memmove(data + size, source, static_cast<std::size_t>(count));
  size += count;
  return true;
}

std::uint8_t TFTP_Packet::getByte(int offset) const {
  return offset >= 0 && offset < receivableSize() ? data[offset] : std::uint8_t{0};
}

std::uint16_t TFTP_Packet::getWord(int offset) const {
  const std::uint8_t low = offset < receivableSize() ? getByte(offset + 1) : std::uint8_t{0};
  return static_cast<std::uint16_t>((getByte(offset) << 8) | low);
}

bool TFTP_Packet::getString(int offset, char* destination, int destination_length) const {
  if (offset < 0 || size <= offset) return false;
  if (destination_length > 1) {
    std::strncpy(destination, textAt(offset).c_str(), static_cast<std::size_t>(destination_length - 1));
  }
  return true;
}

std::uint16_t TFTP_Packet::getNumber() const {
  return isData() || isACK() ? getWord(kNumberOffset) : std::uint16_t{0};
}

std::string TFTP_Packet::fileName() const {
  return shortTextAt(kFileNameOffset);
}

std::string TFTP_Packet::mode() const {
  return shortTextAt(kFileNameOffset + static_cast<int>(fileName().size()) + 1);
}

int TFTP_Packet::errorCode() const {
  return getWord(kNumberOffset);
}

std::string TFTP_Packet::errorText() const {
  if (errorCode() == kNotDefined) return shortTextAt(kErrorTextOffset);
  return errorCode() < kKnownErrors ? kErrorTexts[errorCode()] : kUnknownErrorText;
}

bool TFTP_Packet::createRRQ(const std::string& file_name, const std::vector<std::string>& option_names,
                            const std::vector<std::string>& option_values) {
  clear();
  addWord(kRRQ);
  addString(file_name);
  addString(kMode);
  if (option_names.size() == option_values.size()) addPairs(option_names, option_values);
  return true;
}

bool TFTP_Packet::createWRQ(const std::string& file_name) {
  clear();
  addWord(kWRQ);
  addString(file_name);
  addByte(0);  // a second NUL, here and after the mode (known behaviour 21)
  addString(kMode);
  addByte(0);
  return true;
}

// Clears what it does not write, and only that: this is done for every block.
bool TFTP_Packet::createData(int block, const char* source, int count) {
  if (count != 0 && holds(source)) clear();
  size = 0;
  addWord(kDATA);
  addWord(low_16_bits(block));
  if (count != 0) addMemory(source, count);
  clearBehindSize();
  return true;
}

char* TFTP_Packet::roomForData(int count) {
  return receivableSize() - kHeaderSize < count ? nullptr : reinterpret_cast<char*>(data + kHeaderSize);
}

void TFTP_Packet::createDataInPlace(int block, int count) {
  size = 0;
  addWord(kDATA);
  addWord(low_16_bits(block));
  size = std::min(size + std::max(count, 0), receivableSize());
  clearBehindSize();
}

bool TFTP_Packet::createACK(int block) {
  reSize(kHeaderSize);
  clear();
  addWord(kACK);
  addWord(low_16_bits(block));
  return true;
}

bool TFTP_Packet::createError(int code, const std::string& message) {
  clear();
  addWord(kERROR);
  addWord(low_16_bits(code));
  addString(message);
  addByte(0);  // a second NUL (known behaviour 21)
  return true;
}

bool TFTP_Packet::createOACK(const std::vector<std::string>& option_names,
                             const std::vector<std::string>& option_values) {
  clear();
  addWord(kOACK);
  addPairs(option_names, option_values);
  return true;
}

bool TFTP_Packet::isRRQ() const {
  return getWord(0) == kRRQ;
}

bool TFTP_Packet::isWRQ() const {
  return getWord(0) == kWRQ;
}

bool TFTP_Packet::isData() const {
  return getWord(0) == kDATA;
}

bool TFTP_Packet::isACK() const {
  return getWord(0) == kACK;
}

bool TFTP_Packet::isError() const {
  return getWord(0) == kERROR;
}

bool TFTP_Packet::isOACK(std::vector<std::string>& option_names,
                         std::vector<std::string>& option_values) const {
  option_names.clear();
  option_values.clear();
  if (getWord(0) != kOACK) return false;
  if (size > kOpcodeSize) collectPairs(kOpcodeSize, option_names, option_values);
  return true;
}

bool TFTP_Packet::hasOption(std::vector<std::string>& option_names,
                            std::vector<std::string>& option_values) const {
  option_names.clear();
  option_values.clear();
  if (!isRRQ() && !isWRQ()) return false;
  int offset = kOpcodeSize;
  offset += static_cast<int>(textAt(offset).size()) + 1;  // the file name
  offset += static_cast<int>(textAt(offset).size()) + 1;  // the mode
  if (size <= offset) return false;
  collectPairs(offset, option_names, option_values);
  return !option_names.empty();
}

void TFTP_Packet::release() {
  delete[] std::exchange(data, nullptr);
  size = 0;
}

void TFTP_Packet::replaceArray(std::int32_t capacity) {
  release();
  max_size = capacity;
  data = new std::uint8_t[static_cast<std::size_t>(std::max(capacity, 0))]();
}

void TFTP_Packet::addPairs(const std::vector<std::string>& option_names,
                           const std::vector<std::string>& option_values) {
  for (std::size_t i = 0; i < option_names.size(); ++i) {
    addString(option_names[i]);
    addString(option_values[i]);
  }
}

std::string TFTP_Packet::textAt(int offset) const {
  if (offset < 0 || offset >= receivableSize()) return {};
  const auto* text = reinterpret_cast<const char*>(data + offset);
  return {text, strnlen(text, static_cast<std::size_t>(receivableSize() - offset))};
}

// What a buffer of kShortTextSize bytes holds of the text there.
std::string TFTP_Packet::shortTextAt(int offset) const {
  char text[kShortTextSize] = {};
  getString(offset, text, kShortTextSize);
  return text;
}

void TFTP_Packet::clearBehindSize() {
  if (size < receivableSize()) std::memset(data + size, 0, static_cast<std::size_t>(receivableSize() - size));
}

bool TFTP_Packet::holds(const char* source) const {
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const auto place = reinterpret_cast<std::uintptr_t>(source);
  return place >= begin && place - begin < static_cast<std::uintptr_t>(receivableSize());
}

void TFTP_Packet::collectPairs(int offset, std::vector<std::string>& option_names,
                               std::vector<std::string>& option_values) const {
  // The end is looked at only after a whole pair: a name that ends the packet takes what stands
  // behind it (known behaviour 26).
  do {
    for (auto* list : {&option_names, &option_values}) {
      list->push_back(textAt(offset));
      offset += static_cast<int>(list->back().size()) + 1;
    }
  } while (offset < size);
}
