#include "main/uninterrupted_output.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <ostream>
#include <streambuf>
#include <string>

namespace {

volatile sig_atomic_t signals_handled = 0;

void count_signal(int) {
  signals_handled = signals_handled + 1;
}

// Sends its thread both signals in the middle of everything that is done to it.
class StruckBuffer : public std::streambuf {
 public:
  std::string written;
  int flushes = 0;
  // How many of the signals were handled before a call had returned.
  int handled_inside = 0;

 protected:
  int_type overflow(int_type byte) override {
    is_struck();
    written += static_cast<char>(byte);
    return byte;
  }
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    is_struck();
    written.append(bytes, static_cast<std::size_t>(count));
    return count;
  }
  int sync() override {
    is_struck();
    ++flushes;
    return 0;
  }

 private:
  void is_struck() {
    const int before = signals_handled;
    raise(SIGINT);
    raise(SIGTERM);
    handled_inside += signals_handled - before;
  }
};

struct Write {
  const char* name;
  std::function<void(std::ostream&)> happens;
  const char* bytes;
  int flushes;
};
void PrintTo(const Write& write, std::ostream* out) {
  *out << write.name;
}

class UninterruptedOutputOf : public testing::TestWithParam<Write> {};

TEST_P(UninterruptedOutputOf, PassesTheBytesOnAndHoldsTheSignalsBackMeanwhile) {
  signal(SIGINT, count_signal);
  signal(SIGTERM, count_signal);
  signals_handled = 0;
  StruckBuffer struck;
  UninterruptedOutput output(&struck);
  std::ostream stream(&output);
  GetParam().happens(stream);
  EXPECT_TRUE(stream.good());
  EXPECT_EQ(struck.written, GetParam().bytes);
  EXPECT_EQ(struck.flushes, GetParam().flushes);
  EXPECT_EQ(struck.handled_inside, 0);
  EXPECT_EQ(signals_handled, 2);  // afterwards
}

INSTANTIATE_TEST_SUITE_P(, UninterruptedOutputOf,
                         testing::Values(Write{"AText", [](std::ostream& out) { out << "text"; }, "text", 0},
                                         Write{"AByte", [](std::ostream& out) { out.put('\xFF'); }, "\xFF",
                                               0},
                                         Write{"AFlush", [](std::ostream& out) { out.flush(); }, "", 1}));

TEST(UninterruptedOutput, IsNoPlaceForTheEndOfAFile) {
  StruckBuffer struck;
  class Opened : public UninterruptedOutput {
   public:
    using UninterruptedOutput::overflow;
    using UninterruptedOutput::UninterruptedOutput;
  } output(&struck);
  EXPECT_NE(output.overflow(std::streambuf::traits_type::eof()), std::streambuf::traits_type::eof());
  EXPECT_EQ(struck.written, "");
}

}  // namespace
