#include "fuzz/any_run.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "record/run_entry.h"

namespace {

constexpr std::uint64_t kMaxItems = 200;
constexpr std::size_t kMaxFrame = 200;

std::string big(std::uint64_t number, std::size_t size) {
  std::string bytes(size, '\0');
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, number >>= 8)
    *byte = static_cast<char>(number);
  return bytes;
}

std::string tftp(FuzzedDataProvider& input) {
  switch (input.ConsumeIntegralInRange(0, 5)) {
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
  switch (input.ConsumeIntegralInRange(0, 6)) {
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

}  // namespace

bool AnyRun::tell(story::Story* story) {
  if (told_ == kMaxItems || input_.remaining_bytes() == 0) return false;
  if (told_ == 0) story->take(record::Interface{});
  ++told_;
  const int pace = input_.ConsumeIntegralInRange(0, 15);
  if (pace == 15) {
    now_ = input_.ConsumeIntegral<std::int64_t>();
  } else if (now_ < INT64_MAX / 2) {
    now_ += pace == 14 ? 20000000000 : pace == 13 ? 5000000000 : 1000000;
  }
  if (input_.ConsumeIntegralInRange(0, 9) == 0) {
    story->take(entry(input_), now_, told_);
    return true;
  }
  // In a block of its own, so that a byte beyond its end is noticed.
  const std::string made = frame(input_);
  const std::size_t kept_bytes = std::min(made.size(), input_.ConsumeBool() ? kMaxFrame : 60);
  const std::vector<char> kept(made.begin(), made.begin() + static_cast<std::ptrdiff_t>(kept_bytes));
  record::Frame whole;
  whole.number = told_;
  whole.at = now_;
  whole.link_type = input_.ConsumeIntegralInRange(0, 9) > 0
                        ? std::uint16_t{1}
                        : input_.PickValueInArray<std::uint16_t>({113, 276, 0});
  whole.bytes = {kept.data(), kept.size()};
  whole.size = static_cast<std::uint32_t>(made.size());
  constexpr std::array kFates = {record::kLostByChance, record::kDuplicated, record::kSwapped};
  const auto fate = input_.ConsumeIntegralInRange<std::size_t>(0, 9);
  if (fate < kFates.size()) whole.comments = {kFates[fate]};
  story->take(whole);
  return true;
}
