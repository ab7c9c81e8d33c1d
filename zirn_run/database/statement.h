#ifndef DATABASE_STATEMENT_H
#define DATABASE_STATEMENT_H

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "database/soci.h"

namespace database {

// What a column holds; the first: NULL.
using Value = std::variant<std::monostate, long long, double, std::string>;

struct Bound {
  std::string name;
  Value value;
};

inline Value value_of(long long number) {
  return number;
}
inline Value value_of(double number) {
  return number;
}
inline Value value_of(const std::string& text) {
  return text;
}
template <typename Type>
Value value_of(const std::optional<Type>& value) {
  return value ? value_of(*value) : Value();
}

// A statement of SQL. What comes from outside is bound to a name in it (":name") and never part of its text.
class Statement {
 public:
  Statement(soci::session& session, std::string text, std::vector<Bound> bound = {})
      : text_(std::move(text)), bound_(std::move(bound)), statement_(session) {
    for (Bound& one : bound_) bind(&one);
  }

  // Where a row's next column goes; must outlive the statement. NULL is an error unless it is optional.
  template <typename Type>
  Statement& into(Type* target) {
    statement_.exchange(soci::into(*target));
    return *this;
  }
  template <typename Type>
  Statement& into(std::optional<Type>* target) {
    auto& [value, state] = std::get<std::deque<Fetched<Type>>>(fetched_).emplace_back();
    statement_.exchange(soci::into(value, state));
    after_.emplace_back([target, &value = value, &state = state] {
      if (state == soci::i_ok) {
        *target = value;
      } else {
        target->reset();
      }
    });
    return *this;
  }

  // Executes it at the first call. Whether there is another row, which is then in its place.
  bool next() {
    const bool has_row = is_executed_ ? statement_.fetch() : execute();
    for (const auto& take : after_) {
      if (has_row) take();
    }
    return has_row;
  }

 private:
  template <typename Type>
  using Fetched = std::pair<Type, soci::indicator>;

  void bind(Bound* one) {
    std::visit(
        [&](auto& value) {
          using Type = std::decay_t<decltype(value)>;
          if constexpr (std::is_same_v<Type, std::monostate>) {
            statement_.exchange(soci::use(nothing_, null_, one->name));
          } else {
            statement_.exchange(soci::use(value, one->name));
          }
        },
        one->value);
  }
  bool execute() {
    is_executed_ = true;
    statement_.alloc();
    statement_.prepare(text_, soci::details::st_one_time_query);
    statement_.define_and_bind();
    return statement_.execute(true);
  }

  const std::string text_;
  std::vector<Bound> bound_;
  std::string nothing_;
  soci::indicator null_ = soci::i_null;
  std::tuple<std::deque<Fetched<std::string>>, std::deque<Fetched<long long>>, std::deque<Fetched<double>>>
      fetched_;
  std::vector<std::function<void()>> after_;
  soci::statement statement_;
  bool is_executed_ = false;
};

}  // namespace database

#endif
