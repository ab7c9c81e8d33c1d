#include "database/content.h"

#include <sha2.h>

#include <array>

#include "record/gzip.h"

namespace database {

std::string content_of(const std::string& path) {
  record::UnpackedFile file(path);
  std::array<char, 65536> bytes;
  SHA2_CTX hash;
  SHA256Init(&hash);
  while (const auto size = file.sgetn(bytes.data(), bytes.size()))
    SHA256Update(&hash, reinterpret_cast<const std::uint8_t*>(bytes.data()), static_cast<std::size_t>(size));
  std::array<char, SHA256_DIGEST_STRING_LENGTH> text;
  return SHA256End(&hash, text.data());
}

}  // namespace database
