#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/lossy_wire.h"
#include "support/outcome.h"
#include "support/program.h"
#include "support/station.h"
#include "support/tftp_client_program.h"

namespace {

using station::InNetwork;

constexpr std::chrono::seconds kPatience(150);
constexpr std::size_t kMebibyte = 1 << 20;
// More than 65536 blocks of 512 bytes, so that their numbers go round.
constexpr std::size_t kBeyondTheLastBlockNumber = 33 * kMebibyte;
constexpr char kLocal[] = "local";

// How a client ended and what it then had: the contents, or nothing when it left no file.
struct Reading {
  int status;
  std::optional<std::string> contents;
};

// Clients at the unit read from the program in its test network.
class ClientReads : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }

  // In the place of the unit's link, which loses nothing; before boots().
  void lays_wire() {
    station_.emplace();
    wire_.emplace(station_->network);
  }
  void boots() {
    if (!station_) station_.emplace();
    // The relay, which polls, would keep a processor busy. So it finds its port taken.
    occupant_.emplace(TestNetwork::kStation, station::kMessagePort);
    station_->daemon = station_->start();
    ASSERT_TRUE(station_->daemon->serves());
  }
  std::unique_ptr<Program> starts(const TftpClientProgram& client, const std::string& name,
                                  const std::string& local = kLocal) const {
    std::unique_ptr<Program> program;
    station_->network.at_unit(
        [&] { program = std::make_unique<Program>(client.reads(TestNetwork::kStation, name, local)); });
    return program;
  }
  Reading reads(const TftpClientProgram& client, const std::string& name) {
    const std::unique_ptr<Program> program = starts(client, name);
    Reading reading = {program->exit_status(kPatience), std::nullopt};
    said_ = program->output();
    if (std::filesystem::exists(kLocal)) reading.contents = whole_file(kLocal);
    return reading;
  }
  // The client has the whole file and says that all is well.
  void expects_whole(const TftpClientProgram& client, const std::string& name, const std::string& contents) {
    const Reading reading = reads(client, name);
    EXPECT_EQ(reading.status, 0) << said_;
    ASSERT_TRUE(reading.contents.has_value()) << said_;
    EXPECT_EQ(reading.contents->size(), contents.size());
    EXPECT_TRUE(*reading.contents == contents) << "other bytes than the file; the client said: " << said_;
  }
  // The lines are all that the program printed while it served.
  void printed(const std::string& lines) const {
    station_->daemon->gets_signal(SIGTERM);
    EXPECT_EQ(station_->daemon->exit_status(), SIGTERM);
    station::expect_output(
        *station_->daemon, station::starting(TestNetwork::kStation) + station::kServing,
        station::sender_ready() + lines + station::kMessageServerGone + station::kServerGone,
        {"UDP: ERROR on binding. Address already in use\n", station::kSenderStopped});
  }

  std::optional<InNetwork> station_;
  std::optional<LossyWire> wire_;
  std::string said_;  // the last client's output

 private:
  std::optional<UdpPeer> occupant_;
};

const TftpClientProgram kCurl = curl("Curl");
const TftpClientProgram kCurlWithoutOptions = curl("CurlWithoutOptions", {"--tftp-no-options"});
const TftpClientProgram kTftpHpa = tftp_hpa("TftpHpa", {"-m", "octet"});
const TftpClientProgram kAtftp = atftp("Atftp");
const TftpClientProgram kBusybox = busybox_tftp("Busybox");

// Busybox repeats its request after a tenth of a second, which a busy machine may take to answer it: how many
// requests arrive is open then.
bool is_hasty(const TftpClientProgram& client) {
  return client.words.front() == kBusybox.words.front();
}

TftpClientProgram curl_in_blocks(const char* title, const char* block_size) {
  return curl(title, {"--tftp-blksize", block_size});
}

const std::vector<TftpClientProgram> kClientsWithOptions = {
    kCurl,
    curl_in_blocks("CurlInBlocksOf512", "512"),
    curl_in_blocks("CurlInBlocksOf1428", "1428"),
    curl_in_blocks("CurlInBlocksOf8192", "8192"),
    curl_in_blocks("CurlInBlocksOf32768", "32768"),
};
const std::vector<TftpClientProgram> kOtherClients = {
    kCurlWithoutOptions,
    kTftpHpa,
    kAtftp,
    kBusybox,
    busybox_tftp("BusyboxInBlocksOf1428", {"-b", "1428"}),
    atftp("AtftpWithItsOptions", {"tsize 0", "timeout 3", "blksize 1428"}),
    atftp("AtftpWithMulticast", {"multicast"}),
};

class WholeFile : public ClientReads,
                  public testing::WithParamInterface<std::tuple<TftpClientProgram, std::size_t>> {};

TEST_P(WholeFile, Arrives) {
  const auto& [client, size] = GetParam();
  NEEDS_CLIENT(client);
  boots();
  const std::string contents = noise(size);
  write_whole_file("boot.img", contents);
  expects_whole(client, "boot.img", contents);
  if (!is_hasty(client)) printed("RRQ boot.img\n");
}

std::string name_of_reading(const testing::TestParamInfo<WholeFile::ParamType>& info) {
  const auto& [client, size] = info.param;
  const std::string length =
      size < kMebibyte ? std::to_string(size) + "Bytes" : std::to_string(size / kMebibyte) + "MiB";
  return std::string("By") + client.title + "Of" + length;
}

INSTANTIATE_TEST_SUITE_P(WithOptions, WholeFile,
                         testing::Combine(testing::ValuesIn(kClientsWithOptions),
                                          testing::Values(1, 511, 512, 513, kMebibyte,
                                                          kBeyondTheLastBlockNumber)),
                         name_of_reading);
INSTANTIATE_TEST_SUITE_P(OfAnyLength, WholeFile,
                         testing::Combine(testing::ValuesIn(kOtherClients),
                                          testing::Values(0, 1, 511, 512, 513, kMebibyte)),
                         name_of_reading);
INSTANTIATE_TEST_SUITE_P(RoundTheBlockNumbers, WholeFile,
                         testing::Combine(testing::Values(kCurlWithoutOptions, kTftpHpa, kAtftp, kBusybox),
                                          testing::Values(kBeyondTheLastBlockNumber)),
                         name_of_reading);

TEST_F(ClientReads, TwoOfEachKindReadAtOnce) {
  NEEDS_CLIENT(kCurl);
  NEEDS_CLIENT(kTftpHpa);
  std::vector<TftpClientProgram> kinds = kClientsWithOptions;
  for (const TftpClientProgram& client : kOtherClients) {
    if (Program::exists(client.words.front())) kinds.push_back(client);
  }
  boots();
  const std::string contents = noise(2 * kMebibyte);
  std::vector<std::unique_ptr<Program>> clients;
  for (std::size_t i = 0; i < 2 * kinds.size(); ++i) {
    const std::string number = std::to_string(i);
    write_whole_file("served" + number, contents.substr(i, kMebibyte));
    clients.push_back(starts(kinds[i / 2], "served" + number, "local" + number));
  }
  for (std::size_t i = 0; i < clients.size(); ++i) {
    EXPECT_EQ(clients[i]->exit_status(kPatience), 0) << kinds[i / 2].title << ": " << clients[i]->output();
    EXPECT_TRUE(whole_file("local" + std::to_string(i)) == contents.substr(i, kMebibyte))
        << kinds[i / 2].title;
  }
}

// Only the answer to a verdict is sent at once, without an acknowledgement of options.
TEST_F(ClientReads, CurlTakesAVerdictsAnswerThoughItsOptionsAreNotAcknowledged) {
  NEEDS_CLIENT(kCurl);
  boots();
  expects_whole(kCurl, "F_l_m_02PPT_PASSED", "");
  EXPECT_EQ(station_->daemon->exit_status(), 2);
}

// It takes a tsize of 0 for a protocol error, whoever acknowledges it.
TEST_F(ClientReads, CurlRefusesAnEmptyFileUnlessItSendsNoOptions) {
  NEEDS_CLIENT(kCurl);
  boots();
  write_whole_file("empty", "");
  const Reading reading = reads(kCurl, "empty");
  EXPECT_EQ(reading.status, 71) << said_;
  EXPECT_FALSE(reading.contents.has_value());
  expects_whole(kCurlWithoutOptions, "empty", "");
}

// The acknowledgement is cut to the block size and four bytes more. With a file of 513 bytes curl's is 33
// long.
TEST_F(ClientReads, CurlTakesTheFirstBlockForTheFileWhenTheAcknowledgementIsCutBeforeTheBlockSize) {
  NEEDS_CLIENT(kCurl);
  boots();
  const std::string contents = noise(513);
  write_whole_file("boot.img", contents);
  const Reading reading = reads(curl_in_blocks("CurlInBlocksOf8", "8"), "boot.img");
  EXPECT_EQ(reading.status, 0) << said_;
  EXPECT_EQ(reading.contents, contents.substr(0, 8));
}

TEST_F(ClientReads, CurlRefusesAnAcknowledgementThatIsCutWithinAnOption) {
  NEEDS_CLIENT(kCurl);
  boots();
  const std::string contents = noise(513);
  write_whole_file("boot.img", contents);
  const Reading reading = reads(curl_in_blocks("CurlInBlocksOf28", "28"), "boot.img");
  EXPECT_EQ(reading.status, 71) << said_;
  EXPECT_FALSE(reading.contents.has_value());
  expects_whole(curl_in_blocks("CurlInBlocksOf29", "29"), "boot.img", contents);
}

TEST_F(ClientReads, CurlTakesTheLargestBlocksOfTheServerForLargerOnes) {
  NEEDS_CLIENT(kCurl);
  boots();
  const std::string contents = noise(kMebibyte);
  write_whole_file("boot.img", contents);
  expects_whole(curl_in_blocks("CurlInBlocksOf65464", "65464"), "boot.img", contents);
  printed("RRQ boot.img\nRequested blksize=65464 we support 32768\n");
}

// With that limit it asks for a timeout of three seconds.
TEST_F(ClientReads, CurlTakesALongerTimeoutThanItAskedFor) {
  NEEDS_CLIENT(kCurl);
  boots();
  write_whole_file("boot.img", noise(1000));
  expects_whole(curl("CurlWithALimitOfTenSeconds", {"--connect-timeout", "10"}), "boot.img", noise(1000));
}

TEST_F(ClientReads, TftpHpaInItsDefaultModeIsRefusedAndLeavesAnEmptyFileWithStatusZero) {
  NEEDS_CLIENT(kTftpHpa);
  boots();
  write_whole_file("boot.img", "contents");
  const Reading reading = reads(tftp_hpa("TftpHpaInDefaultMode"), "boot.img");
  EXPECT_EQ(reading.status, 0);
  EXPECT_EQ(reading.contents, "");
  EXPECT_EQ(said_, "Error code 0: Mode not supported\n");
  printed("RRQ boot.img\nMode netascii not supported\n");
}

// A client that waits for the rest of a window gets one block at every time-out.
TEST_F(ClientReads, AtftpWithAWindowWaitsAtEveryBlockForATimeOut) {
  NEEDS_CLIENT(kAtftp);
  boots();
  write_whole_file("boot.img", noise(1000));
  Reading reading;
  const double seconds =
      seconds_of([&] { reading = reads(atftp("AtftpWithAWindow", {"windowsize 4"}), "boot.img"); });
  EXPECT_EQ(reading.status, 0) << said_;
  EXPECT_EQ(reading.contents, noise(1000));
  EXPECT_GT(seconds, 4.5);
}

// While the first verdict is passed on, the second is not answered, and the client soon repeats its request.
TEST_F(ClientReads, BusyboxMakesSeveralVerdictsOfOneWhileTheProgramIsBusyWithAnother) {
  NEEDS_CLIENT(kBusybox);
  NEEDS_CLIENT(kTftpHpa);
  boots();
  UdpPeer ppt = station_->ppt_server();
  // By a client that is in no hurry, so that it is one verdict on a slow machine too.
  expects_whole(kTftpHpa, "F_l_m_01FIRST", "");
  ppt.expects(tftp::rrq("F_l_m_01CPU_2_FIRST"));
  const std::unique_ptr<Program> second = starts(kBusybox, "F_l_m_02SECOND");
  std::this_thread::sleep_for(std::chrono::seconds(1));
  ppt.sends(tftp::data(1, ""));
  ppt.expects(tftp::ack(1));
  constexpr int kAtLeast = 3;  // five on a machine that has nothing else to do
  for (int i = 0; i < kAtLeast; ++i) {
    ppt.expects(tftp::rrq("F_l_m_02CPU_2_SECOND"));
    ppt.sends(tftp::data(1, ""));
    ppt.expects(tftp::ack(1));
  }
  EXPECT_EQ(second->exit_status(kPatience), 0) << second->output();
}

// A wire that loses every twentieth frame, on average. Whoever notices first repeats what it sent last.
class LostFrames : public ClientReads, public testing::WithParamInterface<TftpClientProgram> {};

TEST_P(LostFrames, AreMadeUpFor) {
  NEEDS_CLIENT(GetParam());
  NEEDS_WIRE();
  lays_wire();
  boots();
  wire_->loses(5);
  const std::string contents = noise(20 * 512 + 1);
  write_whole_file("boot.img", contents);
  do {
    expects_whole(GetParam(), "boot.img", contents);
    std::filesystem::remove(kLocal);
  } while (!HasFailure() && wire_->lost_frames() == 0);
}

INSTANTIATE_TEST_SUITE_P(, LostFrames,
                         testing::Values(kCurl, kCurlWithoutOptions, kTftpHpa, kAtftp, kBusybox),
                         [](const testing::TestParamInfo<TftpClientProgram>& client) {
                           return std::string("By") + client.param.title;
                         });

struct Refusal {
  TftpClientProgram client;
  int status;
  std::optional<std::string> contents;
};

void PrintTo(const Refusal& refusal, std::ostream* stream) {
  *stream << refusal.client.title << " ends with status " << refusal.status;
}

class MissingFile : public ClientReads, public testing::WithParamInterface<Refusal> {};

TEST_P(MissingFile, EndsTheClient) {
  const Refusal& refusal = GetParam();
  NEEDS_CLIENT(refusal.client);
  boots();
  const Reading reading = reads(refusal.client, "missing");
  EXPECT_EQ(reading.status, refusal.status) << said_;
  EXPECT_EQ(reading.contents, refusal.contents);
  if (!is_hasty(refusal.client)) printed("RRQ missing\n");
}

INSTANTIATE_TEST_SUITE_P(, MissingFile,
                         testing::Values(Refusal{kCurl, 68, std::nullopt}, Refusal{kTftpHpa, 0, ""},
                                         Refusal{kAtftp, 255, ""}, Refusal{kBusybox, 1, std::nullopt}),
                         [](const testing::TestParamInfo<Refusal>& refusal) {
                           return std::string("By") + refusal.param.client.title;
                         });

}  // namespace
