#ifndef FRAMES_TFTP_MESSAGE_H
#define FRAMES_TFTP_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace frames {

// Of a transfer that agreed on no other (RFC 1350).
inline constexpr std::size_t kDefaultBlockBytes = 512;

// A datagram as RFC 1350 and RFC 2347 read it.
struct TftpMessage {
  enum class Kind {
    kReadRequest = 1,
    kWriteRequest,
    kData,
    kAck,
    kError,
    kOack,
    kOther,  // none of these
    kCut,    // the capture has kept too little of it
  };

  Kind kind = Kind::kOther;
  std::uint16_t number = 0;  // of the block, or the error code; kOther and kCut: the operation code, or 0
  std::string name;          // requests
  std::string mode;          // requests
  std::string error_text;
  std::vector<std::pair<std::string, std::string>> options;
  std::size_t data_size = 0;  // bytes of a block
};

// What stands in place of the end of a text that a capture has not kept.
inline constexpr char kCut[] = "\xe2\x80\xa6";  // ...

// Whether it does so, and what there is of such a text.
bool is_cut(std::string_view text);
std::string_view kept_of(std::string_view cut);

// `payload`: as much of the datagram as was caught; `size`: bytes of the whole datagram. Of a text that is not whole
// the rest is kCut; where operation or number is not there, so is the whole.
TftpMessage tftp_message_in(std::string_view payload, std::size_t size);

bool is_request(const TftpMessage& message);

// A read request whose name is a verdict.
bool is_verdict(const TftpMessage& message);

// The option's value as a number; 0 when it is missing or no number of at most nine digits.
std::size_t option_number(const TftpMessage& message, const std::string& option);

// "read image.bin, blksize 1428", "data 1, 512 bytes", "ACK 1", ...; printable.
std::string in_words(const TftpMessage& message);

}  // namespace frames

#endif
