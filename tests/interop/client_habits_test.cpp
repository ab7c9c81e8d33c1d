#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/outcome.h"
#include "support/program.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/tftp_client_program.h"
#include "support/udp_peer.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using tftp::ack;
using tftp::data;
using tftp::rrq;

constexpr char kLoopback[] = "127.0.0.1";
constexpr char kName[] = "boot.img";

const TftpClientProgram kCurl = curl("Curl");
const TftpClientProgram kTftpHpa = tftp_hpa("TftpHpa", {"-m", "octet"});
const TftpClientProgram kAtftp = atftp("Atftp");
const TftpClientProgram kBusybox = busybox_tftp("Busybox");

// A client that is asked to read, and a server that the test plays step by step.
class ClientOfAPlayedServer : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    directory_.emplace();
    server_.emplace(kLoopback, 69);
  }
  void starts(const TftpClientProgram& client) {
    program_ = std::make_unique<Program>(client.reads(kLoopback, kName, "local"));
  }
  // Up to where the client waits for the first block, but for a client without options, whose request that
  // block answers.
  void begins(const TftpClientProgram& client, const tftp::Options& options) {
    starts(client);
    server_->expects(rrq(kName, options));
    if (options.empty()) return;
    tftp::Options acknowledged = options;
    for (auto& [name, value] : acknowledged) {
      if (name == "tsize") value = "515";
    }
    server_->sends(tftp::oack(acknowledged));
    expects_after(rrq(kName, options), ack(0));
  }
  // The datagram comes, perhaps behind more of the one before it: on a busy machine the server may be slow to
  // answer, and a hasty client repeats what it sent.
  void expects_after(const std::string& before, const std::string& datagram) {
    std::optional<std::string> received;
    do {
      received = server_->receives();
    } while (received == before);
    EXPECT_EQ(received, datagram) << server_->log();
  }

  std::optional<ScratchDirectory> directory_;
  std::optional<UdpPeer> server_;
  std::unique_ptr<Program> program_;
};

// --- What is asked for
// ---------------------------------------------------------------------------------------

struct Asked {
  TftpClientProgram client;
  std::string request;
};
void PrintTo(const Asked& asked, std::ostream* stream) {
  *stream << asked.client.title;
}

class Request : public ClientOfAPlayedServer, public testing::WithParamInterface<Asked> {};

TEST_P(Request, IsExactly) {
  NEEDS_CLIENT(GetParam().client);
  starts(GetParam().client);
  server_->expects(GetParam().request);
}

const std::vector<Asked> kRequests = {
    {kCurl, rrq(kName, {{"tsize", "0"}, {"blksize", "512"}, {"timeout", "6"}})},
    {curl("CurlInBlocksOf1428", {"--tftp-blksize", "1428"}),
     rrq(kName, {{"tsize", "0"}, {"blksize", "1428"}, {"timeout", "6"}})},
    {curl("CurlWithALimitOfTenSeconds", {"--connect-timeout", "10"}),
     rrq(kName, {{"tsize", "0"}, {"blksize", "512"}, {"timeout", "3"}})},
    {curl("CurlWithoutOptions", {"--tftp-no-options"}), rrq(kName)},
    {kTftpHpa, rrq(kName)},
    {tftp_hpa("TftpHpaInItsDefaultMode"), rrq(kName, {}, "netascii")},
    {kAtftp, rrq(kName)},
    {atftp("AtftpWithItsOptions", {"blksize 1428", "timeout 3", "tsize 0"}),
     rrq(kName, {{"tsize", "0"}, {"timeout", "3"}, {"blksize", "1428"}})},
    {atftp("AtftpWithAllItsOptions", {"multicast", "windowsize 4", "blksize 1428", "timeout 3", "tsize 0"}),
     rrq(kName,
         {{"tsize", "0"}, {"timeout", "3"}, {"blksize", "1428"}, {"multicast", ""}, {"windowsize", "4"}})},
    {atftp("AtftpWithAWindow", {"windowsize 4"}), rrq(kName, {{"windowsize", "4"}})},
    {atftp("AtftpWithMulticast", {"multicast"}), rrq(kName, {{"multicast", ""}})},
    {kBusybox, rrq(kName, {{"tsize", "0"}})},
    {busybox_tftp("BusyboxInBlocksOf1428", {"-b", "1428"}),
     rrq(kName, {{"blksize", "1428"}, {"tsize", "0"}})},
};

INSTANTIATE_TEST_SUITE_P(, Request, testing::ValuesIn(kRequests),
                         [](const testing::TestParamInfo<Asked>& asked) {
                           return std::string("By") + asked.param.client.title;
                         });

// --- What follows when nothing comes
// -------------------------------------------------------------------------

struct Patience {
  TftpClientProgram client;
  tftp::Options options;  // that it sends
  double repeats_after;   // seconds, of the first repetition
  int requests;           // until it gives up
  double gives_up_after;  // seconds
  int status;             // that it then ends with
};
void PrintTo(const Patience& patience, std::ostream* stream) {
  *stream << patience.client.title;
}
std::string name_of_patience(const testing::TestParamInfo<Patience>& info) {
  return std::string("By") + info.param.client.title;
}

constexpr double kTolerance = 0.9;  // seconds by which a client may be late

class Silence : public ClientOfAPlayedServer, public testing::WithParamInterface<Patience> {
 protected:
  // From now on, the datagram comes at the client's pace until it gives up.
  void expects_until_the_end(const std::string& datagram) {
    const Patience& expected = GetParam();
    const double first = seconds_of([&] { server_->expects(datagram); });
    EXPECT_GT(first, 0.8 * expected.repeats_after);
    EXPECT_LT(first, expected.repeats_after + kTolerance);
    int count = 2;
    const double rest = seconds_of([&] {
      for (; count < expected.requests; ++count) server_->expects(datagram);
      EXPECT_EQ(program_->exit_status(seconds(10)), expected.status) << program_->output();
    });
    EXPECT_NEAR(first + rest, expected.gives_up_after, kTolerance);
    server_->expects_nothing(milliseconds(0));
  }
};

TEST_P(Silence, MakesTheClientRepeatItsRequestAndGiveUp) {
  NEEDS_CLIENT(GetParam().client);
  starts(GetParam().client);
  const std::string request = rrq(kName, GetParam().options);
  server_->expects(request);
  const int port = server_->their_port();
  expects_until_the_end(request);
  EXPECT_EQ(server_->their_port(), port);
}

TEST_P(Silence, MakesTheClientRepeatItsAcknowledgementAndGiveUp) {
  NEEDS_CLIENT(GetParam().client);
  begins(GetParam().client, GetParam().options);
  server_->sends(data(1, std::string(512, 'x')));
  expects_after(ack(0), ack(1));
  expects_until_the_end(ack(1));
}

INSTANTIATE_TEST_SUITE_P(, Silence,
                         testing::Values(Patience{kTftpHpa, {}, 5, 5, 25, 69},
                                         Patience{kAtftp, {}, 5, 6, 30, 255},
                                         Patience{kBusybox, {{"tsize", "0"}}, 0.1, 12, 12.9, 1}),
                         name_of_patience);

TEST_F(ClientOfAPlayedServer, CurlRepeatsItsRequestAfterSixToSevenSeconds) {
  NEEDS_CLIENT(kCurl);
  const std::string request = rrq(kName, {{"tsize", "0"}, {"blksize", "512"}, {"timeout", "6"}});
  starts(kCurl);
  server_->expects(request);
  const double pause = seconds_of([&] { server_->expects(request); });
  EXPECT_GT(pause, 5.5);
  EXPECT_LT(pause, 8);
}

// The server's own repetition comes first, after the six seconds that curl asked for.
TEST_F(ClientOfAPlayedServer, CurlLeavesTheRepetitionOfABlockToTheServer) {
  NEEDS_CLIENT(kCurl);
  begins(kCurl, {{"tsize", "0"}, {"blksize", "512"}, {"timeout", "6"}});
  server_->expects_nothing(seconds(8));
  EXPECT_EQ(program_->exit_status(milliseconds(0)), Program::kStillRunning);
}

// --- What follows when something comes twice
// -----------------------------------------------------------------

struct Taker {
  TftpClientProgram client;
  tftp::Options options;  // that it sends
  bool takes_any_port;    // as the source of a block, not only the one that answered first
};
void PrintTo(const Taker& taker, std::ostream* stream) {
  *stream << taker.client.title;
}

class Repetition : public ClientOfAPlayedServer, public testing::WithParamInterface<Taker> {};

TEST_P(Repetition, OfABlockIsAcknowledgedAgainAtOnceAndStoredOnce) {
  NEEDS_CLIENT(GetParam().client);
  begins(GetParam().client, GetParam().options);
  for (int i = 0; i < 2; ++i) {
    server_->sends(data(1, std::string(512, 'x')));
    EXPECT_LT(seconds_of([&] { expects_after(ack(0), ack(1)); }), kTolerance);
  }
  server_->sends(data(2, "end"));
  expects_after(ack(1), ack(2));
  EXPECT_EQ(program_->exit_status(seconds(10)), 0) << program_->output();
  EXPECT_EQ(whole_file("local"), std::string(512, 'x') + "end");
}

// A request that was repeated has two transfers, and both send their blocks.
TEST_P(Repetition, OfATransferIsToldApartByThePortOrNot) {
  NEEDS_CLIENT(GetParam().client);
  begins(GetParam().client, GetParam().options);
  UdpPeer other(kLoopback);
  other.aims_at(kLoopback, server_->their_port());
  server_->sends(data(1, std::string(512, 'x')));
  expects_after(ack(0), ack(1));
  other.sends(data(2, "another"));
  server_->sends(data(2, "the same"));
  EXPECT_EQ(program_->exit_status(seconds(10)), 0) << program_->output();
  EXPECT_EQ(whole_file("local"),
            std::string(512, 'x') + (GetParam().takes_any_port ? "another" : "the same"));
}

INSTANTIATE_TEST_SUITE_P(
    , Repetition,
    testing::Values(Taker{kCurl, {{"tsize", "0"}, {"blksize", "512"}, {"timeout", "6"}}, true},
                    Taker{curl("CurlWithoutOptions", {"--tftp-no-options"}), {}, true},
                    Taker{kTftpHpa, {}, true}, Taker{kAtftp, {}, false},
                    Taker{kBusybox, {{"tsize", "0"}}, false}),
    [](const testing::TestParamInfo<Taker>& taker) { return std::string("By") + taker.param.client.title; });

}  // namespace
