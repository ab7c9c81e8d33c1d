#include "report/shown_frames.h"

#include <istream>
#include <nlohmann/json.hpp>

#include "frames/words.h"
#include "picture/words.h"
#include "record/gzip.h"
#include "record/reader.h"

namespace report {

namespace {

using Json = nlohmann::json;

constexpr std::uint64_t kFirstOfARow = 8;

void add(const frames::Numbers& of_row, std::set<std::uint64_t>* numbers) {
  if (of_row.count == 0) return;
  const bool is_alone = of_row.count == of_row.last - of_row.first + 1;
  const std::uint64_t more = is_alone ? std::min(of_row.count, kFirstOfARow) : 1;
  for (std::uint64_t i = 0; i < more; ++i) numbers->insert(of_row.first + i);
  numbers->insert(of_row.last);
}

std::string text_of(const record::Entry& entry) {
  std::string text;
  for (const auto& [name, value] : entry.fields) text += name + "=" + frames::printable(value) + "\n";
  return text;
}

}  // namespace

std::set<std::uint64_t> frames_to_show(const picture::Live& live) {
  std::set<std::uint64_t> numbers;
  for (const picture::LiveRow& row : live.rows) {
    if (numbers.size() + 2 * kFirstOfARow > kMostFrames) break;
    add(row.frames, &numbers);
    add(row.lines, &numbers);
  }
  return numbers;
}

std::string contents_of(const std::set<std::uint64_t>& numbers, const std::string& record,
                        record::Nanoseconds start) {
  record::UnpackedFile file(record);
  std::istream stream(&file);
  record::Reader reader(stream);
  std::vector<std::string> networks;
  Json contents = Json::array();
  while (contents.size() < numbers.size()) {
    const std::optional<record::Item> item = reader.next();
    if (!item) break;
    if (const auto* network = std::get_if<record::Interface>(&*item))
      networks.push_back(frames::printable(network->name));
    if (const auto* frame = std::get_if<record::Frame>(&*item); frame && numbers.count(frame->number) > 0)
      contents.push_back({frame->number, picture::seconds(frame->at - start, 6),
                          frame->interface < networks.size() ? networks[frame->interface] : "", frame->size,
                          frames::hexadecimal(frame->bytes.substr(0, kMostBytes))});
    if (const auto* entry = std::get_if<record::Entry>(&*item); entry && numbers.count(entry->number) > 0)
      contents.push_back(
          {entry->number, picture::seconds(entry->at - start, 6), nullptr, nullptr, text_of(*entry)});
  }
  return contents.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace report
