#include "scenario/files.h"

#include <algorithm>
#include <climits>
#include <map>
#include <optional>

#include "frames/tftp_message.h"
#include "scenario/contents.h"
#include "scenario/read_end.h"
#include "story/track.h"

namespace scenario {

namespace {

using story::Transfer;
using End = Transfer::End;

constexpr std::uint64_t kMuchMore = 16 << 20;  // bytes, so that a read is not over before it is stopped
constexpr std::uint64_t kFileNotFound = 1;     // RFC 1350

bool tells_size(const Transfer& one) {
  return std::any_of(one.acknowledged.begin(), one.acknowledged.end(),
                     [](const auto& option) { return option.first == "tsize"; });
}

bool can_be_file(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= NAME_MAX &&
         name.find('/') == std::string::npos;
}

// How large the file is at least; nothing where nothing shows that there is one.
std::optional<std::uint64_t> size_of_file(const Transfer& one) {
  if (story::verdict_in(one.name) || one.end == End::kUnanswered) return std::nullopt;
  if (is_finished(one)) return one.bytes;
  if (tells_size(one))
    return std::min<std::uint64_t>(story::number_of(one.acknowledged, "tsize"), UINT32_MAX);
  if (one.end == End::kError && one.error_code == kFileNotFound) return std::nullopt;
  if (one.server_port == 0) return std::nullopt;
  const bool is_stopped = one.end == End::kError && one.acknowledged_blocks > 0;
  return (one.acknowledged_blocks + 1) * std::max(one.block_size, frames::kDefaultBlockBytes) +
         (is_stopped ? kMuchMore : 0);
}

// The bytes of the record, or as many random ones.
void write_file(const std::string& name, std::uint64_t size, const Transfer& read, Writing* writing) {
  const std::string file = writing->contents == nullptr ? "" : writing->contents->file(name);
  if (!file.empty()) return writing->script.sets("file NAME comes from FILE", {name, file}, read.frames);
  if (writing->contents != nullptr && size > 0)
    writing->script.cannot_say(read.from, "not all bytes of " + name, read.frames);
  writing->script.sets("file NAME is " + size_in_words(size), {name}, read.frames);
}

}  // namespace

std::string size_in_words(std::uint64_t bytes) {
  constexpr std::uint64_t kKib = 1024;
  if (bytes > 0 && bytes % (kKib * kKib) == 0) return std::to_string(bytes / (kKib * kKib)) + " MiB";
  if (bytes > 0 && bytes % kKib == 0) return std::to_string(bytes / kKib) + " KiB";
  return std::to_string(bytes) + " bytes";
}

void write_files(const std::vector<const Transfer*>& reads, Writing* writing) {
  struct Size {
    std::uint64_t bytes = 0;
    const Transfer* read = nullptr;  // the first one
  };
  std::map<std::string, Size> sizes;
  for (const Transfer* const one : reads) {
    const auto bytes = one->kind == Transfer::Kind::kRead ? size_of_file(*one) : std::nullopt;
    if (!bytes) continue;
    if (!can_be_file(one->name)) {
      writing->script.cannot_say(one->from, "a file in a folder, or of a name that none can have",
                                 one->frames);
      continue;
    }
    Size& size = sizes[one->name];
    size.bytes = std::max(size.bytes, *bytes);
    if (size.read == nullptr) size.read = one;
  }
  for (const auto& [name, size] : sizes) write_file(name, size.bytes, *size.read, writing);
}

}  // namespace scenario
