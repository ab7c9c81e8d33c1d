#include "report/pages.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "database/content.h"
#include "database/runs.h"
#include "frames/words.h"
#include "picture/svg.h"
#include "report/html.h"
#include "report/overview.h"
#include "report/page_files.h"
#include "report/run_page.h"

namespace report {

namespace {

namespace fs = std::filesystem;

constexpr char kGenerator[] = "<meta name=\"generator\" content=\"zirn-run\">";
constexpr std::size_t kHead = 4096;  // bytes that the above is in
constexpr std::size_t kProgressEvery = 1000;

[[noreturn]] void fail(const fs::path& path, const std::string& why) {
  throw NotWritten(frames::printable(path.string()) + ": " + why);
}

// What a browser is reading stays whole.
void write(const fs::path& path, std::string_view contents) {
  const fs::path beside = path.string() + ".part";
  std::ofstream file(beside, std::ios::binary | std::ios::trunc);
  file << contents;
  file.close();
  if (!file || std::rename(beside.c_str(), path.c_str()) != 0) fail(path, std::strerror(errno));
}

// Nobody's own pages are overwritten.
void make_folder(const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder / "runs", error);
  if (error) fail(folder, error.message());
  std::ifstream file(folder / "index.html", std::ios::binary);
  std::string head(kHead, '\0');
  file.read(head.data(), kHead);
  if (file.gcount() > 0 && head.find(kGenerator) == std::string::npos)
    fail(folder / "index.html", "expected a report, or nothing, found another page");
}

bool is_name_of_page(const std::string& name) {
  return name.size() == 64 && name.find_first_not_of("0123456789abcdef") == std::string::npos;
}

void remove_pages_but(const std::set<std::string>& kept, const fs::path& folder) {
  for (const fs::directory_entry& file : fs::directory_iterator(folder)) {
    const std::string name = file.path().stem().string();
    const bool is_page = file.path().extension() == ".html" && is_name_of_page(name);
    std::error_code ignored;
    if (is_page && kept.count(name) == 0) fs::remove(file.path(), ignored);
  }
}

// Its record, where that is here and still the same; else nothing. Any station may have written the path: what has no
// end, or is no file, is not opened.
std::string record_of(soci::session& session, const database::Run& run) {
  const long long size = database::size_of(session, run.record_host, run.record);
  const std::string path = frames::unescaped(run.record);
  std::error_code none;
  if (size <= 0 || !fs::is_regular_file(path, none) ||
      fs::file_size(path, none) != static_cast<std::uintmax_t>(size))
    return "";
  try {
    return database::content_of(path) == run.content ? path : "";
  } catch (const std::exception&) {
    return "";
  }
}

// All runs are counted, and the newest kept.
Overview overview_of(soci::session& session, const Pages& wanted) {
  Overview overview;
  std::deque<database::Run> newest;
  std::uint64_t count = 0;
  database::each_run(session, [&](const database::Run& run) {
    overview.figures.take(run);
    newest.push_back(run);
    if (newest.size() > Overview::kMostRuns) newest.pop_front();
    if (++count % kProgressEvery == 0) wanted.on_progress("reading: " + std::to_string(count) + " runs");
  });
  for (auto run = newest.rbegin(); run != newest.rend(); ++run) {
    const bool has_page = (wanted.is_of_all || run->verdict != "passed") && is_name_of_page(run->content);
    overview.table.push_back({std::move(*run), has_page});
  }
  database::each_unreadable(session, [&overview](const database::File& file) {
    ++overview.unreadable_count;
    if (overview.unreadable.size() < Overview::kMostUnreadable)
      overview.unreadable.push_back({file.host, file.path, file.reason.value_or("")});
  });
  return overview;
}

}  // namespace

std::uint64_t write_pages(soci::session& session, const Pages& wanted) {
  const fs::path folder = wanted.folder;
  make_folder(folder);
  const Overview overview = overview_of(session, wanted);
  write(folder / "report.css", kStyleSheet);
  write(folder / "picture.css", picture::style_sheet());
  write(folder / "overview.js", kOverviewScript);
  write(folder / "run.js", kRunScript);
  std::set<std::string> pages;
  for (const auto& [run, has_page] : overview.table) {
    if (!has_page) continue;
    pages.insert(run.content);
    write(folder / "runs" / (run.content + ".html"),
          run_page(run, database::json_of(session, run.id), record_of(session, run)));
    wanted.on_progress("writing: " + std::to_string(pages.size()) + " pages");
  }
  write(folder / "index.html", html_of(overview));
  remove_pages_but(pages, folder / "runs");
  return pages.size();
}

}  // namespace report
