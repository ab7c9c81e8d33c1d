#include "main/explanation_json.h"

#include <nlohmann/json.hpp>

#include "explanation/text.h"
#include "frames/words.h"

namespace {

using Json = nlohmann::ordered_json;
using namespace explanation;

constexpr int kSchemaVersion = 1;  // docs/explanation.md says when it grows

template <typename Value>
Json or_null(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}

Json json_of(const Evidence& evidence) {
  Json json;
  if (evidence.frames.count > 0) json["frames"] = {evidence.frames.first, evidence.frames.last};
  if (evidence.lines.count > 0) json["lines"] = {evidence.lines.first, evidence.lines.last};
  json["kind"] = evidence.is_inferred ? "inferred" : "seen";
  return json;
}

Json json_of(const Claim& claim) {
  Json json = {{"owner", name_of(claim.cause->owner)},
               {"cause", claim.cause->id},
               {"meaning", claim.meaning},
               {"advice", claim.advice},
               {"sentences", Json::array()},
               {"evidence", Json::array()},
               {"more", claim.left_out}};
  for (const Statement& statement : claim.statements) {
    json["sentences"].push_back(statement.sentence);
    json["evidence"].push_back(json_of(statement.evidence));
  }
  return json;
}

Json json_of(const Unit& unit) {
  return {{"address", unit.address}, {"mac", unit.mac.empty() ? Json() : Json(unit.mac)}};
}

Json json_of(const Read& read) {
  return {{"file", read.file},
          {"bytes", or_null(read.bytes)},
          {"block_size", or_null(read.block_size)},
          {"seconds", or_null(read.seconds)},
          {"blocks", or_null(read.blocks)},
          {"repeated", or_null(read.repeated)},
          {"finished", or_null(read.finished)}};
}

Json json_of(const Step& step) {
  const char* const result = step.result == Step::Result::kPassed   ? "passed"
                             : step.result == Step::Result::kFailed ? "failed"
                                                                    : "reported";
  return {{"name", step.name}, {"result", result}};
}

template <typename Items>
Json list_of(const Items& items) {
  Json list = Json::array();
  for (const auto& item : items) list.push_back(json_of(item));
  return list;
}

Json json_of(const std::optional<Exit>& exit) {
  if (!exit) return {};
  return {{"status", or_null(exit->status)}, {"signal", or_null(exit->signal)}, {"meaning", exit->meaning}};
}

}  // namespace

std::string json_of(const Explanation& told, const std::string& file, const std::string& name) {
  const std::vector<Unit> others(told.units.empty() ? told.units.begin() : told.units.begin() + 1,
                                 told.units.end());
  return Json{{"schemaVersion", kSchemaVersion},
              {"file", frames::printable(file)},
              {"name", told.name.empty() ? frames::printable(name) : told.name},
              {"start", told.start ? Json(in_utc(*told.start)) : Json()},
              {"duration", static_cast<double>(told.duration) / 1e9},
              {"verdict", name_of(told.verdict)},
              {"exit", json_of(told.exit)},
              {"unit", told.units.empty() ? Json() : json_of(told.units.front())},
              {"other_units", list_of(others)},
              {"reads", list_of(told.reads)},
              {"steps", list_of(told.steps)},
              {"fault", json_of(told.fault)},
              {"also", list_of(told.also)},
              {"incomplete", told.incomplete}}
      .dump();
}

std::string json_of_causes() {
  Json list = Json::array();
  for (const Cause& cause : causes()) {
    list.push_back({{"cause", cause.id},
                    {"owner", name_of(cause.owner)},
                    {"weight", name_of(cause.weight)},
                    {"meaning", filled(cause.meaning)},
                    {"advice", filled(cause.advice)}});
  }
  return Json{{"schemaVersion", kSchemaVersion}, {"causes", list}}.dump();
}
