#include "story/story.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "fuzz/script.h"
#include "terminal/judgement.h"
#include "terminal/plain_lines.h"
#include "terminal/view.h"

// The decoder, the story, and the terminal's view of it, on frames that are nearly right: whole ones out of anything, and IPv4 with UDP, TCP or
// ICMP between a few machines and ports, so that transfers, connections and fragments come about.

namespace {

constexpr int kMaxItems = 200;
constexpr std::size_t kMaxFrame = 200;

std::string big(std::uint64_t number, std::size_t size) {
  std::string bytes(size, '\0');
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, number >>= 8)
    *byte = static_cast<char>(number);
  return bytes;
}

std::string tftp(FuzzedDataProvider& input) {
  switch (input.ConsumeIntegralInRange(0, 6)) {
    case 0:
      return big(1, 2) + input.PickValueInArray({"F_l_m_01PPT_PASSED", "F_l_m_01M", "F_l_m_01CPU_2_M", "a"}) +
             std::string("\0octet\0blksize\0", 15) + input.PickValueInArray({"8", "512", "0"}) + '\0';
    case 1:
      return big(3, 2) + big(input.ConsumeIntegralInRange<unsigned>(0, 3), 2) +
             std::string(input.ConsumeBool() ? 8 : 2, 'x');
    case 2:
      return big(4, 2) + big(input.ConsumeIntegralInRange<unsigned>(0, 3), 2);
    case 3:
      return big(6, 2) + std::string("blksize\0", 8) + "8" + '\0';
    case 4:
      return "ZIRN install boot script";
    default:
      return input.ConsumeRandomLengthString(16);
  }
}

std::string frame(FuzzedDataProvider& input) {
  if (input.ConsumeIntegralInRange(0, 7) == 0) return input.ConsumeRandomLengthString(kMaxFrame);
  constexpr std::uint32_t kAddresses[] = {0xac280001, 0xac280002, 0xac280003,
                                          0xac1e0001, 0xac1e00fe, 0xffffffff};
  constexpr std::uint16_t kPorts[] = {69, 12345, 2000, 2001, 33133, 33233};
  const std::string from = big(input.PickValueInArray(kAddresses), 4);
  const std::string to = big(input.PickValueInArray(kAddresses), 4);
  const std::string ports = big(input.PickValueInArray(kPorts), 2) + big(input.PickValueInArray(kPorts), 2);
  const unsigned protocol = input.PickValueInArray({17U, 17U, 17U, 6U, 1U});
  std::string contents;
  if (protocol == 17) {
    const std::string payload = tftp(input);
    contents = ports + big(payload.size() + 8, 2) + big(0, 2) + payload;
  } else if (protocol == 6) {
    contents = ports + big(input.ConsumeIntegralInRange<unsigned>(0, 9), 4) + big(0, 4) +
               big(0x5000U | input.ConsumeIntegralInRange<unsigned>(0, 31U), 2) + big(0, 6) +
               input.ConsumeRandomLengthString(4);
  } else {
    contents =
        big(0x0303, 2) + big(0, 6) + big(0x4500, 2) + big(0, 7) + big(17, 1) + big(0, 2) + to + from + ports;
  }
  const unsigned fragment =
      input.ConsumeIntegralInRange(0, 3) == 0 ? input.ConsumeIntegral<std::uint16_t>() & 0x2003U : 0;
  return big(0, 12) + big(0x0800, 2) + big(0x4500, 2) + big(contents.size() + 20, 2) +
         big(input.ConsumeIntegralInRange<unsigned>(0, 2), 2) + big(fragment, 2) + big(64, 1) +
         big(protocol, 1) + big(0, 2) + from + to + contents;
}

record::RunEntry entry(FuzzedDataProvider& input) {
  switch (input.ConsumeIntegralInRange(0, 5)) {
    case 0:
      return record::RunBegins{"", "", "TFTP -o 172.40.0.1 " + input.ConsumeRandomLengthString(20)};
    case 1:
      return record::BoardCall{"envtool", 3};
    case 2:
      return record::Cut{input.ConsumeIntegral<std::int64_t>()};
    case 3:
      return record::StationEnds{2, 0};
    case 4:
      return record::RunEnds{};
    case 5:
      return record::Timeout{input.ConsumeIntegral<std::int64_t>()};
    default:
      return record::Line{"Starting TFTP server on " + input.ConsumeRandomLengthString(20)};
  }
}

// What holds of every reading.
void check(const story::Reading& reading) {
  const auto is_party = [&](std::size_t party) {
    return party == story::kNone || party < reading.parties.size();
  };
  require(reading.order.size() == reading.steps.size(), "every step has its place in the order");
  for (const story::Step& step : reading.steps) {
    require(is_party(step.source) && is_party(step.target), "a step is between parties");
    require(step.from <= step.until, "a step ends after it began");
    require(step.lost <= step.count, "no more is lost than was sent");
  }
  for (const story::Transfer& transfer : reading.transfers) {
    require(is_party(transfer.client) && is_party(transfer.server) && is_party(transfer.ended_by),
            "so is a transfer");
    require(transfer.end != story::Transfer::End::kOpen, "nothing is open at the end");
    require(transfer.blocks <= transfer.data.sent, "a block was sent");
    require(transfer.data.again <= transfer.data.sent && transfer.acks.again <= transfer.acks.sent,
            "again is sent");
    require(transfer.inferred_lost <= transfer.data.sent + transfer.acks.sent,
            "a loss is told by a datagram");
    require(transfer.marks.size() <= story::Transfer::kMaxMarks, "marks are few");
    require(transfer.silences.size() <= story::Transfer::kMaxSilences, "silences are few");
    require(transfer.verdict == story::kNone || transfer.verdict < reading.verdicts.size(),
            "a verdict is there");
  }
  for (const story::Verdict& verdict : reading.verdicts) passed_on(reading, verdict);
  for (const story::Relayed& relayed : reading.relayed)
    require(relayed.passed_on + relayed.received_lost <= relayed.received, "what is passed on was received");
}

// Somebody watches meanwhile, and presses keys.
class Watcher {
 public:
  explicit Watcher(const story::Reading& reading)
      : reading_(reading), view_(reading), lines_(reading, printed_) {}

  void look(std::size_t chance) {
    constexpr terminal::Key kKeys[] = {terminal::kUp,
                                       terminal::kDown,
                                       terminal::kPageUp,
                                       terminal::kPageDown,
                                       terminal::kHome,
                                       terminal::kEnd,
                                       terminal::kEnter,
                                       terminal::kWheelUp,
                                       terminal::kEnter,
                                       '/',
                                       'a',
                                       'n'};
    const std::size_t columns = chance * 7 % 120 + 1;
    lines_.look();
    view_.set_size(chance % 12 + 1, columns);
    view_.look();
    view_.press(kKeys[chance % std::size(kKeys)]);
    terminal::Judgement judgement;
    judgement.judge(reading_);
    for (const terminal::Line& line :
         view_.screen({"", "", judgement.how_far(), terminal::Style::kPlain, judgement.fault()}))
      check(line.text(), columns);
    check(printed_.str(), SIZE_MAX);
    printed_.str("");
  }

 private:
  static void check(const std::string& text, std::size_t columns) {
    require(terminal::columns_of(text) <= columns, "a line is on the screen");
    for (const char letter : text)
      require(
          letter == '\n' ? columns == SIZE_MAX : static_cast<unsigned char>(letter) >= ' ' && letter != 0x7f,
          "nothing moves the cursor");
  }

  const story::Reading& reading_;
  std::ostringstream printed_;
  terminal::View view_;
  terminal::PlainLines lines_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider input(bytes, size);
  story::Story story;
  story.take(record::Interface{});
  Watcher watcher(story.reading());
  record::Nanoseconds now = 1700000000000000000;
  for (std::uint64_t number = 1; number <= kMaxItems && input.remaining_bytes() > 0; ++number) {
    const int pace = input.ConsumeIntegralInRange(0, 15);
    if (pace == 15) {
      now = input.ConsumeIntegral<std::int64_t>();
    } else if (now < INT64_MAX / 2) {
      now += pace == 14 ? 20000000000 : pace == 13 ? 5000000000 : 1000000;
    }
    if (number % 16 == 0) watcher.look(number + input.remaining_bytes());
    if (input.ConsumeIntegralInRange(0, 9) == 0) {
      story.take(entry(input), now, number);
      continue;
    }
    // In a block of its own, so that a byte beyond its end is noticed.
    const std::string made = frame(input);
    const std::vector<char> kept(
        made.begin(), made.begin() + static_cast<std::ptrdiff_t>(
                                         std::min(made.size(), input.ConsumeBool() ? kMaxFrame : 60)));
    record::Frame whole;
    whole.number = number;
    whole.at = now;
    whole.link_type = input.ConsumeIntegralInRange(0, 9) > 0
                          ? std::uint16_t{1}
                          : input.PickValueInArray<std::uint16_t>({113, 276, 0});
    whole.bytes = {kept.data(), kept.size()};
    whole.size = static_cast<std::uint32_t>(made.size());
    if (input.ConsumeIntegralInRange(0, 9) == 0) whole.comments = {record::kLostByChance};
    story.take(whole);
  }
  story.finish(false);
  watcher.look(size);
  check(story.reading());
  return 0;
}
