#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <string_view>

#include "picture/svg.h"
#include "picture/words.h"
#include "record/reader.h"
#include "record/writer.h"
#include "zirn_run/drawn.h"

namespace {

using tftp::rrq;

constexpr made::Endpoint kUnit{made::kUnit, 2000};

// Empty when the text is well-formed as far as SVG without comments and CDATA goes; otherwise what is wrong.
std::string wrong_in_xml(const std::string& xml) {
  Lines open;
  for (std::size_t at = 0; at < xml.size();) {
    if (xml[at] == '&') {
      constexpr std::string_view kEntities = "&amp; &lt; &gt; &quot; &#39; ";
      const std::string entity = xml.substr(at, xml.find(';', at) + 1 - at);
      if (entity.empty() || kEntities.find(entity + " ") == std::string_view::npos) return "bare &";
    }
    const auto code = static_cast<unsigned char>(xml[at]);
    if ((code != '\n' && code < 0x20) || code == 0x7f) return "byte " + std::to_string(code);
    if (xml[at] != '<') {
      ++at;
      continue;
    }
    const std::size_t end = xml.find('>', at);
    if (end == std::string::npos) return "tag without end";
    const std::string tag = xml.substr(at + 1, end - at - 1);
    if (tag.find('<') != std::string::npos || std::count(tag.begin(), tag.end(), '"') % 2 != 0)
      return "tag " + tag;
    const std::string name = tag.substr(0, tag.find_first_of(" /\n", 1));
    if (tag[0] == '/') {
      if (open.empty() || "/" + open.back() != tag) return "unexpected " + tag;
      open.pop_back();
    } else if (tag.back() != '/' && tag[0] != '?') {
      open.push_back(name);
    }
    at = end + 1;
  }
  return open.empty() ? "" : "not closed: " + open.back();
}

// A run in which everything happens that can be drawn.
void play_busy_run(MadeRun* run) {
  run->story.take(record::Interface{"lan0", "udp", record::kEthernet, 0});
  run->says(record::RunBegins{"busy", std::string(250, 'T'), "TFTP -o 172.40.0.1 " + std::string(300, '<')});
  for (int second = 0; second < 4; ++second) run->rests(1000).broadcasts_boot_script();
  run->line(std::string(200, 'l'));
  Exchange image(run, kUnit, made::kStation);
  image.asks(rrq(std::string(200, 'W') + "<&>\"\x01\xff", {{"blksize", "1428"}}));
  run->next_is(record::kLostByChance);
  image.answers(tftp::oack({{"blksize", "1428"}}));
  image.sends(tftp::ack(0));
  image.blocks(1, 20, 1428);
  run->next_is(record::kLostByChance);
  image.answers(tftp::data(21, std::string(1428, 'x')));
  run->line("RRQ a name with blanks that is long enough to need a second line");
  run->says(record::Cut{40000000});
  run->rests(5000);
  image.blocks(21, 21, 1428);
  image.answers(tftp::data(22, ""));
  image.sends(tftp::error(4, std::string(600, 'e')));
  for (std::uint32_t i = 0; i < 6; ++i) {
    run->next_is(i == 2 ? record::kDuplicated : i == 3 ? record::kLostByChance : record::kSwapped);
    Exchange verdict(run, {made::kUnit + i, 2001}, made::kStation);
    verdict.asks(rrq("F_l_m_01TEST_FAILED_" + std::string(60, 'v')));
    verdict.blocks(1, 1, 0);
    run->closed({made::kUnit + i, 2001}, {made::kStation, 33133});
  }
  Exchange query(run, {made::kStationAtPpt, 40000}, made::kPptServer, 69);
  query.asks(rrq("F_l_m_01CPU_2_TEST_FAILED"));
  query.blocks(1, 9, 512);
  query.answers(tftp::data(10, std::string(512, 'x')));
  run->says(record::BoardCall{"envtool ppt_flag=failed " + std::string(200, 'b'), 3});
  run->tcp({made::kStationAtPpt, 50000}, {made::kPptServer, 12345}, made::kSyn, 1);
  run->rests(1000).tcp({made::kStationAtPpt, 50000}, {made::kPptServer, 12345}, made::kSyn, 1);
  run->udp({0xac280063, 5000}, {made::kStation, 4444}, "from a stranger");
  run->udp({0xac280063, 5000}, {0xac280064, 4444}, "among strangers");
  run->udp({made::kUnit, 2005}, {made::kStation, 12345}, std::string(255, 'r'));
  run->udp({made::kStationAtPpt, 41000}, {made::kPptServer, 12345}, std::string(255, 'r') + '\0');
  for (int i = 0; i < 5; ++i) {
    run->line("alternately");
    run->line("\xe4\xb8\xad\xe6\x96\x87");
  }
  run->story.take(record::Statistics{0, run->now, 200, 7});
  run->story.take(record::Line{"without a time"}, 0, 9);
  run->says(record::StationEnds{2, 0});
  run->rests(60000).says(record::RunEnds{"failed", std::string(400, 'j')});
}

TEST(PicturePage, HasItsOwnPlaceForEverythingInAFullRun) {
  MadeRun run;
  play_busy_run(&run);
  run.ends(true);
  for (const auto detail : {picture::Detail::kEverything, picture::Detail::kRepetitionsFolded,
                            picture::Detail::kTransfersInARow, picture::Detail::kUnitsInARow}) {
    const Drawn drawing = drawn(run.reading(), detail);
    EXPECT_GT(drawing.rows.size(), 15U);
    EXPECT_EQ(wrong_in_layout(drawing), "") << static_cast<int>(detail);
    EXPECT_EQ(wrong_in_xml(picture::svg_of(drawing.sheet)), "");
  }
}

TEST(PicturePage, FindsWhatOverlaps) {
  MadeRun run;
  run.line("one");
  Drawn drawing = drawn(run.ends());
  EXPECT_EQ(wrong_in_layout(drawing), "");
  drawing.sheet.texts.push_back(drawing.sheet.texts.back());
  EXPECT_NE(wrong_in_layout(drawing), "");
}

TEST(PicturePage, HasItsOwnPlaceForEverythingInTwoRunsBesideEachOther) {
  MadeRun run, short_run;
  play_busy_run(&run);
  short_run.line("one");
  const Drawn full = drawn(run.ends(true));
  const Drawn little = drawn(short_run.ends());
  for (const auto& [left, right] : {std::pair(full, little), std::pair(little, full)}) {
    Drawn both = left;
    put_beside(right.sheet, &both.sheet);
    EXPECT_EQ(wrong_in_layout(both), "");
    EXPECT_EQ(wrong_in_xml(picture::svg_of(both.sheet)), "");
    EXPECT_EQ(both.sheet.width, left.sheet.width + right.sheet.width);
    EXPECT_EQ(both.sheet.texts.size(), left.sheet.texts.size() + right.sheet.texts.size());
  }
}

TEST(PicturePage, GivesThreeUnitsALaneEachAndAllOthersOne) {
  MadeRun run;
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"});
  for (std::uint32_t i = 0; i < 5; ++i) {
    Exchange(&run, {made::kUnit + i, 2000}, made::kStation).asks(rrq("a" + std::to_string(i)));
  }
  const Drawn drawing = drawn(run.ends());
  for (const char* const head :
       {"unit", "172.40.0.2", "172.40.0.3", "172.40.0.4", "others", "station", "PPT server"})
    EXPECT_TRUE(says(drawing, head)) << head;
  EXPECT_FALSE(says(drawing, "172.40.0.5"));
  EXPECT_EQ(words_in(drawing).at(4).find("read a4, its end is not in the record, from 172.40.0.6"), 0U)
      << words_in(drawing).at(4);
  EXPECT_LE(drawing.sheet.width, 1400);
  EXPECT_EQ(wrong_in_layout(drawing), "");
}

TEST(PicturePage, LetsNoArrowOfOneUnitCrossALifeLine) {
  MadeRun run;
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"});
  Exchange unit(&run, kUnit, made::kStation);
  unit.asks(rrq("a"));
  unit.blocks(1, 1, 4);
  Exchange query(&run, {made::kStationAtPpt, 40000}, made::kPptServer, 69);
  query.asks(rrq("F_l_m_01CPU_2_A"));
  query.blocks(1, 1, 0);
  run.says(record::BoardCall{"envtool show tempmac", 0});
  EXPECT_TRUE(drawn(run.ends()).sheet.hops.empty());
}

TEST(PicturePage, ExplainsEverySignThatIsInIt) {
  MadeRun run;
  play_busy_run(&run);
  const Drawn drawing = drawn(run.ends());
  for (const char* const meaning :
       {"datagram", "verdict of the unit", "broadcast", "TCP connection", "blocks of a file and their ACKs",
        "the station prints", "the station runs on its board", "lost", "duplicated", "a block or ACK lost",
        "sent again", "the cable is out",
        "nobody listens there any more: harmless, the station does not await the ACK of a verdict"})
    EXPECT_TRUE(says(drawing, meaning)) << meaning;
}

TEST(PicturePage, IsDrawnWhereNothingIsKnown) {
  MadeRun run;
  const Drawn drawing = drawn(run.ends());
  EXPECT_EQ(drawing.rows.size(), 0U);
  for (const char* const text : {"A recorded run", "no final verdict", "not known", "none"})
    EXPECT_TRUE(says(drawing, text)) << text;
  EXPECT_EQ(wrong_in_layout(drawing), "");
  EXPECT_EQ(wrong_in_xml(picture::svg_of(drawing.sheet)), "");
}

TEST(PicturePage, SaysHowTheStationEnded) {
  EXPECT_EQ(story::in_words(record::StationEnds{2, 0}), "2 (a final verdict or SIGINT ended the run)");
  EXPECT_EQ(story::in_words(record::StationEnds{15, 0}), "15 (SIGTERM)");
  EXPECT_EQ(story::in_words(record::StationEnds{std::nullopt, 9}), "137 (SIGKILL)");
  EXPECT_EQ(story::in_words(record::StationEnds{std::nullopt, 13}),
            "141 (SIGPIPE: the unit closed its command connection before its answer was sent)");
  EXPECT_EQ(story::in_words(record::StationEnds{0, 11}), "139");
  EXPECT_EQ(story::in_words(record::StationEnds{3, 0}), "3");
  EXPECT_EQ(story::in_words(record::StationEnds{}), "not known");
}

TEST(PictureSvg, EscapesNames) {
  MadeRun run;
  Exchange(&run, kUnit, made::kStation).asks(rrq("<a&b>\x01\xff"));
  const std::string svg = picture::picture_of(run.ends());
  EXPECT_NE(svg.find("&lt;a&amp;b&gt;\\x01\\xff"), std::string::npos);
  EXPECT_EQ(wrong_in_xml(svg), "");
}

TEST(PictureSvg, IsTheSameForEqualReadings) {
  MadeRun one;
  MadeRun other;
  play_busy_run(&one);
  play_busy_run(&other);
  EXPECT_EQ(picture::picture_of(one.ends()), picture::picture_of(other.ends()));
}

TEST(PictureSvg, SaysInShortWhatItShows) {
  MadeRun run;
  run.says(record::RunBegins{"", "A title", ""});
  const std::string svg = picture::picture_of(run.ends());
  EXPECT_NE(svg.find("<title id=\"title\">A title</title>"), std::string::npos);
  EXPECT_NE(svg.find("<desc id=\"summary\">no final verdict</desc>"), std::string::npos);
}

TEST(PictureSvg, ChecksXmlSoThatItFindsWhatIsWrong) {
  EXPECT_EQ(wrong_in_xml("<a><b c=\"d\"/>&amp;</a>"), "");
  for (const char* const wrong : {"<a>", "<a></b>", "<a>&</a>", "<a>\x01</a>", "<a b=\">\"/>"})
    EXPECT_NE(wrong_in_xml(wrong), "") << wrong;
}

// The contrast of two colours, "#rgb" or "#rrggbb", from 1 to 21 (WCAG 2.1).
double contrast(const std::string& one, const std::string& other) {
  const auto luminance = [](std::string colour) {
    if (colour.size() == 4) colour = {'#', colour[1], colour[1], colour[2], colour[2], colour[3], colour[3]};
    constexpr std::array<double, 3> kWeights{0.2126, 0.7152, 0.0722};
    double sum = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      const double part = std::stoi(colour.substr(1 + 2 * i, 2), nullptr, 16) / 255.0;
      sum += kWeights[i] * (part <= 0.03928 ? part / 12.92 : std::pow((part + 0.055) / 1.055, 2.4));
    }
    return sum;
  };
  const double a = luminance(one) + 0.05;
  const double b = luminance(other) + 0.05;
  return std::max(a, b) / std::min(a, b);
}

// The colour of each "selector property" in one part of the style.
std::map<std::string, std::string> colours_in(const std::string& style) {
  std::map<std::string, std::string> colours;
  std::istringstream lines(style);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t brace = line.find(" { ");
    const std::size_t colon = line.find(": #");
    const std::size_t end = line.find(" }");
    if (brace == std::string::npos || colon == std::string::npos || end != line.size() - 2) continue;
    const std::string property = line.substr(brace + 3, colon - brace - 3);
    if (property != "fill" && property != "stroke") continue;
    colours[line.substr(0, brace) + " " + property] = line.substr(colon + 2, end - colon - 2);
  }
  return colours;
}

TEST(PictureSvg, HasWordsThatCanBeReadOnEveryGroundLightAndDark) {
  const std::string svg = picture::svg_of(picture::Sheet());
  const std::size_t dark = svg.find("@media (prefers-color-scheme: dark)");
  ASSERT_NE(dark, std::string::npos);
  for (const std::string& part : {svg.substr(0, dark), svg.substr(dark)}) {
    const auto colours = colours_in(part);
    const auto of = [&colours](const std::string& what) { return colours.at(what + " fill"); };
    for (const char* const ground :
         {"rect.page", "rect.output", "rect.call", "rect.lane", "rect.band, rect.inferred", "rect.passed-row",
          "rect.failed-row", "rect.wrong-row"})
      EXPECT_GE(contrast(of("text"), of(ground)), 4.5) << ground;
    for (const std::string mark : {"passed", "failed", "wrong"}) {
      EXPECT_GE(contrast(of("text." + mark), of("rect." + mark + "-row")), 4.5) << mark;
      EXPECT_GE(contrast(of("text.sign"), of("rect." + mark)), 4.5) << mark;
    }
    EXPECT_GE(contrast(of("text.sign"), of("rect.neither")), 4.5);
    EXPECT_GE(contrast(of("text.wrong"), of("rect.page")), 4.5);
    for (const char* const pen :
         {".datagram, .broadcast", ".tcp", ".board", ".lost, .closed", ".harmless", ".axis, .life, .paused"})
      EXPECT_GE(contrast(colours.at(std::string(pen) + " stroke"), of("rect.page")), 3) << pen;
  }
}

TEST(PictureWords, NameSizes) {
  EXPECT_EQ(picture::size_in_words(1), "1 byte");
  EXPECT_EQ(picture::size_in_words(1023), "1023 bytes");
  EXPECT_EQ(picture::size_in_words(1536), "1.5 KiB");
  EXPECT_EQ(picture::size_in_words(31.4 * 1048576), "31.4 MiB");
  EXPECT_EQ(picture::seconds(-1, 3), "0.000");
  EXPECT_EQ(picture::decimal(-1.25, 1), "-1.3");
}

TEST(PictureWords, AreBrokenAtBlanksAndInNoLetter) {
  const auto letters = [](const std::string& text) { return static_cast<double>(text.size()); };
  EXPECT_EQ(picture::wrapped("one two three", 7, letters, 9), (Lines{"one two", "three"}));
  EXPECT_EQ(picture::wrapped("one two three", 7, letters, 1), (Lines{"one ..."}));
  EXPECT_EQ(picture::wrapped("\xc3\xbc\xc3\xbc\xc3\xbc", 3, letters, 9),
            (Lines{"\xc3\xbc", "\xc3\xbc", "\xc3\xbc"}));
  EXPECT_EQ(picture::wrapped("", 3, letters, 9), (Lines{""}));
}

TEST(PictureRobustness, DrawsARecordWithAnyByteSpoiledOrCutAnywhere) {
  std::stringstream made;
  record::Writer writer(made, record::Maker());
  writer.add(record::Interface{"lan0", "", record::kEthernet, 0});
  const auto add = [&writer](const std::string& packet) {
    const std::string bytes = made::ethernet(packet);
    record::Frame frame;
    frame.at = MadeRun::kStart;
    frame.bytes = bytes;
    frame.size = static_cast<std::uint32_t>(bytes.size());
    writer.add(frame);
  };
  const made::Endpoint server{made::kStation, 69};
  const made::Endpoint answering{made::kStation, 33133};
  add(made::ip(made::kUnit, made::kStation, 17, made::udp(kUnit, server, rrq("a", {{"blksize", "20"}}))));
  for (int block = 1; block < 5; ++block) {
    add(made::ip(made::kStation, made::kUnit, 17,
                 made::udp(answering, kUnit, tftp::data(block, std::string(20, 'x')))));
    add(made::ip(made::kUnit, made::kStation, 17, made::udp(kUnit, answering, tftp::ack(block))));
  }
  add(made::ip(made::kUnit, made::kStation, 6,
               made::tcp(kUnit, {made::kStation, 12345}, made::kSyn, 1, "x")));
  add(made::ip(made::kStation, made::kUnit, 1, made::port_unreachable(kUnit, answering)));
  writer.add(record::entry_of(record::Line{"Cmd received: F_l_m_01A"}, MadeRun::kStart));
  const std::string whole = made.str();
  const auto check = [](const std::string& bytes, std::size_t place) {
    std::istringstream file(bytes, std::ios::binary);
    try {
      record::Reader reader(file);
      story::Story story;
      while (const auto item = reader.next()) story.take(*item);
      story.finish(!reader.problem().empty());
      ASSERT_EQ(wrong_in_xml(picture::picture_of(story.reading())), "") << place;
      ASSERT_EQ(wrong_in_layout(drawn(story.reading())), "") << place;
    } catch (const record::NotARecord&) {
    }
  };
  for (std::size_t place = 0; place < whole.size(); ++place) {
    std::string spoiled = whole;
    spoiled[place] = '\xff';
    check(spoiled, place);
    check(whole.substr(0, place), place);
  }
}

TEST(PictureRobustness, DrawsGarbageAtAnyTime) {
  MadeRun run;
  const std::string garbage = "\xff\xfe\n" + std::string(5000, '<');
  run.says(record::RunBegins{garbage, garbage, garbage});
  for (const record::Nanoseconds at : {record::Nanoseconds{INT64_MAX} - 9 * MadeRun::kMillisecond,
                                       record::Nanoseconds{-1}, record::Nanoseconds{5}}) {
    run.now = at - MadeRun::kMillisecond;
    run.line(garbage);
    run.says(record::BoardCall{garbage, -1});
    run.says(record::Cut{INT64_MAX});
    run.says(record::Cut{-5});
  }
  run.says(record::StationEnds{-1, -1});
  run.says(record::RunEnds{garbage, garbage});
  const Drawn drawing = drawn(run.ends());
  EXPECT_EQ(wrong_in_layout(drawing), "");
  EXPECT_EQ(wrong_in_xml(picture::svg_of(drawing.sheet)), "");
}

}  // namespace
