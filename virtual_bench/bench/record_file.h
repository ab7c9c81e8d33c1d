#ifndef BENCH_RECORD_FILE_H
#define BENCH_RECORD_FILE_H

#include <string>
#include <vector>

#include "record/item.h"
#include "story/story.h"

// Writes the record of a run (record/writer.h): the wire's frames, with what became of each as its comments, and
// among them, in the order of time, what else is known of the run. wire_record: the file that the wire left, or one
// that is not there. Throws std::runtime_error with one line that names the file.
void write_record(const std::string& path, const std::string& wire_record,
                  std::vector<record::Entry> entries);

// Tells what such a file says.
void tell_record(const std::string& path, story::Story* story);

#endif
