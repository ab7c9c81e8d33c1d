#include "support/whole_file.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

std::string whole_file(int descriptor) {
  std::string contents;
  char piece[4096];
  ssize_t count;
  while ((count = pread(descriptor, piece, sizeof piece, static_cast<off_t>(contents.size()))) > 0) {
    contents.append(piece, static_cast<std::size_t>(count));
  }
  return contents;
}

std::string whole_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_whole_file(const std::string& path, const std::string& contents) {
  std::ofstream file(path, std::ios::binary);
  file << contents;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

std::string noise(std::size_t length) {
  std::mt19937 generator(20);
  std::string bytes(length, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}
