#include "support/test_network.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <exception>
#include <stdexcept>

#include "stage/wait_until.h"

namespace {

// A new link drops what is sent before the kernel has taken note that both of its ends are up.
void wait_until_running(const std::string& link) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  link.copy(request.ifr_name, IFNAMSIZ - 1);
  const bool runs = wait_until([&] {
    return ioctl(descriptor, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
  });
  close(descriptor);
  if (!runs) throw std::runtime_error(link + " does not run");
  ip("link show " + link);  // its answer waits for the note to be complete
}

}  // namespace

TestNetwork::TestNetwork() {
  ip("link add lan0 type veth peer name lan0 netns " + unit_.path());
  ip("link add ppt0 type veth peer name ppt0 netns " + ppt_server_.path());
  ip("address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0");
  ip("address add 172.30.0.1/24 broadcast 172.30.0.255 dev ppt0");
  ip("link set lan0 up");
  ip("link set ppt0 up");
  at_unit([] {
    ip("address add 172.40.0.2/24 broadcast 172.40.0.255 dev lan0");
    ip("link set lan0 up");
    wait_until_running("lan0");
  });
  at_ppt_server([] {
    ip("address add 172.30.0.254/24 broadcast 172.30.0.255 dev ppt0");
    ip("link set ppt0 up");
    wait_until_running("ppt0");
  });
  wait_until_running("lan0");
  wait_until_running("ppt0");
}

TestNetwork::~TestNetwork() {
  // A veth goes with either of its ends.
  for (const char* link : {"lan0", "ppt0"}) {
    try {
      ip(std::string("link delete ") + link);
    } catch (const std::exception&) {
      // The test took the link away itself.
    }
  }
}

void TestNetwork::at_unit(const std::function<void()>& function) const {
  const ScopedNamespace scope(unit_);
  function();
}

void TestNetwork::at_ppt_server(const std::function<void()>& function) const {
  const ScopedNamespace scope(ppt_server_);
  function();
}
