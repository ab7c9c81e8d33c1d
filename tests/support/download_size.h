#ifndef SUPPORT_DOWNLOAD_SIZE_H
#define SUPPORT_DOWNLOAD_SIZE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <string>

// Sizes that a test of the client's download runs with, as its parameter.
struct DownloadSize {
  std::size_t file;
  int block;
};

inline void PrintTo(const DownloadSize& size, std::ostream* stream) {
  *stream << size.file << " bytes in blocks of " << size.block;
}

inline std::string name_of(const testing::TestParamInfo<DownloadSize>& size) {
  return std::to_string(size.param.file) + "BytesInBlocksOf" + std::to_string(size.param.block);
}

// What the client prints when the server acknowledges tsize and nothing goes wrong.
inline std::string started(std::size_t size) {
  return "Remote file is " + std::to_string(size) + " byte\nTransfer started\n";
}

#endif
