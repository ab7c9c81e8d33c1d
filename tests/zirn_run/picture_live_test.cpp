#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "picture/live.h"
#include "zirn_run/explained_run.h"

namespace {

// A read that finishes among frames of others, and one that is refused.
picture::Live live() {
  ExplainedRun run;
  run.begins();
  run.reads("boot.img", 40);
  run.is_refused("kernel.img", 1, "File not found");
  return picture::live_picture_of(run.run.ends());
}

std::vector<picture::LiveRow> rows_with(const std::string& words, const picture::Live& live) {
  std::vector<picture::LiveRow> rows;
  for (const picture::LiveRow& row : live.rows)
    if (row.words.find(words) != std::string::npos) rows.push_back(row);
  return rows;
}

}  // namespace

TEST(LivePicture, FoldsATransferThatFinishedAndUnfoldsOneThatDidNot) {
  const picture::Live drawn = live();
  std::size_t shorts = 0;
  for (const picture::LiveRow& row : drawn.rows) {
    const bool is_refused = row.words.find("kernel.img") != std::string::npos;
    if (!row.is_short) continue;
    EXPECT_EQ(row.is_hidden, is_refused) << row.words;
    ++shorts;
  }
  EXPECT_EQ(shorts, 2U);
}

TEST(LivePicture, HasOfEachTransferEitherItsShortRowOrAllOthers) {
  const picture::Live drawn = live();
  for (const picture::LiveRow& one : drawn.rows) {
    if (!one.is_short) continue;
    for (const picture::LiveRow& other : drawn.rows) {
      if (other.transfer != one.transfer || other.is_short) continue;
      EXPECT_NE(other.is_hidden, one.is_hidden) << other.words;
    }
  }
}

TEST(LivePicture, TellsOfEachRowItsFrames) {
  const picture::Live drawn = live();
  const auto rows = rows_with("read boot.img", drawn);
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].frames.count, 1U);
  const auto shorts = rows_with("boot.img, ", drawn);
  ASSERT_FALSE(shorts.empty());
  EXPECT_TRUE(shorts[0].is_short);
  EXPECT_EQ(shorts[0].frames.first, rows[0].frames.first);
  EXPECT_EQ(shorts[0].frames.count, 81U);  // the request, 40 blocks, 40 ACKs
  std::uint64_t lines = 0;
  for (const picture::LiveRow& row : drawn.rows) {
    EXPECT_TRUE(row.lines.count == 0 || row.frames.count == 0) << row.words;
    lines += row.lines.count;
  }
  EXPECT_EQ(lines, 5U);  // three at the start, and two requests
}

TEST(LivePicture, DrawsInEachRowWhatStandsThereAlone) {
  const picture::Live drawn = live();
  std::size_t found = 0;
  for (const picture::LiveRow& row : drawn.rows) {
    EXPECT_EQ(row.svg.rfind("<svg ", 0), 0U);
    EXPECT_EQ(row.svg.substr(row.svg.size() - 6), "</svg>");
    found += row.svg.find("ERROR 1") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(found, 2U);  // the error, and the short row
  EXPECT_NE(drawn.lanes.find("172.40.0.2"), std::string::npos);
  EXPECT_NE(drawn.legend.find("datagram"), std::string::npos);
}
