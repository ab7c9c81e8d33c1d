#include <algorithm>
#include <istream>
#include <set>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "fuzz/script.h"
#include "record/journal.h"
#include "record/reader.h"
#include "record/run_entry.h"
#include "record/writer.h"

// The readers on whatever a file may hold, as a capture, as a journal and as a log; then the writer, and the reader on
// what was written.

namespace {

using record::Entry;
using record::Frame;
using record::Interface;
using record::Item;
using record::Statistics;

// A file that comes in pieces.
class Pieces : public std::streambuf {
 public:
  Pieces(std::string contents, std::size_t piece_bytes)
      : contents_(std::move(contents)), piece_bytes_(piece_bytes) {}

 protected:
  int_type underflow() override {
    const std::size_t size = std::min(piece_bytes_, contents_.size() - given_);
    if (size == 0) return traits_type::eof();
    setg(&contents_[given_], &contents_[given_], &contents_[given_] + size);
    given_ += size;
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string contents_;
  std::size_t piece_bytes_;
  std::size_t given_ = 0;
};

struct ReadFile {
  std::vector<Item> items;
  std::vector<std::string> bytes;  // of the frames
  std::string problem;
  bool is_record = true;
};

void check_frame(const Frame& frame, std::uint64_t* number, std::size_t interfaces) {
  require(frame.number > *number, "numbers ascend");
  require(frame.interface < interfaces, "a frame is of an interface that came before it");
  require(frame.size >= frame.bytes.size(), "a frame was no shorter on the wire than what is kept");
  require(frame.comments.size() <= 100, "comments are bounded");
  *number = frame.number;
}

ReadFile read(std::istream& file) {
  ReadFile result;
  try {
    record::Reader reader(file);
    std::uint64_t number = 0;
    std::size_t interfaces = 0;
    while (std::optional<Item> item = reader.next()) {
      if (std::holds_alternative<Interface>(*item)) ++interfaces;
      if (auto* frame = std::get_if<Frame>(&*item)) {
        check_frame(*frame, &number, interfaces);
        result.bytes.emplace_back(frame->bytes);
        frame->bytes = {};
      }
      if (const auto* entry = std::get_if<Entry>(&*item)) {
        require(entry->number > number, "numbers ascend");
        number = entry->number;
        record::said_by(*entry);
      }
      result.items.push_back(std::move(*item));
    }
    require(!reader.next(), "the end stays the end");
    result.problem = reader.problem();
  } catch (const record::NotARecord& error) {
    result.is_record = false;
    result.problem = error.what();
  }
  return result;
}

ReadFile read(const std::string& contents, std::size_t piece_bytes) {
  Pieces pieces(contents, piece_bytes);
  std::istream file(&pieces);
  return read(file);
}

void require_same_frame(const Frame& written, const Frame& found) {
  require(found.interface == written.interface && found.link_type == written.link_type, "an interface stays");
  require(found.at == std::max<record::Nanoseconds>(written.at, 0), "a frame's time stays");
  require(found.size == written.size, "a frame's size stays");
  std::vector<std::string> comments;
  for (const std::string& comment : written.comments) {
    if (!comment.empty()) comments.push_back(comment);
  }
  require(found.comments == comments, "comments stay");
}

void require_same(const Item& written, const Item& found) {
  require(written.index() == found.index(), "what is written is read as the same");
  if (const auto* interface = std::get_if<Interface>(&written)) {
    const auto& other = std::get<Interface>(found);
    require(other.name == interface->name && other.filter == interface->filter, "names and filters stay");
    require(other.link_type == interface->link_type && other.snap_length == interface->snap_length,
            "numbers stay");
  } else if (const auto* frame = std::get_if<Frame>(&written)) {
    require_same_frame(*frame, std::get<Frame>(found));
  } else if (const auto* entry = std::get_if<Entry>(&written)) {
    const auto& other = std::get<Entry>(found);
    require(other.at == entry->at && other.fields == entry->fields, "an entry stays");
  } else {
    const auto& statistics = std::get<Statistics>(written);
    const auto& other = std::get<Statistics>(found);
    require(other.interface == statistics.interface, "statistics stay");
    require(other.received == statistics.received && other.dropped == statistics.dropped, "counts stay");
  }
}

// All that was read, written and read again.
void write_and_read(ReadFile* file) {
  std::stringstream again;
  record::Writer writer(again, {"", "", "fuzz"});  // not ours: any items are a whole file
  std::size_t frames = 0;
  for (Item& item : file->items) {
    if (auto* frame = std::get_if<Frame>(&item)) frame->bytes = file->bytes[frames++];
    std::visit([&writer](const auto& it) { writer.add(it); }, item);
  }
  const ReadFile found = read(again);
  require(found.is_record && found.problem.empty(), "what is written is whole");
  require(found.items.size() == file->items.size() && found.bytes == file->bytes, "nothing is lost");
  for (std::size_t i = 0; i < found.items.size(); ++i) require_same(file->items[i], found.items[i]);
}

void read_texts(const std::string& contents) {
  std::istringstream journal_file(contents);
  record::JournalReader journal(journal_file);
  while (const auto entry = journal.next()) {
    if (const auto said = record::said_by(*entry)) record::entry_of(*said, entry->at);
  }
  std::istringstream log_file(contents);
  record::LogReader log(log_file);
  std::string lines;
  while (const auto line = log.next()) lines += line->text + "\n";
  const bool is_text = contents.find('\0') == std::string::npos;
  require(log.problem().empty() == is_text, "what is no text is told, and nothing else");
  require(lines == (is_text ? contents : "") || lines == contents + "\n", "no line is lost");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const std::string contents(reinterpret_cast<const char*>(bytes) + 1, size - 1);
  ReadFile whole = read(contents, contents.size() + 1);
  const ReadFile in_pieces = read(contents, bytes[0] + 1U);
  require(in_pieces.bytes == whole.bytes && in_pieces.problem == whole.problem, "pieces make no difference");
  require(in_pieces.items.size() == whole.items.size(), "pieces make no difference");
  if (whole.is_record) write_and_read(&whole);
  read_texts(contents);
  return 0;
}
