#include "picture/picture.h"

#include "picture/capture.h"
#include "picture/packet.h"
#include "picture/page.h"
#include "picture/rows.h"
#include "picture/story.h"
#include "picture/svg.h"

namespace picture {

std::string picture_of(const RunRecord& run) {
  const Capture capture = read_capture(run.capture);
  const std::vector<Packet> packets = packets_in(capture, run.fates);
  return svg_of(page_of(rows_of(story_of(packets, run), run.end), run));
}

}  // namespace picture
