#include "wire/orders.h"

#include <charconv>

namespace {

struct Form {
  std::string_view name;
  std::string_view unit;
  Order::What what;
  int largest;
};

constexpr Form kForms[] = {{"loses", "percent", Order::What::kLose, 100},
                           {"duplicates", "percent", Order::What::kDuplicate, 100},
                           {"swaps", "percent", Order::What::kSwap, 100},
                           {"delays", "milliseconds", Order::What::kDelay, 60000},
                           {"cuts", "seconds", Order::What::kCut, 3600}};

// Whether the whole text is a number in plain decimals from 0 to the largest.
bool read_amount(std::string_view text, int largest, double& amount) {
  const char* const end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), end, amount, std::chars_format::fixed);
  return result.ec == std::errc() && result.ptr == end && amount >= 0 && amount <= largest;
}

}  // namespace

ReadOrder read_order(std::string_view line) {
  const std::size_t space = line.find(' ');
  const std::string_view name = line.substr(0, space);
  const std::string_view amount = space == std::string_view::npos ? "" : line.substr(space + 1);
  for (const Form& form : kForms) {
    if (name != form.name) continue;
    ReadOrder read = {true, {form.what, 0}, ""};
    if (read_amount(amount, form.largest, read.order.amount)) return read;
    return {false,
            {},
            std::string(form.name) + " and a number of " + std::string(form.unit) + " from 0 to " +
                std::to_string(form.largest)};
  }
  return {false, {}, "loses, duplicates, swaps, delays or cuts, and a number"};
}
