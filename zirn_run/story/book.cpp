#include "story/book.h"

namespace story {

Step Book::step_at(Step::Kind kind, Nanoseconds at) {
  Step step;
  step.kind = kind;
  step.from = step.until = at;
  step.source = kStation;
  step.count = 1;
  return step;
}

std::size_t Book::add_step(Step step) {
  const Nanoseconds from = step.from;
  const std::size_t place = add_unmarked(&reading.steps, std::move(step), kMaxSteps);
  if (place == kNone) return place;
  changed(&reading.steps[place]);
  std::vector<std::size_t>& order = reading.order;
  std::size_t before = order.size();
  const std::size_t first = before - std::min(before, kOrderWindow);
  while (before > first && reading.steps[order[before - 1]].from > from) --before;
  order.insert(order.begin() + static_cast<std::ptrdiff_t>(before), place);
  return place;
}

std::size_t Book::add_step(Step::Kind kind, const frames::Packet& packet, std::size_t source,
                           std::size_t target, std::size_t thread) {
  Step step = step_at(kind, packet.at);
  step.source = source;
  step.target = target;
  step.thread = thread;
  step.count = 0;
  const std::size_t place = add_step(std::move(step));
  fold(place, packet);
  return place;
}

void Book::fold(std::size_t place, const frames::Packet& packet) {
  if (place == kNone) return;
  Step& step = reading.steps[place];
  step.until = std::max(step.until, packet.until);
  step.count += 1;
  step.lost += packet.fate.lost ? 1 : 0;
  step.duplicated += packet.fate.duplicated ? 1 : 0;
  step.swapped += packet.fate.swapped ? 1 : 0;
  step.frames.add(packet.frames);
  changed(&step);
}

void Book::merge(std::size_t party, std::size_t into) {
  const auto rename = [party, into](std::initializer_list<std::size_t*> places) {
    for (std::size_t* place : places) {
      if (*place == party) *place = into;
    }
  };
  for (Step& step : reading.steps) {
    rename({&step.source, &step.target});
    if (step.source == into || step.target == into) changed(&step);
  }
  for (Transfer& transfer : reading.transfers) {
    rename({&transfer.client, &transfer.server, &transfer.ended_by});
    for (Silence& silence : transfer.silences) rename({&silence.ended_by});
  }
  for (Verdict& verdict : reading.verdicts) rename({&verdict.unit});
  for (Connection& connection : reading.connections) {
    rename({&connection.client, &connection.server, &connection.ended_by, &connection.reset_by});
  }
  for (Relayed& relayed : reading.relayed) rename({&relayed.unit});
  for (ClosedPort& port : reading.closed_ports) rename({&port.at, &port.from});
}

}  // namespace story
