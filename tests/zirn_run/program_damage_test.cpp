// Real records, cut and flipped at random places: each ends with a picture, or with one sentence that names the file.
#include <fstream>
#include <random>

#include "record/reader.h"
#include "support/sanitized.h"
#include "zirn_run/called_program.h"
#include "zirn_run/made_record.h"

namespace {

constexpr int kNotAllowed = 77;
constexpr int kDamaged = kSanitized ? 100 : 1000;  // of each kind of file
constexpr char kScenario[] =
    "file bootscript.txt holds \"setenv bootdelay 1\\r\\n\"\nfile kernel.img is 60 KiB\nstation starts\n"
    "unit hears the boot script\nunit obeys the boot script\nwire loses 3 %\n"
    "unit reads kernel.img blksize 8192 tries 3\nwire is whole\nunit reads F_l_m_t_Bootstrap_loading\n"
    "ppt is connected\nunit asks DO_PMC_INIT:7 expects READY\nunit sends \"line 1 is up\"\n"
    "unit reads F_l_m_02PPT_PASSED\nstation exits 2\n";

class ProgramDamage : public CalledProgram {
 protected:
  void SetUp() override {
    write_whole_file("real.run", kScenario);
    Program bench({BENCH_PROGRAM, TFTP_PROGRAM, "real.run", "."});
    const int status = bench.exit_status(kPatience);
    if (status == kNotAllowed) GTEST_SKIP() << bench.output();
    ASSERT_EQ(status, 0) << bench.output();
  }

  // Its frames as a file of another tool.
  static std::string as_pcap(const std::string& name) {
    const MadeRecord made = MadeRecord::in_order_of_this_machine();
    std::string contents = made.pcap_header(0xa1b23c4d, 1);
    std::ifstream file(name, std::ios::binary);
    record::Reader reader(file);
    while (const auto item = reader.next()) {
      const auto* const frame = std::get_if<record::Frame>(&*item);
      if (frame == nullptr) continue;
      contents += made.pcap_frame(static_cast<std::uint32_t>(frame->at / 1000000000),
                                  static_cast<std::uint32_t>(frame->at % 1000000000),
                                  std::string(frame->bytes), frame->size);
    }
    return contents;
  }

  std::string damaged(std::string contents) {
    const auto place = [&] { return random_() % contents.size(); };
    for (auto flips = random_() % 8; flips > 0; --flips) {
      contents[place()] ^= static_cast<char>(1U << random_() % 8);
    }
    if (random_() % 2 == 0) contents.resize(place());
    return contents;
  }

  // With a picture the errors only remark on the file.
  void expect_picture_or_sentence(const std::string& contents) const {
    write_whole_file("damaged", contents);
    const Result result = calls({"draw", "damaged"});
    const std::string beginning = "zirn-run: damaged: ";
    if (result.status == 0) {
      EXPECT_EQ(result.output.rfind("<?xml", 0), 0U);
      EXPECT_EQ(result.output.substr(result.output.size() - 7), "</svg>\n");
      EXPECT_TRUE(result.errors.empty() || result.errors.rfind(beginning, 0) == 0) << result.errors;
    } else {
      EXPECT_EQ(result.status, 3);
      EXPECT_EQ(result.output, "");
      EXPECT_EQ(result.errors.rfind(beginning, 0), 0U) << result.errors;
      EXPECT_EQ(result.errors.find('\n'), result.errors.size() - 1) << result.errors;
    }
    const std::string kept = testing::TempDir() + "zirn-run-damaged";
    if (HasFailure()) write_whole_file(kept, contents);
    EXPECT_FALSE(HasFailure()) << "the damaged file: " << kept;
  }

  std::mt19937 random_{1};
};

TEST_F(ProgramDamage, OfARecordEndsWithAPictureOrOneSentence) {
  const std::string record = whole_file("real.pcapng");
  for (int i = 0; i < kDamaged && !HasFailure(); ++i) expect_picture_or_sentence(damaged(record));
}

TEST_F(ProgramDamage, OfACaptureEndsWithAPictureOrOneSentence) {
  const std::string capture = as_pcap("real.pcapng");
  for (int i = 0; i < kDamaged && !HasFailure(); ++i) expect_picture_or_sentence(damaged(capture));
}

}  // namespace
