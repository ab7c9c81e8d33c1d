// Writes a record that has every kind of item, says whether a file is that record, and draws one: for records that go
// from a machine of one kind to a machine of another. Usage: exchanged_record write|compare|draw FILE
// Draws to standard output. Status 1: the file is another record.
#include <fstream>
#include <iostream>
#include <string>
#include <variant>
#include <vector>

#include "picture/picture.h"
#include "record/reader.h"
#include "record/run_entry.h"
#include "record/writer.h"
#include "story/story.h"

namespace {

using record::Item;

constexpr record::Nanoseconds kAt = 1700000000123456000;

record::Frame frame_of(std::uint32_t interface, record::Nanoseconds at, const std::string& bytes,
                       std::uint32_t size, std::vector<std::string> comments = {}) {
  record::Frame frame;
  frame.interface = interface;
  frame.at = at;
  frame.bytes = bytes;
  frame.size = size;
  frame.comments = std::move(comments);
  return frame;
}

// The frames' bytes are static.
std::vector<Item> items() {
  static const std::string whole("\x02\x00\x00\x00\x00\x01\x02\x00\x00\x00\x00\x02\x08\x00 whole", 20);
  static const std::string cut(65, '\xff');
  std::vector<Item> all = {
      record::Interface{"lan0", "udp port 69", record::kEthernet, 0},
      record::Interface{"eth1 \xc3\xbc", "", record::kLinuxCooked2, 64},
      frame_of(0, kAt + 1, whole, 20),
      frame_of(0, kAt + 999, cut, 0x12345678, {record::kLostByChance, record::kDuplicated}),
      frame_of(1, record::Nanoseconds{1} << 62U, whole, 70000),
      frame_of(1, 0, "", 0)};
  const record::RunEntry said[] = {record::RunBegins{"name", "title", "TFTP -o 172.40.0.1"},
                                   record::Line{std::string("control \x1b and zero \0.", 21)},
                                   record::Line{"\xc3\xbc \xff"},
                                   record::BoardCall{"led red", -1},
                                   record::Cut{record::Nanoseconds{1} << 40U},
                                   record::Gap{"frames are missing"},
                                   record::StationEnds{2, 0},
                                   record::StationEnds{{}, 11},
                                   record::RunEnds{"2", record::kAsTheScenarioSays}};
  for (const record::RunEntry& entry : said) all.emplace_back(entry_of(entry, kAt + 2000));
  all.emplace_back(record::Statistics{0, kAt + 2001, 0x123456789abcdef0, 7});
  all.emplace_back(record::Statistics{1, kAt + 2002, {}, std::uint64_t{1} << 40U});
  return all;
}

std::string in_quotes(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "'";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {kDigits[byte / 16], kDigits[byte % 16]};
  }
  return text + "'";
}

std::string told(const record::Interface& it) {
  return "interface " + in_quotes(it.name) + " " + in_quotes(it.filter) + " " + std::to_string(it.link_type) +
         " " + std::to_string(it.snap_length);
}

std::string told(const record::Frame& it) {
  std::string text = "frame of " + std::to_string(it.interface) + " at " + std::to_string(it.at) + " " +
                     std::to_string(it.size) + " " + in_quotes(it.bytes);
  for (const std::string& comment : it.comments) text += " " + in_quotes(comment);
  return text;
}

std::string told(const record::Entry& it) {
  std::string text = "entry at " + std::to_string(it.at);
  for (const auto& [name, value] : it.fields) text += " " + name + " " + in_quotes(value);
  return text;
}

std::string told(const record::Statistics& it) {
  const auto number = [](std::optional<std::uint64_t> one) {
    return one ? " " + std::to_string(*one) : " unknown";
  };
  return "statistics of " + std::to_string(it.interface) + " at " + std::to_string(it.at) +
         number(it.received) + number(it.dropped);
}

std::string in_words(const Item& item) {
  return std::visit([](const auto& it) { return told(it); }, item);
}

int write(const char* name) {
  std::ofstream file(name, std::ios::binary);
  record::Writer writer(file, {});
  for (const Item& item : items())
    std::visit([&writer](const auto& it) { static_cast<void>(writer.add(it)); }, item);
  return file.flush() ? 0 : 1;
}

int compare(const char* name) {
  std::ifstream file(name, std::ios::binary);
  record::Reader reader(file);
  for (const Item& item : items()) {
    const auto read = reader.next();
    const std::string found = read ? in_words(*read) : "the end; " + reader.problem();
    if (found == in_words(item)) continue;
    std::cerr << name << ": expected " << in_words(item) << "\nfound " << found << std::endl;
    return 1;
  }
  if (!reader.next() && reader.problem().empty()) return 0;
  std::cerr << name << ": expected the end; " << reader.problem() << std::endl;
  return 1;
}

int draw(const char* name) {
  std::ifstream file(name, std::ios::binary);
  record::Reader reader(file);
  story::Story story;
  while (const auto item = reader.next()) story.take(*item);
  story.finish(!reader.problem().empty());
  std::cout << picture::picture_of(story.reading(), {}) << std::flush;
  return std::cout ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string wanted = argc == 3 ? argv[1] : "";
  if (wanted == "write") return write(argv[2]);
  if (wanted == "compare") return compare(argv[2]);
  if (wanted == "draw") return draw(argv[2]);
  std::cerr << "Usage: exchanged_record write|compare|draw FILE" << std::endl;
  return 2;
}
