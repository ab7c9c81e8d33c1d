#ifndef TRIAL_GUARDIAN_H
#define TRIAL_GUARDIAN_H

#include <sys/types.h>

#include <functional>

namespace trial {

// A process of ours that outlives this one, however that ends, until its work is done. It has nothing of what is opened
// later, hears no terminal and takes no signal but SIGKILL.
class Guardian {
 public:
  // `work` gets the guardian's end of a pair of sockets, whose other end is closed when this process is gone. For a
  // process with one thread. Throws std::system_error.
  explicit Guardian(const std::function<void(int)>& work);
  // Waits for its end.
  ~Guardian();
  Guardian(const Guardian&) = delete;
  Guardian& operator=(const Guardian&) = delete;

  // This process's end, which keeps messages apart.
  int descriptor() const { return descriptor_; }

 private:
  pid_t pid_ = -1;
  int descriptor_ = -1;
};

}  // namespace trial

#endif
