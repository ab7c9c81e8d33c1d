#ifndef TERMINAL_STREAM_H
#define TERMINAL_STREAM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <streambuf>
#include <string>
#include <vector>

namespace terminal {

// A record that comes through a pipe. While nothing comes it lets others work; and all that came is kept in a file
// without a name (in TMPDIR, or /var/tmp), so that it can be saved, and taken later than it came.
class Stream : public std::streambuf {
 public:
  static constexpr std::uint64_t kMostKept = std::uint64_t{2} << 30;    // bytes
  static constexpr std::uint64_t kLeftFree = std::uint64_t{256} << 20;  // of the file system

  // Returns when the descriptor can be read; false: no more is wanted.
  using Wait = std::function<bool(int descriptor)>;

  Stream(int descriptor, Wait wait);
  ~Stream() override;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  int descriptor() const { return descriptor_; }
  // Keeps what is there for later. False: that can no longer be.
  bool keep();
  // Writes all that came into a file. Throws std::system_error, also where not all of it was kept.
  void save(const std::string& name) const;

 protected:
  int_type underflow() override;

 private:
  std::size_t receive();
  int why_not_kept(std::size_t more) const;

  const int descriptor_;
  const Wait wait_;
  const int kept_;
  std::uint64_t end_ = 0;    // bytes that were kept
  std::uint64_t taken_ = 0;  // of these
  int error_ = 0;            // why no more is kept
  bool has_ended_ = false;
  std::vector<char> buffer_;
};

}  // namespace terminal

#endif
