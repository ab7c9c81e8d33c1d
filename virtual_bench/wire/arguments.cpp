#include "wire/arguments.h"

#include <net/if.h>

#include <charconv>
#include <stdexcept>

namespace {

std::uint64_t read_seed(const std::string& word) {
  std::uint64_t seed = 0;
  const char* const end = word.data() + word.size();
  const std::from_chars_result result = std::from_chars(word.data(), end, seed);
  if (result.ec != std::errc() || result.ptr != end) {
    throw std::runtime_error("expected a seed from 0 to 18446744073709551615 instead of '" + word + "'");
  }
  return seed;
}

EndAddress read_end(const std::string& text) {
  const std::size_t equals = text.rfind('=');
  if (equals == std::string::npos || equals == 0) {
    throw std::runtime_error("expected NAMESPACE=DEVICE instead of '" + text + "'");
  }
  const std::string device = text.substr(equals + 1);
  if (device.empty() || device.size() >= IFNAMSIZ) {
    throw std::runtime_error("expected a device name of 1 to 15 characters in '" + text + "'");
  }
  return {text.substr(0, equals), device};
}

LinkAddress read_link(const std::string& word) {
  const std::size_t comma = word.find(',');
  if (comma == std::string::npos) {
    throw std::runtime_error("expected NAMESPACE=DEVICE,NAMESPACE=DEVICE instead of '" + word + "'");
  }
  return {read_end(word.substr(0, comma)), read_end(word.substr(comma + 1))};
}

}  // namespace

Arguments read_arguments(const std::vector<std::string>& words) {
  constexpr std::size_t kWordsBeforeLinks = 3;
  if (words.size() < kWordsBeforeLinks + 1 || words.size() > kWordsBeforeLinks + 2) {
    throw std::runtime_error("expected CAPTURE FATES SEED LINK [LINK]");
  }
  Arguments arguments = {words[0], words[1], read_seed(words[2]), {}};
  for (std::size_t i = kWordsBeforeLinks; i < words.size(); ++i) {
    arguments.links.push_back(read_link(words[i]));
  }
  return arguments;
}
