#ifndef TFTP_PACKET_TFTP_PACKET_H
#define TFTP_PACKET_TFTP_PACKET_H

#include <cstdint>
#include <string>
#include <vector>

// One TFTP datagram: a buffer of fixed capacity, a builder for every packet kind, and the parsers. All
// knowledge of the wire format is here (RFC 1350; options: RFC 2347; their names: RFC 2348, RFC 2349).
//
//   kind  opcode  bytes that follow the 2-byte opcode
//   RRQ   1       name NUL "octet" NUL { option NUL value NUL }
//   WRQ   2       name NUL NUL "octet" NUL NUL            both NULs are doubled (known behaviour 21)
//   DATA  3       block number (2), 0 to n bytes of data
//   ACK   4       block number (2)
//   ERROR 5       error code (2), message NUL NUL         the last NUL is doubled (known behaviour 21)
//   OACK  6       { option NUL value NUL }
//
// Words are big-endian. Block numbers and error codes are cut to 16 bits when written.
//
// Results differ in sense from one operation to the next; each says what its own means. No operation reads or
// writes outside the array: a text without NUL ends with the array, and bytes beyond it read as 0.
class TFTP_Packet {
 public:
  // Capacity of a new packet, and the most that reSize and setSize accept, in bytes.
  static constexpr std::int32_t kMaxSize = 32768;
  // Opcode and block number: what a DATA packet holds besides its data, in bytes.
  static constexpr std::int32_t kHeaderSize = 4;
  // A block number has 16 bits: this one is 0 again.
  static constexpr std::int32_t kBlockNumbers = 65536;
  // Data bytes of a block where no other size was negotiated (RFC 1350).
  static constexpr std::int32_t kDefaultBlockSize = 512;
  // The one transfer mode.
  static constexpr char kMode[] = "octet";
  // Options (RFC 2348, RFC 2349). Their values are decimal numbers.
  static constexpr char kBlockSizeOption[] = "blksize";   // bytes
  static constexpr char kTimeoutOption[] = "timeout";     // seconds
  static constexpr char kTransferSizeOption[] = "tsize";  // bytes

  // RFC 1350.
  enum ErrorCode : int {
    kNotDefined = 0,  // the packet carries a text
    kFileNotFound = 1,
    kAccessViolation = 2,
    kDiskFull = 3,
    kIllegalOperation = 4,
    kUnknownTransferId = 5,
    kFileExists = 6,
    kNoSuchUser = 7,
  };

  // An empty packet with capacity kMaxSize, all zero.
  TFTP_Packet();
  // The same with another capacity, at most kMaxSize.
  explicit TFTP_Packet(int capacity);
  ~TFTP_Packet();
  TFTP_Packet(const TFTP_Packet&) = delete;
  TFTP_Packet& operator=(const TFTP_Packet&) = delete;

  // Empties the packet and fills its whole capacity with zero.
  void clear();
  // Replaces the array by one of new_capacity bytes and empties the packet; the present capacity keeps the
  // contents. There is no lower limit: a capacity below zero holds no byte.
  // False, and nothing changed, above kMaxSize.
  bool reSize(int new_capacity);
  // The same for a packet that is to hold a DATA packet of block_size data bytes: the limit applies to the
  // data, the header comes on top. False, and nothing changed, when block_size is above kMaxSize.
  bool reSizeForBlock(int block_size);
  // Says how many bytes are valid. False, and nothing changed, above kMaxSize. It is kMaxSize that counts
  // here and not the capacity (known behaviour 23).
  bool setSize(int new_size);

  // The array from offset on, without a check of offset; null when there is no array.
  std::uint8_t* getData(int offset);
  // How many bytes from getData(0) are both valid and within the array: what a send may read.
  std::int32_t sendableSize() const;
  // How many bytes from getData(0) the array holds: what a receive may write.
  std::int32_t receivableSize() const;
  // Copies exactly count bytes from offset on. False, and nothing copied, when offset is beyond size or when
  // more than count bytes remain. A count beyond what remains is copied all the same, as zeros from the
  // array's end on. Known behaviour 24.
  bool copyData(int offset, char* destination, int count) const;
  // Prints the packet in hexadecimal. Standard output stays in hexadecimal with base afterwards
  // (known behaviour 25).
  void dumpData() const;

  // Writers: append at the end. True when written, except for addWord.
  bool addByte(std::uint8_t byte);
  // True only when the high byte fitted and the low byte did not. Known behaviour 22.
  bool addWord(std::uint16_t word);
  // Appends the text and a NUL. False at the first character that does not fit; the NUL may be missing then.
  bool addString(const std::string& text);
  // All of count bytes or none. Says so on standard output when they do not fit; a count below zero is
  // refused. Bytes that stand at the end already need no copy.
  bool addMemory(const char* source, int count);

  // Readers. An offset outside the array reads as 0.
  std::uint8_t getByte(int offset) const;
  std::uint16_t getWord(int offset) const;
  // Copies the text at offset into destination_length - 1 bytes of destination, padded with NULs. The last
  // byte of destination is not touched: callers pass a zeroed buffer. False when offset is not below size.
  bool getString(int offset, char* destination, int destination_length) const;
  // The block number of DATA and ACK, 0 for any other packet.
  std::uint16_t getNumber() const;
  // Of an RRQ or WRQ: the file name and the mode, each cut to 255 characters. The mode is looked for behind
  // the name as it was cut: of a longer one, the rest is taken for it (known behaviour 4).
  std::string fileName() const;
  std::string mode() const;
  // Of an ERROR: its code, and the text for a reader: the packet's own, cut to 255 characters, for code 0,
  // else what RFC 1350 says of the code.
  int errorCode() const;
  std::string errorText() const;

  // Builders: clear, then write. All return true; what does not fit is cut off without notice.
  // Without options when the two lists differ in length.
  bool createRRQ(const std::string& file_name, const std::vector<std::string>& option_names,
                 const std::vector<std::string>& option_values);
  bool createWRQ(const std::string& file_name);
  // Bytes that stand in the packet itself are cleared before they are copied.
  bool createData(int block, const char* source, int count);
  // For a caller that writes the data to its place itself: where count bytes of it belong, null when they do
  // not fit; then createDataInPlace with as many of them as there are.
  char* roomForData(int count);
  void createDataInPlace(int block, int count);
  // Leaves the packet with a capacity of 4 bytes: it needs a reSize before it holds anything longer.
  bool createACK(int block);
  bool createError(int code, const std::string& message);
  // option_values must have at least as many entries as option_names.
  bool createOACK(const std::vector<std::string>& option_names,
                  const std::vector<std::string>& option_values);

  // Whether the opcode says so; size is not consulted.
  bool isRRQ() const;
  bool isWRQ() const;
  bool isData() const;
  bool isACK() const;
  bool isError() const;
  // True for an OACK, also for one without options. Fills the lists, verbatim and in order.
  bool isOACK(std::vector<std::string>& option_names, std::vector<std::string>& option_values) const;
  // True for an RRQ or WRQ with at least one option. Fills the lists, verbatim and in order; a name without a
  // value gets the text behind it.
  bool hasOption(std::vector<std::string>& option_names, std::vector<std::string>& option_values) const;

  // Gives the array back: the packet holds no byte any more, and max_size stays as it is.
  void release();

  std::int32_t size = 0;      // valid bytes, and where the writers append
  std::int32_t max_size = 0;  // capacity of data in bytes; may be negative
  std::uint8_t* data = nullptr;

 private:
  void replaceArray(std::int32_t capacity);
  void addPairs(const std::vector<std::string>& option_names, const std::vector<std::string>& option_values);
  std::string textAt(int offset) const;
  std::string shortTextAt(int offset) const;
  void clearBehindSize();
  bool holds(const char* source) const;
  void collectPairs(int offset, std::vector<std::string>& option_names,
                    std::vector<std::string>& option_values) const;
};

#endif
