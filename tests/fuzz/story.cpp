#include "story/story.h"

#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>

#include "fuzz/any_run.h"
#include "fuzz/script.h"
#include "terminal/judgement.h"
#include "terminal/plain_lines.h"
#include "terminal/view.h"

// The decoder, the story, and the terminal's view of it, on any run.

namespace {

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
  AnyRun run(bytes, size);
  story::Story story;
  Watcher watcher(story.reading());
  while (run.tell(&story)) {
    if (run.told() % 16 == 0) watcher.look(run.told() + run.left());
  }
  story.finish(false);
  watcher.look(size);
  check(story.reading());
  return 0;
}
