#include "database/collection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <filesystem>
#include <map>
#include <system_error>

#include "database/content.h"
#include "database/put.h"
#include "database/utc.h"
#include "frames/words.h"

namespace database {

namespace {

namespace fs = std::filesystem;

constexpr char kPart[] = ".part";
constexpr std::size_t kFilesAtOnce = 1000;
constexpr long long kNanoseconds = 1'000'000'000;
constexpr long long kFreshSeconds = 60;
constexpr long long kSizeNotRead = -1;  // in the database: no file has it, so that it is tried again

bool ends_with(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

bool is_named_as_a_record(const std::string& name) {
  for (const char* const ending : {".pcapng", ".pcap", ".pcapng.gz", ".pcap.gz"}) {
    if (ends_with(name, ending)) return true;
  }
  return false;
}

void add_folder(const fs::path& folder, std::vector<std::string>* files) {
  std::error_code error;
  fs::recursive_directory_iterator entry(folder, fs::directory_options::skip_permission_denied, error);
  if (error) throw NotUsable(frames::printable(folder.string()) + ": " + error.message());
  for (; entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    if (error) return;  // the folder went meanwhile
    std::error_code none;
    if (is_named_as_a_record(entry->path()) && entry->is_regular_file(none)) files->push_back(entry->path());
  }
}

// What tells whether a file is the same still.
struct Version {
  long long size = 0;
  long long modified = 0;
  bool operator==(const Version& other) const { return size == other.size && modified == other.modified; }
};

// Nothing: it is gone.
std::optional<Version> version_of(const std::string& path) {
  struct stat about = {};
  if (stat(path.c_str(), &about) != 0) return std::nullopt;
  return Version{about.st_size, about.st_mtim.tv_sec * kNanoseconds + about.st_mtim.tv_nsec};
}

bool is_fresh(const Version& version) {
  return std::abs(std::time(nullptr) - version.modified / kNanoseconds) < kFreshSeconds;
}

// A lease is refused with this error as long as somebody may write to the file; where this machine or user gets none
// for other reasons it is not known.
bool is_open_for_writing(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool is_refused = fcntl(descriptor, F_SETLEASE, F_RDLCK) != 0 && errno == EAGAIN;
  close(descriptor);
  return is_refused;
}

std::string host_name() {
  std::array<char, HOST_NAME_MAX + 1> name = {};
  gethostname(name.data(), name.size() - 1);
  return name.data();
}

class Collector {
 public:
  Collector(Unfinished unfinished, const Listener& listener, Database* database, Collected* collected)
      : waits_(unfinished == Unfinished::kLater),
        listener_(listener),
        database_(database),
        collected_(collected) {}

  void take(const std::vector<std::string>& files) {
    for (std::size_t i = 0; i < files.size(); i += kFilesAtOnce)
      take_some({files.begin() + static_cast<std::ptrdiff_t>(i),
                 files.begin() + static_cast<std::ptrdiff_t>(std::min(i + kFilesAtOnce, files.size()))});
  }

 private:
  void take_some(const std::vector<std::string>& files) {
    std::vector<std::string> names(files.size());
    std::transform(files.begin(), files.end(), names.begin(), frames::escaped);
    const auto [first, last] = std::minmax_element(names.begin(), names.end());
    std::map<std::string, Version> seen;
    database_->ask([&, first = first, last = last](soci::session& session) {
      for (const File& file : files_between(session, host_, *first, *last))
        seen[file.path] = {file.size, file.modified};
    });
    for (std::size_t i = 0; i < files.size(); ++i) {
      const std::string& path = files[i];
      const auto version = version_of(path);
      const auto before = seen.find(names[i]);
      if (version && before != seen.end() && before->second == *version) {
        ++collected_->seen;
      } else if (version) {
        take_file(path, *version);
      }
      listener_.on_progress(*collected_);
    }
  }

  // What is in a file. Without any of these a run of the same content is there already.
  struct Look {
    std::string content;
    std::optional<Told> told;
    std::string reason;    // why it is no run
    bool was_read = true;  // else the reason may go without the file being written to
  };

  Look look_into(const std::string& path) {
    Look look;
    try {
      look.content = content_of(path);
    } catch (const std::system_error& error) {
      look.reason = frames::printable(path) + ": " + error.code().message();
      look.was_read = false;
    } catch (const std::exception& error) {
      look.reason = frames::printable(path) + ": " + error.what();
    }
    if (!look.reason.empty() || is_known(look.content)) return look;
    try {
      look.told = listener_.tell(path);
    } catch (const std::runtime_error& error) {
      look.reason = error.what();
    }
    return look;
  }

  bool is_known(const std::string& content) {
    bool is_there = false;
    database_->ask([&](soci::session& session) { is_there = id_of(session, content).has_value(); });
    return is_there;
  }

  void take_file(const std::string& path, const Version& version) {
    const bool is_open = waits_ && is_open_for_writing(path);
    const Look look = is_open ? Look() : look_into(path);
    const bool is_whole = look.reason.empty() && !(look.told && look.told->is_cut_short);
    const auto after = version_of(path);
    if (is_open || !after || (waits_ && (!(*after == version) || (!is_whole && is_fresh(version))))) {
      ++collected_->later;
      return;
    }
    File file{host_, frames::escaped(path), version.size, version.modified, {}, {}, utc_now()};
    if (look.reason.empty()) {
      put_run(look, &file);
    } else {
      file.reason = look.reason;
      if (!look.was_read) file.size = kSizeNotRead;
      database_->ask([&](soci::session& session) { put(session, file); });
      ++collected_->unreadable;
      listener_.on_unreadable(look.reason);
    }
  }

  void put_run(const Look& look, File* file) {
    std::optional<RunRows> rows;
    if (look.told) rows = rows_of(*look.told, look.content, *file);
    bool is_new = false;
    bool is_gone = false;
    database_->transact([&](soci::session& session) {
      file->run = rows ? put(session, *rows) : std::nullopt;
      is_new = file->run.has_value();
      if (!is_new) file->run = id_of(session, look.content);
      is_gone = !file->run;
      if (is_gone) return;
      if (!is_new) set_record(session, *file);
      put(session, *file);
    });
    ++(is_gone ? collected_->later : is_new ? collected_->runs : collected_->known);
  }

  const bool waits_;  // for who writes
  const Listener& listener_;
  Database* const database_;
  Collected* const collected_;
  const std::string host_ = frames::escaped(host_name());
};

}  // namespace

long long frames_lost(const story::Reading& reading) {
  const auto is_of_ppt = [&reading](std::size_t party) {
    return party != story::kNone && reading.parties[party].role == story::Role::kPptServer;
  };
  std::uint64_t lost = 0;
  for (const story::Step& step : reading.steps) {
    if (!is_of_ppt(step.source) && !is_of_ppt(step.target)) lost += step.lost;
  }
  for (const story::Transfer& transfer : reading.transfers) {
    if (transfer.client != story::kStation) lost += transfer.inferred_lost;
  }
  return static_cast<long long>(lost);
}

std::vector<std::string> files_in(const std::vector<std::string>& names, std::vector<std::string>* missing) {
  std::vector<std::string> files;
  for (const std::string& name : names) {
    const fs::path path = fs::absolute(name).lexically_normal();
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status)) {
      missing->push_back(frames::printable(name) + ": " + error.message());
    } else if (fs::is_directory(status)) {
      add_folder(path, &files);
    } else if (fs::is_regular_file(status)) {
      if (!ends_with(path, kPart)) files.push_back(path);
    } else {
      missing->push_back(frames::printable(name) + ": expected a file or a folder, found neither");
    }
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

void collect(const std::vector<std::string>& files, Unfinished unfinished, const Listener& listener,
             Database* database, Collected* collected) {
  database->ask([](soci::session&) {});  // it is there from the first call on, also without a run
  Collector(unfinished, listener, database, collected).take(files);
}

}  // namespace database
