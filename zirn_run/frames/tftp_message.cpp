#include "frames/tftp_message.h"

#include <algorithm>

#include "frames/byte_view.h"
#include "frames/words.h"

namespace frames {

namespace {

constexpr std::size_t kHeaderBytes = 4;
constexpr std::size_t kMaxOptions = 16;
constexpr std::size_t kMaxNumberDigits = 9;
constexpr char kVerdictPrefix[] = "F_l_m_";

// The texts of a datagram, one after the other.
class Texts {
 public:
  // `is_cut`: the capture has not kept all of them.
  Texts(std::string_view bytes, bool is_cut) : bytes_(bytes), is_cut_(is_cut) {}

  bool is_at_the_end() const { return bytes_.empty(); }
  // Up to its NUL; what is cut ends in kCut.
  std::string next() {
    const std::size_t end = bytes_.find('\0');
    std::string text(bytes_.substr(0, end));
    if (end == std::string_view::npos && is_cut_) text += kCut;
    is_cut_ = is_cut_ && end != std::string_view::npos;
    bytes_ = end == std::string_view::npos ? std::string_view() : bytes_.substr(end + 1);
    return text;
  }

 private:
  std::string_view bytes_;
  bool is_cut_;
};

void take_options(Texts* texts, TftpMessage* message) {
  while (!texts->is_at_the_end() && message->options.size() < kMaxOptions) {
    const std::string option = texts->next();
    const std::string value = texts->next();
    if (!option.empty()) message->options.emplace_back(option, value);
  }
}

std::string options_in_words(const TftpMessage& message) {
  std::string text;
  for (const auto& [option, value] : message.options)
    text += ", " + printable(option) + " " + printable(value);
  return text;
}

std::string request_in_words(const TftpMessage& message) {
  const std::string verb = message.kind == TftpMessage::Kind::kReadRequest ? "read " : "write ";
  const std::string name = message.name.empty() ? "(empty name)" : printable(message.name);
  const std::string mode = message.mode == "octet" ? "" : ", mode " + printable(message.mode);
  return verb + name + mode + options_in_words(message);
}

}  // namespace

TftpMessage tftp_message_in(std::string_view payload, std::size_t size) {
  using Kind = TftpMessage::Kind;
  TftpMessage message;
  const std::uint16_t operation = number16_at(payload, 0);
  message.number = operation;
  const bool is_cut = payload.size() < size;
  const bool has_number = operation >= 3 && operation <= 5;
  if (is_cut && payload.size() < (has_number ? kHeaderBytes : 2)) message.kind = Kind::kCut;
  if (message.kind == Kind::kCut || payload.size() < 2 || operation < 1 || operation > 6) return message;
  message.kind = static_cast<Kind>(operation);
  message.number = number16_at(payload, 2);
  Texts texts(part_of(payload, message.kind == Kind::kError ? kHeaderBytes : 2), is_cut);
  if (is_request(message)) {
    message.name = texts.next();
    message.mode = texts.next();
    take_options(&texts, &message);
  } else if (message.kind == Kind::kOack) {
    take_options(&texts, &message);
  } else if (message.kind == Kind::kError) {
    message.error_text = texts.next();
  } else if (message.kind == Kind::kData) {
    message.data_size = size > kHeaderBytes ? size - kHeaderBytes : 0;
  }
  return message;
}

bool is_cut(std::string_view text) {
  const std::string_view end = kCut;
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::string_view kept_of(std::string_view cut) {
  return cut.substr(0, cut.size() - std::string_view(kCut).size());
}

bool is_request(const TftpMessage& message) {
  return message.kind == TftpMessage::Kind::kReadRequest || message.kind == TftpMessage::Kind::kWriteRequest;
}

bool is_verdict(const TftpMessage& message) {
  return message.kind == TftpMessage::Kind::kReadRequest && message.name.rfind(kVerdictPrefix, 0) == 0;
}

std::size_t option_number(const TftpMessage& message, const std::string& option) {
  for (const auto& [name, value] : message.options) {
    if (name != option || value.empty() || value.size() > kMaxNumberDigits) continue;
    if (value.find_first_not_of("0123456789") == std::string::npos) return std::stoul(value);
  }
  return 0;
}

std::string in_words(const TftpMessage& message) {
  using Kind = TftpMessage::Kind;
  const std::string number = std::to_string(message.number);
  switch (message.kind) {
    case Kind::kReadRequest:
    case Kind::kWriteRequest:
      return request_in_words(message);
    case Kind::kData:
      return "DATA " + number + ", " + counted(message.data_size, "byte");
    case Kind::kAck:
      return "ACK " + number;
    case Kind::kError:
      return "ERROR " + number +
             (message.error_text.empty() ? ", no text" : ", " + quoted(message.error_text));
    case Kind::kOack:
      return "OACK" + options_in_words(message);
    case Kind::kCut:
      return "a TFTP packet that the capture has cut";
    case Kind::kOther:
      break;
  }
  return "no TFTP packet, operation " + number;
}

}  // namespace frames
