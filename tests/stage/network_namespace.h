#ifndef STAGE_NETWORK_NAMESPACE_H
#define STAGE_NETWORK_NAMESPACE_H

#include <functional>
#include <stdexcept>
#include <string>

// Networks and mounts that are a process's own. Nothing that it does to them reaches the machine. A network
// of one's own begins with the loopback interface, up, and without IPv6, which would send on its own.

// What is needed and this machine does not give.
struct NotAllowed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// From now on the process, which has one thread, has network and mounts of its own; where it is not root, it
// is that of a user namespace. Throws NotAllowed.
void enter_private_namespaces();

// Does the work in a child process that has network, mounts and process numbers of its own. Returns what work
// returns, or 128 plus the number of the signal that ended it; all that work has started has ended then.
// Throws NotAllowed. For a process with one thread.
int run_in_private_namespaces(const std::function<int()>& work);
// For that work to begin with: /proc shows the processes of its namespace. Throws NotAllowed.
void mount_own_proc();
// From now on SIGHUP, SIGINT and SIGTERM end the work of run_in_private_namespaces, at once if they come
// before it, and no longer the process itself.
void end_work_on_signals();

class NetworkNamespace {
 public:
  NetworkNamespace();  // a new one. Throws NotAllowed.
  static NetworkNamespace current();
  ~NetworkNamespace();
  NetworkNamespace(const NetworkNamespace&) = delete;
  NetworkNamespace& operator=(const NetworkNamespace&) = delete;

  // Takes the calling thread there for good.
  void enter() const;
  // By which other processes find it.
  std::string path() const;

 private:
  explicit NetworkNamespace(int descriptor) : descriptor_(descriptor) {}
  int descriptor_;
};

// Takes the calling thread into a network namespace while it lives. A socket made there stays there.
class ScopedNamespace {
 public:
  // path: a file that is the namespace. Throws NotAllowed.
  explicit ScopedNamespace(const std::string& path);
  explicit ScopedNamespace(const NetworkNamespace& there) : ScopedNamespace(there.path()) {}
  ~ScopedNamespace();
  ScopedNamespace(const ScopedNamespace&) = delete;
  ScopedNamespace& operator=(const ScopedNamespace&) = delete;

 private:
  int before_;
};

// Runs "ip" with these words where the calling thread is, or there. Throws std::runtime_error with what it
// said when it fails.
void ip(const std::string& words);
void ip(const NetworkNamespace& there, const std::string& words);

#endif
