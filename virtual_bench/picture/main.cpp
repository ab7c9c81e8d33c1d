// picture RUN_FOLDER CAPTURE SVG: draws one test run as a sequence diagram.
//
// RUN_FOLDER holds what the bench wrote of the run: `run`, `station.log`, `board.log`, `fates`; CAPTURE what
// went over the wire. What is missing or unreadable of them is missing in the picture. Exit status: 0 when
// the picture was written, 1 when it could not be, 2 for wrong arguments.

#include <fstream>
#include <iostream>
#include <string>

#include "picture/capture.h"
#include "picture/packet.h"
#include "picture/page.h"
#include "picture/rows.h"
#include "picture/run_folder.h"
#include "picture/story.h"
#include "picture/svg.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "Usage: picture RUN_FOLDER CAPTURE SVG" << std::endl;
    return 2;
  }
  const picture::RunFolder run = picture::read_run_folder(argv[1]);
  const std::string contents = picture::contents_of(argv[2]);
  const picture::Capture capture = picture::read_capture(contents);
  const auto story = picture::story_of(picture::packets_in(capture, run.fates), run);
  const auto rows = picture::rows_of(story, picture::time_in(picture::fact(run, "end")));
  std::ofstream file(argv[3], std::ios::binary);
  file << picture::svg_of(picture::page_of(rows, run));
  file.close();
  if (!file) {
    std::cerr << "picture: " << argv[3] << " cannot be written; a path to a new or writable file was expected"
              << std::endl;
    return 1;
  }
  return 0;
}
