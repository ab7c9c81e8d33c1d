#include "support/captured_output.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "stage/wait_until.h"
#include "support/whole_file.h"

namespace {

void restore_number_format() {
  static const std::ios untouched(nullptr);
  std::cout.copyfmt(untouched);
}

void flush() {
  std::cout.flush();
  std::fflush(stdout);
}

}  // namespace

CapturedOutput::CapturedOutput() : captured_(memfd_create("captured output", MFD_CLOEXEC)) {
  flush();
  restore_number_format();
  standard_output_ = dup(STDOUT_FILENO);
  dup2(captured_, STDOUT_FILENO);
}

CapturedOutput::~CapturedOutput() {
  const std::string everything = text();
  restore_number_format();
  dup2(standard_output_, STDOUT_FILENO);
  close(standard_output_);
  close(captured_);
  // What GoogleTest reported meanwhile is in it.
  if (testing::Test::HasFailure()) std::cout << "captured output:\n" << everything << std::endl;
}

std::string CapturedOutput::text() const {
  flush();
  return whole_file(captured_);
}

bool CapturedOutput::waits_for(const std::string& piece, std::chrono::milliseconds patience) const {
  return wait_until([&] { return text().find(piece) != std::string::npos; }, patience);
}
