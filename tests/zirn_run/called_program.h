#ifndef ZIRN_RUN_CALLED_PROGRAM_H
#define ZIRN_RUN_CALLED_PROGRAM_H

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "stage/process.h"
#include "support/program.h"
#include "support/scratch_directory.h"
#include "support/whole_file.h"

// The program zirn-run, called in a scratch directory.
struct CalledProgramResult {
  int status = -1;
  std::string output;
  std::string errors;
};

class CalledProgram : public testing::Test {
 protected:
  using Result = CalledProgramResult;
  static constexpr std::chrono::seconds kPatience{60};

  Result calls(std::vector<std::string> arguments, const std::string& input = "") const {
    arguments.insert(arguments.begin(), ZIRN_RUN_PROGRAM);
    Process program(arguments, [] { append_errors_to("errors"); });
    program.write_text(input);
    program.close_input();
    Result result;
    result.status = status_number(program.wait_for_end(kPatience));
    result.output = program.read_text();
    result.errors = whole_file("errors");
    write_whole_file("errors", "");
    return result;
  }
  void expect_refused(const std::vector<std::string>& arguments, int status, const std::string& error) const {
    const Result result = calls(arguments);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors.substr(0, result.errors.find('\n')), error);
  }

  const ScratchDirectory directory_;
};

#endif
