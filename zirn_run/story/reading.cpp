#include "story/reading.h"

namespace story {

namespace {

constexpr std::string_view kPrefix = "F_l_m_";
constexpr std::string_view kTag = "CPU_2_";
constexpr std::size_t kTagPosition = 8;

bool contains(std::string_view text, std::string_view word) {
  return text.find(word) != std::string_view::npos;
}

PassedOn outcome_of(const Transfer& query) {
  if (query.end == Transfer::End::kError && query.ended_by == query.server) return PassedOn::kRefused;
  if (query.answered || query.is_end_inferred) return PassedOn::kAnswered;
  if (query.closed_ports > 0) return PassedOn::kClosedPort;
  switch (query.end) {
    case Transfer::End::kUnanswered:
      return PassedOn::kSilent;
    case Transfer::End::kOpen:
      return PassedOn::kWaiting;
    default:
      return PassedOn::kNotSeen;
  }
}

}  // namespace

std::optional<Verdict::Says> verdict_in(std::string_view name) {
  if (name.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
  if (contains(name, "PPT_FAILED")) return Verdict::Says::kFailed;
  if (contains(name, "PPT_PASSED")) return Verdict::Says::kPassed;
  return contains(name, "TEST_FAILED") ? Verdict::Says::kStepFailed : Verdict::Says::kStep;
}

bool is_final(Verdict::Says says) {
  return says == Verdict::Says::kPassed || says == Verdict::Says::kFailed;
}

std::string query_for(const std::string& verdict) {
  if (verdict.size() < kTagPosition) return "";
  return std::string(verdict).insert(kTagPosition, kTag);
}

bool is_query(std::string_view name) {
  return verdict_in(name) && name.size() >= kTagPosition && name.substr(kTagPosition, kTag.size()) == kTag;
}

std::string verdict_of(const std::string& query) {
  return std::string(query).erase(kTagPosition, kTag.size());
}

PassedOn passed_on(const Reading& reading, const Verdict& verdict) {
  if (is_final(verdict.says)) return PassedOn::kNotDue;
  if (verdict.queries.empty()) return PassedOn::kNotSeen;
  return outcome_of(reading.transfers[verdict.queries.back()]);
}

}  // namespace story
