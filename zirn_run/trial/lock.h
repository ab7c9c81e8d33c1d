#ifndef TRIAL_LOCK_H
#define TRIAL_LOCK_H

#include <stdexcept>
#include <string>

namespace trial {

// Another test holds the station; says which: "process 4711 tests a unit here since 10:12:00".
struct Held : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The station, which one test at a time may have: a name among the sockets of its network, which goes with the last
// process that has it, however that ends. Processes that this one forks have it, too; programs that it starts do not.
class Lock {
 public:
  enum class Of {
    kStation,
    kFolder,  // of runs, where the station's recorder would put the same run: the one that has it puts it there
  };

  // Throws Held, and std::system_error where no socket can be made.
  explicit Lock(Of what);
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Whether a process has it.
  static bool is_held(Of what);
  // Lets those go who wanted to know who has it. Call it now and then.
  void answer() const;

 private:
  const int socket_;
};

}  // namespace trial

#endif
