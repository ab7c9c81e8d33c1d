#ifndef SUPPORT_TFTP_BYTES_H
#define SUPPORT_TFTP_BYTES_H

#include <string>
#include <utility>
#include <vector>

// Datagrams as byte strings, built without the code under test, so that a test reads like the exchange on the
// wire: peer.sends(rrq("boot.img", {{"blksize", "1024"}})).
namespace tftp {

using Options = std::vector<std::pair<std::string, std::string>>;

// A text literal with NULs in it: bytes("\0\3\0\1").
template <std::size_t N>
std::string bytes(const char (&literal)[N]) {
  return std::string(literal, N - 1);
}

std::string rrq(const std::string& name, const Options& options = {}, const std::string& mode = "octet");
// As other clients write it, with single NULs.
std::string wrq(const std::string& name, const Options& options = {}, const std::string& mode = "octet");
std::string data(int block, const std::string& contents);
std::string ack(int block);
// With the doubled NUL that this program sends.
std::string error(int code, const std::string& message);
std::string oack(const Options& options);

// A datagram in words for failure messages: its kind and number, its length, its bytes in hexadecimal.
std::string in_words(const std::string& datagram);

}  // namespace tftp

#endif
