// The points about ports and rights.
#include <linux/capability.h>
#include <sys/syscall.h>

#include <iostream>

#include "stage/process.h"
#include "zirn_run/checked_station.h"

namespace {

class CheckPorts : public CheckedStation {
 protected:
  // As one that holds it as long as the test.
  void expect_held(const std::string& name, const std::string& port) const {
    expect_wrong({name});
    EXPECT_EQ(text(name), port + " is held by process " + std::to_string(getpid()) + " (check_ports_tes)");
  }
};

TEST_F(CheckPorts, FindsWhoHoldsTheTftpPort) {
  {
    const HeldPort held(SOCK_DGRAM, "172.40.0.1", 69);
    expect_held("TFTP port", "UDP port 69 of 172.40.0.1");
  }
  expect_ready();
  const HeldPort held(SOCK_DGRAM, "0.0.0.0", 69);
  expect_held("TFTP port", "UDP port 69 of 172.40.0.1");
}

TEST_F(CheckPorts, FindsAnIpv6SocketThatTakesIpv4Too) {
  const HeldPort held(SOCK_DGRAM, 69);
  expect_held("TFTP port", "UDP port 69 of 172.40.0.1");
}

TEST_F(CheckPorts, LetsOthersHaveTheirPorts) {
  const HeldPort another_address(SOCK_DGRAM, "127.0.0.1", 69);
  const HeldPort another_port(SOCK_DGRAM, "172.40.0.1", 70);
  const HeldPort another_protocol(SOCK_STREAM, "172.40.0.1", 69);
  expect_ready();
  setup.station.address = "";
  expect_wrong({"TFTP port"});
}

TEST_F(CheckPorts, FindsWhoHoldsTheRelayPort) {
  const HeldPort held(SOCK_DGRAM, "172.40.0.1", 12345);
  expect_held("relay port", "UDP port 12345 of 172.40.0.1");
}

TEST_F(CheckPorts, FindsWhoHoldsTheBootScriptPort) {
  setup.station.message_port = 20000;
  expect_ready();
  const HeldPort held(SOCK_DGRAM, "172.40.0.255", 20000);
  expect_held("boot script port", "UDP port 20000 of 172.40.0.255");
}

TEST_F(CheckPorts, FindsWhoHoldsTheCommandPort) {
  const HeldPort held(SOCK_STREAM, "0.0.0.0", 12345);
  expect_held("command port", "TCP port 12345 of 172.40.0.1");
}

// One that no process has open: it is under way between two.
TEST_F(CheckPorts, SaysThatAHolderCannotBeSeen) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
  {
    const HeldPort held(SOCK_DGRAM, "172.40.0.1", 69);
    alignas(cmsghdr) char room[CMSG_SPACE(sizeof(int))] = {};
    char byte = 0;
    iovec data = {&byte, 1};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = room;
    message.msg_controllen = sizeof room;
    cmsghdr* const head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = held.descriptor();
    std::memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    ASSERT_EQ(sendmsg(ends[0], &message, 0), 1);
  }
  EXPECT_EQ(text("TFTP port"), "UDP port 69 of 172.40.0.1 is held by a process that this user cannot see");
  close(ends[0]);
  close(ends[1]);
}

// What a process without any right finds of the points.
class CheckRights : public CheckPorts {
 protected:
  std::string found_without_rights(const std::string& name) const {
    Process child([&] {
      __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
      const __user_cap_data_struct none[2] = {};
      if (syscall(SYS_capset, &head, none) != 0) return 1;
      std::cout << text_of(point(name), found(name)) << std::endl;
      return 0;
    });
    EXPECT_EQ(child.wait_for_end()->status, 0);
    return child.read_text();
  }
};

TEST_F(CheckRights, FindsThatOneIsMissing) {
  EXPECT_EQ(
      found_without_rights("raw sockets"),
      "WRONG      raw sockets: this user has no right cap_net_raw. Then: no boot script. Do: start it as "
      "root, or with CAP_NET_RAW\n");
  EXPECT_EQ(found_without_rights("low ports")
                .find("WRONG      low ports: this user has no right cap_net_bind_service"),
            0U);
  EXPECT_EQ(found_without_rights("PPT server"),
            "not known  PPT server: to ask 172.30.0.254 for an echo needs CAP_NET_RAW\n");
}

TEST_F(CheckRights, NeedsNoneForHighPorts) {
  setup.station.port = 6900;
  EXPECT_EQ(found_without_rights("low ports"), "ok         low ports: no port is below 1024\n");
  setup.station.message_port = 1000;
  EXPECT_EQ(found_without_rights("low ports").find("WRONG"), 0U);
}

TEST_F(CheckRights, AreThoseOfTheServiceWhereThereIsOne) {
  setup.rights = " cap_net_raw ";
  expect_wrong({"low ports"});
  EXPECT_EQ(text("low ports"), "the service has no right cap_net_bind_service");
  setup.rights = " cap_chown cap_net_bind_service ";
  expect_wrong({"raw sockets"});
  EXPECT_EQ(found_without_rights("low ports").find("ok "), 0U);
}

}  // namespace
