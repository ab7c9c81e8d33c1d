// `zirn-run draw`.
#include "zirn_run/called_program.h"
#include "zirn_run/made_capture.h"

namespace {

class ProgramDraw : public CalledProgram {};

TEST_F(ProgramDraw, DrawsToStandardOutputOrIntoAFile) {
  write_whole_file("run", MadeCapture().read("kernel.img").contents());
  const Result result = calls({"draw", "run"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_NE(result.output.find("kernel.img"), std::string::npos) << result.output;
  EXPECT_EQ(calls({"draw", "run", "-o", "picture.svg"}).output, "");
  EXPECT_EQ(whole_file("picture.svg"), result.output);
  EXPECT_EQ(calls({"draw", "-"}, whole_file("run")).output, result.output);
}

TEST_F(ProgramDraw, DrawsWhatIsBeforeTheCutAndSaysThatThereIsOne) {
  const std::string whole = MadeCapture().read("kernel.img").contents();
  write_whole_file("run", whole.substr(0, whole.size() - 10));
  const Result result = calls({"draw", "run"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors.rfind("zirn-run: run: byte ", 0), 0U) << result.errors;
  EXPECT_NE(result.output.find("kernel.img"), std::string::npos);
}

TEST_F(ProgramDraw, DrawsTheJournalsAndTheLogsLines) {
  write_whole_file("run", MadeCapture().read("kernel.img").contents());
  write_whole_file("log", "RRQ kernel.img\nStopping server\n");
  const std::string picture = calls({"draw", "run", "--log", "log"}).output;
  EXPECT_NE(picture.find("RRQ kernel.img"), std::string::npos);
  EXPECT_NE(picture.find("Stopping server"), std::string::npos);
  write_whole_file("journal",
                   "__REALTIME_TIMESTAMP=1700000000001500\nMESSAGE=a line\nSYSLOG_IDENTIFIER=TFTP\n\n");
  EXPECT_NE(calls({"draw", "run", "--journal", "journal"}).output.find("a line"), std::string::npos);
}

TEST_F(ProgramDraw, DrawsAPartOfTheRun) {
  MadeCapture capture;
  capture.read("first", 2000);
  capture.rests(10000);
  capture.read("later.img", 2001);
  write_whole_file("run", capture.contents());
  const std::string late = calls({"draw", "run", "--from", "5"}).output;
  EXPECT_EQ(late.find("first"), std::string::npos);
  EXPECT_NE(late.find("later.img"), std::string::npos);
  const std::string early = calls({"draw", "run", "--until", "5"}).output;
  EXPECT_NE(early.find("first"), std::string::npos);
  EXPECT_EQ(early.find("later.img"), std::string::npos);
  EXPECT_NE(calls({"draw", "run", "--unit", "172.40.0.2"}).output.find("first"), std::string::npos);
  EXPECT_EQ(calls({"draw", "run", "--unit", "172.40.0.3"}).output.find("first"), std::string::npos);
}

TEST_F(ProgramDraw, DrawsTwoRunsAndMarksTheFirstDifferenceInBoth) {
  write_whole_file("run", MadeCapture().read("kernel.img").read("rootfs.img", 2001).contents());
  write_whole_file("other", MadeCapture().read("kernel.img").read("last.img", 2001).contents());
  const std::string picture = calls({"draw", "run", "--beside", "other"}).output;
  for (const char* const part : {">run: A recorded run<", ">other: A recorded run<",
                                 ">the first difference: ... rootfs.img: arrives, ",
                                 ">the first difference: ... last.img: arrives, 8 "})
    EXPECT_NE(picture.find(part), std::string::npos) << part;
  expect_refused({"draw", "run", "--beside", "other", "-o", "./other"}, 3,
                 "zirn-run: ./other: expected a file for the picture, found what is to be drawn");
}

TEST_F(ProgramDraw, MarksWhereOneRunHasNothing) {
  write_whole_file("run", MadeCapture().read("kernel.img").contents());
  write_whole_file("other", MadeCapture().read("kernel.img").read("last.img", 2001).contents());
  const std::string picture = calls({"draw", "run", "--beside", "other"}).output;
  EXPECT_NE(picture.find(">the first difference: nothing of the kind"), std::string::npos) << picture;
  EXPECT_EQ(calls({"draw", "run", "--beside", "run"}).output.find("the first difference"), std::string::npos);
}

}  // namespace
