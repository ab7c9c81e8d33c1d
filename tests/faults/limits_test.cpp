#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "faults/faulty_station.h"
#include "tftp_client/tftp_client.h"

// The program where something has run out, or the clock is moved.

namespace {

namespace fs = std::filesystem;
using namespace station;

constexpr char kRequested[] = "RRQ file\n";

// Another limit for a running program while the object lives.
class Limit {
 public:
  Limit(const Daemon& daemon, __rlimit_resource resource, rlim_t value)
      : pid_(daemon.pid()), resource_(resource) {
    prlimit(pid_, resource_, nullptr, &before_);
    const rlimit lowered = {value, before_.rlim_max};
    EXPECT_EQ(prlimit(pid_, resource_, &lowered, nullptr), 0);
  }
  ~Limit() { prlimit(pid_, resource_, &before_, nullptr); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  pid_t pid_;
  __rlimit_resource resource_;
  rlimit before_ = {};
};

// The limit that leaves so many descriptors to be made.
rlim_t limit_for(const Daemon& daemon, int more_descriptors) {
  const std::string open = "/proc/" + std::to_string(daemon.pid()) + "/fd/";
  rlim_t limit = 0;
  while (fs::is_symlink(open + std::to_string(limit)) || more_descriptors-- > 0) ++limit;
  return limit;
}

rlim_t address_space(const Daemon& daemon) {
  std::ifstream file("/proc/" + std::to_string(daemon.pid()) + "/statm");
  rlim_t pages = 0;
  file >> pages;
  return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// A file system in memory that lives as long as the object.
class SmallFileSystem {
 public:
  SmallFileSystem(const std::string& place, const char* size) : place_(place) {
    fs::create_directory(place_);
    EXPECT_EQ(mount("tmpfs", place_.c_str(), "tmpfs", 0, size), 0);
  }
  ~SmallFileSystem() { umount2(place_.c_str(), MNT_DETACH); }
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;

 private:
  std::string place_;
};

class Limits : public testing::Test {
 protected:
  void SetUp() override { NEEDS_PRELOADING(); }
};

TEST_F(Limits, WithoutADescriptorARequestHasNoAnswer) {
  FaultyStation station;
  UdpPeer client = station.client();
  {
    const rlim_t limit = limit_for(station.daemon(), 0);
    const Limit none(station.daemon(), RLIMIT_NOFILE, limit);
    client.sends(rrq("file"));
    FaultyStation::is_left_alone(client);
    station.first_client_goes_on();
    ASSERT_TRUE(wait_until([&] { return limit_for(station.daemon(), 2) <= limit; }));
    // The first client's two descriptors are enough for one more.
    EXPECT_EQ(read_by_tftp(client, rrq("first")), FaultyStation::contents());
  }
  station.survives("RRQ first\n");
}

TEST_F(Limits, WithOneDescriptorARequestIsRefusedLikeThatOfAMissingFile) {
  FaultyStation station;
  UdpPeer client = station.client();
  {
    const Limit one(station.daemon(), RLIMIT_NOFILE, limit_for(station.daemon(), 1));
    client.sends(rrq("file"));
    client.expects(error(1, ""));
  }
  station.survives(kRequested);
}

TEST_F(Limits, WithoutMemoryForAThreadAReadStopsBehindItsFirstBlock) {
  FaultyStation station;
  const std::string contents = noise(1200);
  write_whole_file("longer", contents);
  // This reader's thread has made the place for its blocks by then.
  UdpPeer reader = station.asks(rrq("longer"));
  reader.expects(data(1, contents.substr(0, 512)));
  reader.sends(ack(1));
  reader.expects(data(2, contents.substr(512, 512)));
  UdpPeer client = station.station().client(2004);
  {
    const Limit none(station.daemon(), RLIMIT_AS, address_space(station.daemon()));
    client.sends(rrq("file"));
    client.expects(data(1, FaultyStation::block(1)));
    client.sends(ack(1));
    FaultyStation::is_left_alone(client);
    reader.sends(ack(2));
    reader.expects(data(3, contents.substr(1024)));
    reader.sends(ack(3));
  }
  station.survives(std::string("RRQ longer\n") + kRequested);
}

TEST_F(Limits, WriteRequestOnAFullDiskIsAcknowledgedAndMakesNoFile) {
  FaultyStation station;
  const SmallFileSystem full("full", "nr_inodes=1");
  UdpPeer client = station.asks(wrq("full/new"));
  client.expects(ack(0));
  EXPECT_FALSE(fs::exists("full/new"));
  station.survives("WRQ \n");
}

TEST_F(Limits, DownloadToAFullDiskReportsSuccessAndKeepsWhatFits) {
  FaultyStation station;
  const SmallFileSystem small("small", "size=4k");
  write_whole_file("file", noise(20000));
  TFTPClient client("127.0.0.1", station::kTftpPort);
  EXPECT_EQ(client.getFile("file", "small/copy"), 1);
  EXPECT_EQ(whole_file("small/copy"), noise(20000).substr(0, 4096));
  station.first_client_goes_on();
}

TEST_F(Limits, StepsOfTheTimeOfDayChangeNoWait) {
  for (const char* step : {"86400", "-86400"}) {
    const Preloaded library("CLOCK_STEP", step);
    const station::OnLoopback station({}, station::OnLoopback::Relay::kHasNoAddress);
    write_whole_file("file", FaultyStation::contents());
    UdpPeer client = station.asks(rrq("file"));
    client.expects(data(1, FaultyStation::block(1)));
    const auto start = std::chrono::steady_clock::now();
    client.expects(data(1, FaultyStation::block(1)), milliseconds(7500));
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(4500));
    FaultyStation::goes_on(client);
    station.printed(std::string(kRequested) + "Client timeout\n");
  }
}

}  // namespace
