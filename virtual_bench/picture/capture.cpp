#include "picture/capture.h"

#include <sstream>

#include "record/reader.h"

namespace picture {

Capture read_capture(const std::string& contents) {
  constexpr record::Nanoseconds kMicrosecond = 1000;
  Capture capture;
  std::istringstream file(contents);
  try {
    record::Reader reader(file);
    while (const auto item = reader.next()) {
      const auto* const frame = std::get_if<record::Frame>(&*item);
      if (frame == nullptr || frame->link_type != record::kEthernet) continue;
      capture.frames.push_back(
          {capture.frames.size() + 1, frame->at / kMicrosecond, std::string(frame->bytes)});
    }
    capture.whole = reader.problem().empty();
  } catch (const record::NotARecord&) {
    capture.whole = false;
  }
  return capture;
}

}  // namespace picture
