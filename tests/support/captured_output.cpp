#include "support/captured_output.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <thread>

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
  const auto end = std::chrono::steady_clock::now() + patience;
  while (text().find(piece) == std::string::npos) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}
