// What an hour of images costs.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <ctime>

#include "support/sanitized.h"
#include "terminal/judgement.h"
#include "terminal/view.h"
#include "zirn_run/made_run.h"

namespace {

using terminal::View;

double processor_seconds() {
  timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double peak_mebibytes() {
  rusage used = {};
  getrusage(RUSAGE_SELF, &used);
  return static_cast<double>(used.ru_maxrss) / 1024;
}

// Images of 20 MiB in blocks of 1428 bytes, a millisecond from frame to frame, of which a link's capture keeps 64 bytes
// of contents; a screen every 100 frames, and each second whose fault it is.
class HourOfImages {
 public:
  void read_image(std::uint16_t port) {
    const made::Endpoint unit{made::kUnit, port};
    const made::Endpoint answering{made::kStation, static_cast<std::uint16_t>(33033 + port)};
    run.line("RRQ image.img");
    take(unit, {made::kStation, 69}, tftp::rrq("image.img", {{"blksize", "1428"}, {"tsize", "0"}}));
    take(answering, unit, tftp::oack({{"blksize", "1428"}, {"tsize", std::to_string(kImageBytes)}}));
    take(unit, answering, tftp::ack(0));
    const std::string contents(kBlockBytes, 'x');
    for (int block = 1; block <= kBlocks; ++block) {
      const auto size = static_cast<std::size_t>(block < kBlocks ? kBlockBytes : kImageBytes % kBlockBytes);
      take(answering, unit, tftp::data(block & 0xffff, contents.substr(0, size)));
      take(unit, answering, tftp::ack(block & 0xffff));
    }
  }

  static constexpr int kImageBytes = 20 << 20;
  static constexpr int kBlockBytes = 1428;
  static constexpr int kBlocks = kImageBytes / kBlockBytes + 1;

  MadeRun run;
  View view{run.reading()};
  terminal::Judgement judgement;
  std::uint64_t screens = 0;

 private:
  static constexpr std::size_t kKept = 14 + 20 + 8 + 64;
  static constexpr std::uint64_t kFramesToAScreen = 100;

  void take(made::Endpoint from, made::Endpoint to, const std::string& payload) {
    const std::string bytes =
        made::ethernet(made::ip(from.address, to.address, 17, made::udp(from, to, payload)));
    record::Frame frame;
    frame.number = ++run.number;
    frame.at = run.now += MadeRun::kMillisecond;
    frame.bytes = std::string_view(bytes).substr(0, kKept);
    frame.size = static_cast<std::uint32_t>(bytes.size());
    run.story.take(frame);
    if (run.number % kFramesToAScreen == 0) show();
  }
  void show() {
    if (++screens % 10 == 0) judgement.judge(run.reading());
    view.look();
    view.screen({"title", "live", judgement.how_far(), judgement.style_of_how_far(), judgement.fault()});
  }
};

TEST(TerminalBounds, AnHourOfImagesTakesThirtyMebibytesAndATwentiethOfAProcessor) {
  constexpr record::Nanoseconds kHour = 3600000000000;
  HourOfImages hour;
  hour.view.set_size(50, 160);
  const double begin = processor_seconds();
  for (std::uint16_t image = 1; hour.run.now - MadeRun::kStart < kHour; ++image) hour.read_image(image);
  const double seconds = processor_seconds() - begin;
  const double mebibytes = peak_mebibytes();
  EXPECT_GT(hour.screens, 35000U);
  EXPECT_EQ(hour.run.reading().transfers.back().end, story::Transfer::End::kFinished);
  EXPECT_EQ(hour.run.reading().left_out, 0U);
  EXPECT_LE(seconds, 0.05 * 3600) << "for an hour at 1,000 frames a second";
  if (!kSanitized) {
    EXPECT_LE(mebibytes, 30) << "with this test in it";
  }
  RecordProperty("processor_seconds", std::to_string(seconds));
  RecordProperty("mebibytes", std::to_string(mebibytes));
  std::printf("%.1f s of a processor, %.1f MiB\n", seconds, mebibytes);
}

}  // namespace
