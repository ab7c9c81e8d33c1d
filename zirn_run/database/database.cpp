#include "database/database.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "database/statement.h"
#include "frames/words.h"

namespace database {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{2000};
constexpr char kScheme[] = "postgresql://";
constexpr char kShortScheme[] = "postgres://";
// A server that is gone without a word is noticed. What the URL itself says comes later, and so counts.
constexpr char kParameters[] =
    "application_name=zirn-run&client_encoding=UTF8&connect_timeout=10&keepalives_idle=10&keepalives_"
    "interval=5&"
    "keepalives_count=3&tcp_user_timeout=30000";

bool begins_with(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

// Of PostgreSQL's errors those of the statement itself stay; all others are of the server or of the way to it.
bool is_passing(const soci::soci_error& error, Engine engine) {
  using Error = soci::soci_error;
  if (engine == Engine::kSqlite) return error.get_error_message().find("is locked") != std::string::npos;
  const auto category = error.get_error_category();
  return category != Error::invalid_statement && category != Error::no_privilege &&
         category != Error::constraint_violation;
}

// In one line.
std::string sentence_of(const soci::soci_error& error) {
  std::string text;
  for (const char letter : error.get_error_message()) {
    const bool is_space = letter == '\n' || letter == '\t' || letter == ' ';
    if (!is_space) text += letter;
    if (is_space && !text.empty() && text.back() != ' ') text += ' ';
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '.')) text.pop_back();
  return frames::printable(text);
}

// "postgresql://host/base?ours&theirs"
std::string with_parameters(const std::string& url) {
  const std::size_t question = url.find('?');
  if (question == std::string::npos) return url + "?" + kParameters;
  return url.substr(0, question + 1) + kParameters + "&" + url.substr(question + 1);
}

// What SOCI takes for a file's name.
std::string sqlite_parameters(const std::string& file) {
  if (file.find('=') == std::string::npos) return file;
  if (file.find('"') != std::string::npos) throw NotUsable("a name with both = and \" cannot be opened");
  return "dbname=\"" + file + "\"";
}

// SQLite puts others beside a file that it reads, unless it is told that nobody writes to it meanwhile. Whether it must be
// told: this user may put none there, and no writer has.
bool stands_alone(const std::string& file) {
  std::error_code none;
  const fs::path path = fs::canonical(file, none);
  return access(path.parent_path().c_str(), W_OK) != 0 && !fs::exists(path.string() + "-wal", none);
}

std::string parameters_of_unchanging(const std::string& file) {
  return "dbname=\"file:%" + frames::hexadecimal(file, "%") + "?immutable=1\"";
}

fs::file_time_type written_at(const std::string& file) {
  std::error_code none;
  return fs::last_write_time(file, none);
}

}  // namespace

const char kProgram[] = "zirn-run " ZIRN_RUN_VERSION;

bool Database::is_url(const std::string& name) {
  return begins_with(name, kScheme) || begins_with(name, kShortScheme);
}

Database::Database(std::string name, Use use, Manners manners, const std::vector<Migration>& schema)
    : name_(std::move(name)),
      engine_(is_url(name_) ? Engine::kPostgres : Engine::kSqlite),
      use_(use),
      manners_(std::move(manners)),
      schema_(schema) {}

Database::~Database() = default;

std::string Database::shown(const std::string& name) {
  if (!is_url(name)) return frames::printable(name);
  const std::size_t begin = name.find("//") + 2;
  const std::size_t end = std::min(name.find('?'), name.size());
  const std::size_t slash = std::min(name.find('/', begin), end);
  const std::size_t at = name.rfind('@', slash);
  const std::size_t host = at == std::string::npos || at < begin ? begin : at + 1;
  return frames::printable(name.substr(0, begin) + name.substr(host, end - host));
}

void Database::open_sqlite() {
  unchanged_since_.reset();
  if (use_ == Use::kRead && !name_.empty()) {
    if (!fs::exists(name_)) throw NotUsable("No such file or directory");
    if (stands_alone(name_)) unchanged_since_ = written_at(name_);
  }
  session_->open("sqlite3", unchanged_since_ ? parameters_of_unchanging(name_) : sqlite_parameters(name_));
  *session_ << "PRAGMA busy_timeout = " + std::to_string(manners_.patience.count());
  *session_ << "PRAGMA foreign_keys = ON";
  std::string mode;
  if (use_ == Use::kWrite) Statement(*session_, "PRAGMA journal_mode = WAL").into(&mode).next();
  *session_ << "PRAGMA synchronous = NORMAL";
}

void Database::open_postgres() {
  if (name_.find_first_of(" \t\n") != std::string::npos)
    throw NotUsable("expected a URL without blanks; in a URL a blank is %20");
  session_->open("postgresql", with_parameters(name_));
}

void Database::open() {
  session_ = std::make_unique<soci::session>();
  if (engine_ == Engine::kSqlite) {
    open_sqlite();
  } else {
    open_postgres();
  }
  if (use_ == Use::kRead) {
    expect_current(*session_, engine_, schema_);
  } else {
    const auto forward = [this](soci::session& session) { bring_forward(session, engine_, schema_); };
    within(engine_ == Engine::kSqlite ? "BEGIN IMMEDIATE" : "BEGIN", forward);
  }
}

void Database::within(const std::string& begin, const Work& work) {
  *session_ << begin;
  try {
    work(*session_);
  } catch (const soci::soci_error&) {
    throw;  // the session goes, and the transaction with it
  } catch (...) {
    *session_ << "ROLLBACK";
    throw;
  }
  *session_ << "COMMIT";
}

void Database::patiently(const std::function<void()>& attempt) {
  const auto begun = Clock::now();
  for (auto pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
    try {
      if (!session_) open();
      attempt();
      return;
    } catch (const soci::soci_error& error) {
      session_.reset();
      if (!is_passing(error, engine_)) throw NotUsable(sentence_of(error));
      if (Clock::now() + pause > begun + manners_.patience) throw NotReached(sentence_of(error));
      if (pause == kFirstPause && manners_.on_wait) manners_.on_wait(sentence_of(error));
    } catch (const NotUsable&) {
      session_.reset();
      throw;
    }
    std::this_thread::sleep_for(pause);
  }
}

void Database::transact(const Work& work) {
  patiently([&] { within(engine_ == Engine::kSqlite ? "BEGIN IMMEDIATE" : "BEGIN", work); });
}

void Database::ask(const Work& work) {
  patiently([&] { work(*session_); });
}

void Database::read(const Work& work) {
  patiently([] {});
  try {
    within(engine_ == Engine::kSqlite ? "BEGIN" : "BEGIN ISOLATION LEVEL REPEATABLE READ, READ ONLY", work);
  } catch (const soci::soci_error& error) {
    session_.reset();
    throw NotReached(sentence_of(error));
  }
  if (unchanged_since_ && written_at(name_) != *unchanged_since_)
    throw NotReached("somebody wrote to it while it was read");
}

}  // namespace database
