#include "support/test_network.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <exception>
#include <stdexcept>
#include <thread>

#include "support/sandbox.h"

namespace {

// Runs the function on a thread of its own, so that the namespace of this one stays; passes exceptions on.
void on_thread(const std::function<void()>& function) {
  std::exception_ptr failure;
  std::thread([&] {
    try {
      function();
    } catch (...) {
      failure = std::current_exception();
    }
  }).join();
  if (failure) std::rethrow_exception(failure);
}

int new_network_namespace() {
  int descriptor = -1;
  on_thread([&] {
    if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error("unshare of a network failed");
    descriptor = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    sandbox::run("ip link set lo up");
  });
  return descriptor;
}

void in_namespace(int descriptor, const std::function<void()>& function) {
  on_thread([&] {
    if (setns(descriptor, CLONE_NEWNET) != 0) throw std::runtime_error("setns failed");
    function();
  });
}

// A new link drops what is sent before the kernel has taken note that both of its ends are up.
void wait_until_running(const std::string& link) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq request = {};
  link.copy(request.ifr_name, IFNAMSIZ - 1);
  constexpr int kAttempts = 2000;
  for (int attempt = 0; attempt < kAttempts && (request.ifr_flags & IFF_RUNNING) == 0; ++attempt) {
    usleep(5000);
    ioctl(descriptor, SIOCGIFFLAGS, &request);
  }
  close(descriptor);
  if ((request.ifr_flags & IFF_RUNNING) == 0) throw std::runtime_error(link + " does not run");
  // Its answer waits for the note to be complete.
  sandbox::run("ip link show " + link);
}

std::string path_of(int descriptor) {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor);
}

}  // namespace

TestNetwork::TestNetwork()
    : unit_namespace_(new_network_namespace()), ppt_namespace_(new_network_namespace()) {
  sandbox::run("ip link add lan0 type veth peer name lan0 netns " + path_of(unit_namespace_));
  sandbox::run("ip link add ppt0 type veth peer name ppt0 netns " + path_of(ppt_namespace_));
  sandbox::run("ip address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0");
  sandbox::run("ip address add 172.30.0.1/24 broadcast 172.30.0.255 dev ppt0");
  sandbox::run("ip link set lan0 up");
  sandbox::run("ip link set ppt0 up");
  at_unit([] {
    sandbox::run("ip address add 172.40.0.2/24 broadcast 172.40.0.255 dev lan0");
    sandbox::run("ip link set lan0 up");
  });
  at_ppt_server([] {
    sandbox::run("ip address add 172.30.0.254/24 broadcast 172.30.0.255 dev ppt0");
    sandbox::run("ip link set ppt0 up");
    wait_until_running("ppt0");
  });
  at_unit([] { wait_until_running("lan0"); });
  wait_until_running("lan0");
  wait_until_running("ppt0");
}

TestNetwork::~TestNetwork() {
  // A veth goes with either of its ends.
  for (const char* link : {"lan0", "ppt0"}) {
    try {
      sandbox::run(std::string("ip link delete ") + link);
    } catch (const std::exception&) {
      // The test took the link away itself.
    }
  }
  close(unit_namespace_);
  close(ppt_namespace_);
}

void TestNetwork::at_unit(const std::function<void()>& function) const {
  in_namespace(unit_namespace_, function);
}

void TestNetwork::at_ppt_server(const std::function<void()>& function) const {
  in_namespace(ppt_namespace_, function);
}
