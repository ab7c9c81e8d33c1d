#ifndef DATABASE_COLLECTION_H
#define DATABASE_COLLECTION_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "database/database.h"
#include "explanation/explanation.h"
#include "story/reading.h"

// Files become rows: each is looked into once, and becomes a run, or a reason why it is none.
namespace database {

// What a record tells.
struct Told {
  explanation::Explanation explanation;
  std::string name;           // of the run
  std::string json;           // the explanation as one
  long long frames_lost = 0;  // of the test network
  bool is_cut_short = false;
};

// Of the test network, those seen and those inferred.
long long frames_lost(const story::Reading& reading);

struct Collected {
  std::size_t runs = 0;        // that were new
  std::size_t known = 0;       // files whose run was there already
  std::size_t seen = 0;        // files that were looked into by an earlier call, and are the same still
  std::size_t unreadable = 0;  // files whose reason was written down
  std::size_t later = 0;       // files that are being written, or went
  std::size_t done() const { return runs + known + seen + unreadable + later; }
};

struct Listener {
  // A record's contents. Throws std::runtime_error with a sentence that begins with the path.
  std::function<Told(const std::string& path)> tell;
  std::function<void(const std::string& sentence)> on_unreadable;
  std::function<void(const Collected&)> on_progress;
};

// The files behind the names, with full paths, in order, each once. A folder's are those below it whose names end in
// .pcapng or .pcap, packed (.gz) or not. Names that end in .part, and what is no regular file, are left out. A name that is not
// there goes to `missing`.
std::vector<std::string> files_in(const std::vector<std::string>& names, std::vector<std::string>* missing);

// What becomes of files that are open for writing, that change meanwhile, or that were written to in the last minute and
// are not whole.
enum class Unfinished {
  kLater,  // they are left for a later call
  kAsItIs,
};

// Brings the files (sorted) into the database, each in one transaction, and counts as it goes, so that `collected` also
// holds after an exception. Throws NotReached and NotUsable.
void collect(const std::vector<std::string>& files, Unfinished unfinished, const Listener& listener,
             Database* database, Collected* collected);

}  // namespace database

#endif
