#ifndef DATABASE_DATABASE_H
#define DATABASE_DATABASE_H

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "database/schema.h"

namespace soci {
class session;
}

// The database that runs are collected in: a file of SQLite, or PostgreSQL.
namespace database {

extern const char kProgram[];  // "zirn-run 1.0.0"

// Nobody answers, or others keep it locked: later it may go. One sentence.
struct NotReached : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// It will not go later either: no right, no room, no database, another schema. One sentence.
struct NotUsable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Database {
 public:
  using Work = std::function<void(soci::session&)>;
  enum class Use {
    kWrite,  // makes it where it is missing, and brings its schema forward
    kRead,   // expects it, with the schema as it is now
  };
  struct Manners {
    std::chrono::milliseconds patience{30000};        // for how long in a row it is not reached
    std::function<void(const std::string&)> on_wait;  // told why, once each time that begins
  };

  // Nothing is opened yet. `name`: postgresql://..., or else a file of SQLite; empty: a scratch one, which is gone
  // with the object.
  explicit Database(std::string name, Use use, Manners manners,
                    const std::vector<Migration>& schema = migrations());
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  static bool is_url(const std::string& name);
  // A name for people: safe in a terminal, and a URL without user, password and parameters.
  static std::string shown(const std::string& name);
  std::string name() const { return shown(name_); }

  // Does the work in one transaction, or none of it. Where the database goes away meanwhile all of the work is done
  // anew, so that it must be fit for that, also after what looked like a failure was a success. Throws NotReached
  // once patience is at its end, NotUsable, and what the work throws.
  void transact(const Work& work);

  // The same for one statement, which needs no transaction.
  void ask(const Work& work);

  // The same for reading at length: everything is seen as at one moment, and the work is done once.
  void read(const Work& work);

 private:
  void open();
  void open_sqlite();
  void open_postgres();
  void within(const std::string& begin, const Work& work);
  void patiently(const std::function<void()>& attempt);

  const std::string name_;
  const Engine engine_;
  const Use use_;
  const Manners manners_;
  const std::vector<Migration>& schema_;
  std::unique_ptr<soci::session> session_;  // null: not open
  // When the file was written to last, where SQLite was told that this does not happen while it is open.
  std::optional<std::filesystem::file_time_type> unchanged_since_;
};

}  // namespace database

#endif
