// Every point broken, found, and repaired by doing what it says: by the very commands where it names some.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>

#include "stage/process.h"
#include "zirn_run/checked_station.h"

namespace {

namespace fs = std::filesystem;
using check::State;

class CheckRepair : public CheckedStation, public testing::WithParamInterface<std::string> {
 protected:
  struct Way {
    std::function<void(CheckRepair&)> breaks;
    std::function<void(CheckRepair&)> repairs;
  };
  static const std::map<std::string, Way>& ways();

  void SetUp() override {
    CheckedStation::SetUp();
    if (IsSkipped()) return;
    setenv("PATH", (setup.path + ":/usr/sbin:/sbin").c_str(), 1);
  }
  using Names = std::vector<std::pair<std::string, std::string>>;

  // Runs the command that the point says, from these words up to the next comma, with what is meant in the places of
  // names in capitals.
  void does(const std::string& words, const Names& names = {}) const {
    const std::string text = point(GetParam()).to_do;
    const std::size_t begin = text.find(words);
    ASSERT_NE(begin, std::string::npos) << "it does not say " << words << ": " << text;
    std::string command = text.substr(begin, text.find(',', begin) - begin);
    for (const auto& [name, meant] : names) {
      ASSERT_NE(command.find(name), std::string::npos) << command;
      command.replace(command.find(name), name.size(), meant);
    }
    shell(command);
  }
  static void shell(const std::string& command) {
    Process sh({"sh", "-c", command + " 2>&1"});
    const auto end = sh.wait_for_end();
    EXPECT_TRUE(end && end->succeeded()) << command << ": " << sh.read_text();
  }
  // Another process has the port from now on.
  void takes_port(int kind, const std::string& address, std::uint16_t port) {
    held_ = std::make_unique<HeldPort>(kind, address, port);
    holder_ = std::make_unique<Process>([] {
      for (;;) pause();
      return 0;
    });
    held_.reset();
  }
  // Ends the one that the point names.
  void ends_the_holder() {
    const std::string found_text = text(GetParam());
    const std::string begins = "is held by process ";
    const std::size_t begin = found_text.find(begins);
    ASSERT_NE(begin, std::string::npos) << found_text;
    const pid_t pid = std::atoi(found_text.c_str() + begin + begins.size());
    ASSERT_EQ(pid, holder_->pid());
    kill(pid, SIGKILL);
    ASSERT_TRUE(holder_->wait_for_end());
  }
  void runs_a_station() {
    Process* const run = (holder_ = std::make_unique<Process>(Process::Arguments{"sleep", "60"})).get();
    write_whole_file("/etc/init.d/zirn-test-station",
                     "#!/bin/sh\n[ \"$1\" = stop ] && kill " + std::to_string(run->pid()) + "\n");
    chmod("/etc/init.d/zirn-test-station", 0755);
    fs::create_directories("/run/zirn-test-station");
    ASSERT_EQ(mount("none", "/run/zirn-test-station", "tmpfs", 0, nullptr), 0);
    write_whole_file("/run/zirn-test-station/pid", std::to_string(run->pid()) + "\n");
    looks_for_a_run();
  }
  void looks_for_a_run() { setup.run = check::setup_of({"-o", "172.40.0.1"}, std::nullopt).run; }
  void gives_address() const { does("ip address add"); }
  void gives_address_instead() const {
    does("ip address del");
    gives_address();
  }

 private:
  std::unique_ptr<HeldPort> held_;
  std::unique_ptr<Process> holder_;
};

const std::map<std::string, CheckRepair::Way>& CheckRepair::ways() {
  using R = CheckRepair;
  static const std::map<std::string, Way> all = {
      {"no run",
       {[](R& r) { r.runs_a_station(); },
        [](R& r) {
          r.does("/etc/init.d/zirn-test-station stop");
          r.holder_->wait_for_end();
          umount("/run/zirn-test-station");
          r.looks_for_a_run();
        }}},
      {"link",
       {[](R&) { shell("ip link set lan0 down && ip link set lan0 name test0 && ip link set test0 up"); },
        [](R& r) {
          r.does("ip link set NAME down", {{"NAME", "test0"}});
          r.does("ip link set NAME name lan0", {{"NAME", "test0"}});
          shell("ip link set lan0 up");
        }}},
      {"link up", {[](R&) { ip("link set lan0 down"); }, [](R& r) { r.does("ip link set lan0 up"); }}},
      {"carrier",
       {[](R& r) { r.network->at_unit([] { ip("link set lan0 down"); }); },
        [](R& r) { r.network->at_unit([] { ip("link set lan0 up"); }); }}},
      {"label",
       {[](R&) {
          shell(
              "ip address del 172.40.0.1/24 dev lan0 && ip address add 172.40.0.1/24 broadcast 172.40.0.255 "
              "dev lan0");
        },
        [](R& r) { r.gives_address_instead(); }}},
      {"address",
       {[](R&) {
          shell(
              "ip address del 172.40.0.1/24 dev lan0 && ip address add 172.40.0.9/24 broadcast 172.40.0.255 "
              "label lan0:0 dev lan0");
        },
        [](R& r) { r.gives_address(); }}},
      {"broadcast address",
       {[](R&) {
          shell(
              "ip address del 172.40.0.1/24 dev lan0 && ip address add 172.40.0.1/24 label lan0:0 dev lan0");
        },
        [](R& r) { r.gives_address_instead(); }}},
      {"protocols",
       {[](R&) { ASSERT_EQ(mount("/dev/null", "/etc/protocols", nullptr, MS_BIND, nullptr), 0); },
        [](R&) { umount("/etc/protocols"); }}},
      {"raw sockets",
       {[](R& r) { r.setup.rights = " cap_net_bind_service "; },
        [](R& r) { *r.setup.rights += "cap_net_raw "; }}},
      {"low ports",
       {[](R& r) { r.setup.rights = " cap_net_raw "; },
        [](R& r) { *r.setup.rights += "cap_net_bind_service "; }}},
      {"served address",
       {[](R& r) { r.setup.station = station::station_of({}); },
        [](R& r) {
          const std::string said = point(GetParam()).to_do;
          r.setup.station = station::station_of({"-o", said.substr(said.find("-o ") + 3)});
        }}},
      {"TFTP port",
       {[](R& r) { r.takes_port(SOCK_DGRAM, "172.40.0.1", 69); }, [](R& r) { r.ends_the_holder(); }}},
      {"boot script port",
       {[](R& r) { r.takes_port(SOCK_DGRAM, "172.40.0.255", 12345); }, [](R& r) { r.ends_the_holder(); }}},
      {"relay port",
       {[](R& r) { r.takes_port(SOCK_DGRAM, "172.40.0.1", 12345); }, [](R& r) { r.ends_the_holder(); }}},
      {"command port",
       {[](R& r) { r.takes_port(SOCK_STREAM, "172.40.0.1", 12345); }, [](R& r) { r.ends_the_holder(); }}},
      {"folder",
       {[](R& r) { fs::rename(r.setup.folder, r.setup.folder + ".away"); },
        [](R& r) { fs::rename(r.setup.folder + ".away", r.setup.folder); }}},
      {"bootscript.txt",
       {[](R&) { fs::remove("bootscript.txt"); },
        [](R&) { write_whole_file("bootscript.txt", "tftp 47000000 kernel.img\n"); }}},
      {"files", {[](R&) { fs::remove("kernel.img"); }, [](R&) { write_whole_file("kernel.img", "kernel"); }}},
      {"envtool",
       {[](R& r) {
          fs::copy("/mnt/ramdisk/bin/envtool", r.files->file("envtool"));
          fs::remove("/mnt/ramdisk/bin/envtool");
        },
        [](R& r) { fs::copy(r.files->file("envtool"), "/mnt/ramdisk/bin/envtool"); }}},
      {"tempmac",
       {[](R&) { shell("envtool tempmac="); }, [](R&) { shell("envtool tempmac=02:00:00:00:10:00"); }}},
      {"ppt_flag", {[](R&) { shell("envtool ppt_flag=failed"); }, [](R& r) { r.does("envtool ppt_flag="); }}},
      {"voice script",
       {[](R&) { chmod("/etc/init.d/voice", 0644); }, [](R& r) { r.does("chmod +x /etc/init.d/voice"); }}},
      {"T1/E1 tool",
       {[](R&) { chmod("/mnt/ramdisk/t1-e1", 0644); }, [](R& r) { r.does("chmod +x /mnt/ramdisk/t1-e1"); }}},
      {"route",
       {[](R& r) { r.setup.station.ppt_server = "10.11.12.13"; },
        [](R& r) {
          r.does("ip route add", {{"SERVER", "10.11.12.13"}, {"ROUTER", "172.30.0.254"}});
        }}},
      {"PPT server",
       {[](R& r) { r.network->at_ppt_server([] { ip("link set ppt0 down"); }); },
        [](R& r) { r.network->at_ppt_server([] { ip("link set ppt0 up"); }); }}},
      {"time", {[](R& r) { r.setup.now = 0; }, [](R& r) { r.setup.now = std::time(nullptr); }}},
  };
  return all;
}

TEST_P(CheckRepair, DoesWhatItSays) {
  const std::string& name = GetParam();
  ASSERT_EQ(ways().count(name), 1U) << "nothing breaks it";
  ASSERT_EQ(found(name).state, State::kOk) << text(name);
  ways().at(name).breaks(*this);
  ASSERT_FALSE(HasFailure());
  ASSERT_TRUE(wait_until([&] { return found(name).state == State::kWrong; })) << text(name);
  const check::Finding broken = found(name);
  EXPECT_NE(check::text_of(point(name), broken).find("Do: " + std::string(point(GetParam()).to_do)),
            std::string::npos);
  ways().at(name).repairs(*this);
  EXPECT_TRUE(wait_until([&] { return found(name).state == State::kOk; })) << text(name);
}

std::vector<std::string> names() {
  std::vector<std::string> all;
  for (const check::Point& point : check::points()) all.emplace_back(point.name);
  return all;
}

std::string name_of(const testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  const auto is_odd = [](unsigned char c) { return std::isalnum(c) == 0; };
  std::replace_if(name.begin(), name.end(), is_odd, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Points, CheckRepair, testing::ValuesIn(names()), name_of);

}  // namespace
