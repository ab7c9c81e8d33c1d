#ifndef MAIN_VOICE_H
#define MAIN_VOICE_H

#include <string>

#include "main/progress.h"

// Says lines as something happens that waits for nobody: whoever does not read holds nothing up. Lines that find no room
// are lost.
class Voice {
 public:
  // The descriptor must outlive it.
  explicit Voice(int descriptor) : descriptor_(descriptor) {}

  void say(const std::string& text);
  // How far something is, where that is a terminal; empty: it is done.
  void show(const std::string& progress);
  // Waits for the reader, for a minute at most. False: not all could be said.
  bool finish();

 private:
  static constexpr std::size_t kMostBytes = std::size_t{1} << 20;  // that wait

  void write_until(int patience_milliseconds);

  const int descriptor_;
  std::string waiting_;
  bool is_whole_ = true;
  ProgressLine progress_;
};

#endif
