#ifndef SUPPORT_OCCUPIED_DESCRIPTORS_H
#define SUPPORT_OCCUPIED_DESCRIPTORS_H

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

// While the object lives, every descriptor below `end` is taken, and this process may have some more than a
// descriptor set holds.
class OccupiedDescriptors {
 public:
  explicit OccupiedDescriptors(int end) {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit raised = before_;
    raised.rlim_cur = std::max<rlim_t>(before_.rlim_cur, FD_SETSIZE + 100);
    possible_ = setrlimit(RLIMIT_NOFILE, &raised) == 0;
    int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    while (descriptor != -1 && descriptor < end) {
      occupied_.push_back(descriptor);
      descriptor = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    }
    if (descriptor == -1)
      possible_ = false;
    else
      close(descriptor);
  }
  ~OccupiedDescriptors() {
    for (int descriptor : occupied_) close(descriptor);
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  OccupiedDescriptors(const OccupiedDescriptors&) = delete;
  OccupiedDescriptors& operator=(const OccupiedDescriptors&) = delete;

  // False when the machine does not allow so many.
  bool possible() const { return possible_; }

 private:
  rlimit before_ = {};
  bool possible_ = false;
  std::vector<int> occupied_;
};

#endif
