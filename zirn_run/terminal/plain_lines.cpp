#include "terminal/plain_lines.h"

#include <algorithm>
#include <cerrno>

#include "picture/row.h"
#include "picture/telling.h"
#include "picture/words.h"
#include "story/book.h"
#include "terminal/told.h"

namespace terminal {

namespace {

using story::Step;
using story::Transfer;

// A small file is told by the request, unless it came to no good end.
bool is_end_told(const Transfer& transfer) {
  const bool is_bulk = transfer.blocks > 0 && transfer.bytes > 0;
  return (is_bulk || transfer.end != Transfer::End::kFinished) && transfer.second_answer_of == story::kNone;
}

}  // namespace

void PlainLines::print(const std::string& time, const std::string& text) {
  if (error_ == 0 && !(out_ << time << "  " << text << std::endl)) error_ = errno;
}

void PlainLines::look() {
  if (reading_.revision == revision_) return;
  revision_ = reading_.revision;
  for (; gaps_ < reading_.gaps.size(); ++gaps_) {
    const Told gap = told(reading_, {true, gaps_});
    print(time_in_words(reading_, gap.at), gap.text);
  }
  // Of what is further back it is not told when it comes again.
  const std::size_t known = counts_.size();
  counts_.resize(reading_.steps.size());
  for (std::size_t i = known - std::min(known, story::Book::kOrderWindow); i < counts_.size(); ++i) {
    if (counts_[i] < reading_.steps[i].count) look_at_step(i);
  }
  look_at_transfers();
}

void PlainLines::look_at_step(std::size_t place) {
  const Step& step = reading_.steps[place];
  counts_[place] = step.count;
  if (step.kind == Step::Kind::kBlocks) return;
  Told told;
  told.source = step.source;
  told.target = step.target;
  std::string text = who(reading_, told);
  text += (text.empty() ? "" : ": ") + picture::step_in_words(reading_, step);
  if (step.count > 1 && step.kind != Step::Kind::kDrops)
    picture::add_words(&text, std::to_string(step.count) + " times");
  print(time_in_words(reading_, step.count > 1 ? step.until : step.from), text);
}

void PlainLines::look_at_transfers() {
  for (; transfers_ < reading_.transfers.size(); ++transfers_) open_.push_back(transfers_);
  const auto has_ended = [this](std::size_t place) {
    const Transfer& transfer = reading_.transfers[place];
    if (transfer.end == Transfer::End::kOpen) return false;
    if (!is_end_told(transfer)) return true;
    Told told;
    told.source = transfer.client;
    told.target = transfer.server;
    print(time_in_words(reading_, reading_.last),
          who(reading_, told) + ": " + picture::in_short(reading_, transfer));
    return true;
  };
  open_.erase(std::remove_if(open_.begin(), open_.end(), has_ended), open_.end());
}

void PlainLines::tell(const Judgement& judgement) {
  if (judgement.fault() == fault_) return;
  fault_ = judgement.fault();
  print(time_in_words(reading_, reading_.last),
        "fault: " + (fault_.empty() ? "nobody's any longer" : fault_));
}

void PlainLines::finish(const Judgement& judgement) {
  look();
  print(time_in_words(reading_, reading_.last), judgement.how_far());
  tell(judgement);
}

}  // namespace terminal
