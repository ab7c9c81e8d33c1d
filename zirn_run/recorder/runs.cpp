#include "recorder/runs.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "record/byte_order.h"
#include "record/input.h"
#include "record/journal_text.h"
#include "record/pcapng.h"
#include "record/reader.h"
#include "record/run_entry.h"
#include "recorder/clock.h"
#include "recorder/file.h"
#include "recorder/say.h"

namespace recorder {

namespace {

namespace fs = std::filesystem;
namespace pcapng = record::pcapng;

constexpr char kEnding[] = ".pcapng";
constexpr char kPart[] = ".pcapng.part";
constexpr char kVerdict[] = "Cmd received: ";
constexpr char kPassed[] = "PPT_PASSED";
constexpr std::streamoff kBytesAtFirst = std::streamoff{32} << 10;  // where the verdict mostly is
constexpr std::streamoff kBytesWithTheVerdict = std::streamoff{1} << 20;
constexpr std::size_t kLengthBytes = sizeof(std::uint32_t);

std::string start_text(record::Nanoseconds start) {
  const std::time_t seconds = static_cast<std::time_t>(start / kSecond);
  std::tm time = {};
  gmtime_r(&seconds, &time);
  std::array<char, 32> text = {};
  std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &time);
  return text.data();
}

std::string station_name() {
  std::array<char, HOST_NAME_MAX + 1> name = {};
  gethostname(name.data(), name.size() - 1);
  std::string text = name.data();
  const auto is_odd = [](unsigned char c) { return std::isalnum(c) == 0 && c != '-' && c != '.'; };
  std::replace_if(text.begin(), text.end(), is_odd, '_');
  return text;
}

// The folder's files with such an ending, the oldest run first.
std::vector<fs::path> files_in(const std::string& folder, const std::string& ending) {
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    const bool is_one =
        name.size() > ending.size() && name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
    std::error_code none;
    if (is_one && entry.is_regular_file(none)) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Where the last whole block of the file ends.
std::uint64_t end_of_blocks(const fs::path& name) {
  std::ifstream file(name, std::ios::binary);
  record::Input input(file);
  while (true) {
    std::string_view bytes = input.at_least(pcapng::kFrameBytes);
    if (bytes.size() < pcapng::kFrameBytes) return input.position();
    const auto length = record::number_at<std::uint32_t>(bytes, kLengthBytes);
    if (length < pcapng::kFrameBytes || length > record::Reader::kMostBlockBytes) return input.position();
    bytes = input.at_least(length);
    const bool is_whole =
        bytes.size() >= length && record::number_at<std::uint32_t>(bytes, length - kLengthBytes) == length;
    if (!is_whole) return input.position();
    input.take(length);
  }
}

// Ends the file, which nobody writes any more. What is missing is so from the last writing on, however much later that is
// found. False: it cannot be written.
bool end_with_gap(int descriptor, std::uint64_t end) {
  struct stat about = {};
  if (fstat(descriptor, &about) != 0) return false;
  const record::Nanoseconds written_last = about.st_mtim.tv_sec * kSecond + about.st_mtim.tv_nsec;
  const std::string entry =
      block_of(entry_of(record::gap(record::kAllMissing, "the recorder was cut off"), written_last));
  return ftruncate(descriptor, static_cast<off_t>(end)) == 0 &&
         pwrite(descriptor, entry.data(), entry.size(), static_cast<off_t>(end)) ==
             static_cast<ssize_t>(entry.size());
}

// Others may do the same at once: what is gone meanwhile, they have completed.
void complete(const fs::path& part) {
  const int descriptor = open(part.c_str(), O_WRONLY | O_CLOEXEC);
  if (descriptor < 0 && errno == ENOENT) return;
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), part);
  const bool is_left = flock(descriptor, LOCK_EX | LOCK_NB) == 0;
  std::error_code error;
  const bool is_there = is_left && fs::exists(part, error);
  const std::uint64_t end = is_there ? end_of_blocks(part) : 0;
  if (is_there && end == 0) fs::remove(part, error);
  if (end > 0 && end_with_gap(descriptor, end)) fs::rename(part, fs::path(part).replace_extension(), error);
  close(descriptor);
  if (error && error != std::errc::no_such_file_or_directory) throw std::system_error(error, part);
}

// False: it is still there, which is said.
bool remove_run(const fs::path& run) {
  std::error_code error;
  fs::remove(run, error);
  if (error) say(run.string() + ": " + error.message());
  return !error;
}

// The line of an entry's block; empty: it is none.
std::string line_in(std::string_view block) {
  if (record::number_at<std::uint32_t>(block, 0) != pcapng::kJournalExport) return {};
  std::string_view text = block.substr(pcapng::kHeadBytes, block.size() - pcapng::kFrameBytes);
  record::Entry entry;
  while (record::journal_text::take_field(&text, block.size(), &entry) == record::journal_text::Taken::kField)
    continue;
  const auto said = said_by(entry);
  const auto* const line = said ? std::get_if<record::Line>(&*said) : nullptr;
  return line == nullptr ? "" : line->text;
}

// The last line in these bytes, which end a record, that tells a verdict; empty: there is none.
std::string last_verdict(std::string_view bytes) {
  while (bytes.size() >= pcapng::kFrameBytes) {  // backwards, by the length at each block's end
    const auto length = record::number_at<std::uint32_t>(bytes, bytes.size() - kLengthBytes);
    if (length < pcapng::kFrameBytes || length > bytes.size()) break;
    std::string line = line_in(bytes.substr(bytes.size() - length));
    if (line.compare(0, sizeof kVerdict - 1, kVerdict) == 0) return line;
    bytes.remove_suffix(length);
  }
  return {};
}

}  // namespace

std::string name_of_run(const std::string& folder, record::Nanoseconds start) {
  const std::string station = station_name();
  for (;; start += kSecond) {
    std::string name = start_text(start) + "-" + station;
    const fs::path file = fs::path(folder) / name;
    if (!fs::exists(file.string() + kEnding) && !fs::exists(file.string() + kPart)) return name;
  }
}

void complete_runs(const std::string& folder) {
  for (const fs::path& part : files_in(folder, kPart)) {
    try {
      complete(part);
    } catch (const std::system_error& error) {
      say(error.what());
    }
  }
}

void limit_runs(const std::string& folder, std::size_t kept, std::uint64_t bytes) {
  const std::vector<fs::path> runs = files_in(folder, kEnding);
  for (std::size_t i = 0; i + kept < runs.size(); ++i) {
    if (has_passed(runs[i])) remove_run(runs[i]);
  }
  std::vector<std::pair<fs::path, std::uint64_t>> sizes;
  std::uint64_t sum = 0;
  for (const fs::path& run : files_in(folder, kEnding)) {
    std::error_code gone;
    const std::uint64_t size = fs::file_size(run, gone);
    if (gone) continue;
    sizes.emplace_back(run, size);
    sum += size;
  }
  for (std::size_t i = 0; sum > bytes && i < sizes.size(); ++i) {
    if (remove_run(sizes[i].first)) sum -= sizes[i].second;
  }
}

bool has_passed(const std::string& name) {
  std::ifstream file(name, std::ios::binary | std::ios::ate);
  const std::streamoff size = file.tellg();
  std::string verdict;
  for (const std::streamoff most : {kBytesAtFirst, kBytesWithTheVerdict}) {
    const std::streamoff count = std::min(size, most);
    if (count <= 0 || !verdict.empty()) break;
    std::string bytes(static_cast<std::size_t>(count), '\0');
    file.seekg(size - count).read(bytes.data(), count);
    verdict = last_verdict(bytes);
  }
  return verdict.find(kPassed) != std::string::npos;
}

}  // namespace recorder
