#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "anyoption/anyoption.h"
#include "socket_errors/socket_errors.h"
#include "support/outcome.h"
#include "tftp_server/tftp_server.h"

// The program's entry, with a parser and a server that the test plays: this program is linked with them and
// not with the product's.

#define main program
#include "main/main.cpp"
#undef main

namespace {

std::map<char, std::string> given_values;   // of the options on the command line
std::string asked_letters;                  // of which a value was asked, in order
std::function<void(char letter)> at_value;  // before it is answered
std::vector<std::string> server_calls;      // in order
std::function<void()> at_start;             // in the place of the server's run
std::function<void()> at_stop;
TFTPServer* server_in_its_run = nullptr;

}  // namespace

AnyOption::AnyOption() {}
void AnyOption::addUsage(const char*) {}
void AnyOption::setFlag(char) {}
void AnyOption::setOption(const char*, char) {}
void AnyOption::processCommandArgs(int, char**) {}
void AnyOption::printUsage() {}
bool AnyOption::getFlag(char) {
  return false;
}
char* AnyOption::getValue(char letter) {
  asked_letters += letter;
  at_value(letter);
  const auto found = given_values.find(letter);
  return found == given_values.end() ? nullptr : found->second.data();
}

TFTPServer::TFTPServer(int port, const std::string& ip, int port_of_ppt, const std::string& ip_of_ppt,
                       int port_of_messages)
    : ppt_port(port_of_ppt), ppt_ip(ip_of_ppt), message_port(port_of_messages), socket_fd(-1) {
  server_calls.push_back(std::to_string(port) + " " + ip + " " + std::to_string(ppt_port) + " " + ppt_ip +
                         " " + std::to_string(message_port));
}
TFTPServer::~TFTPServer() {
  server_calls.emplace_back("deleted");
}
void TFTPServer::Start() {
  server_calls.emplace_back("Start");
  server_in_its_run = server;
  at_start();
}
void TFTPServer::Stop() {
  server_calls.emplace_back("Stop");
  at_stop();
}

namespace {

using Calls = std::vector<std::string>;

constexpr char kStarting[] = "Starting TFTP server on 127.0.0.1:69 PPT Server: 172.30.0.254\n";
constexpr char kDefaults[] = "69 127.0.0.1 69 172.30.0.254 12345";

class Main : public testing::Test {
 protected:
  void SetUp() override {
    given_values.clear();
    at_value = [](char) {};
    at_start = at_stop = [] {};
    forgets_calls();
  }
  void TearDown() override {
    for (const int number : {SIGINT, SIGTERM}) signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
  }
  static void forgets_calls() {
    asked_letters.clear();
    server_calls.clear();
  }
  static Outcome runs() {
    return outcome_of([] {
      char name[] = "TFTP";
      char* arguments[] = {name, nullptr};
      return program(1, arguments);
    });
  }
  static void gives_every_option() {
    given_values = {{'n', "70"}, {'m', "4000"}, {'p', "71"}, {'o', "127.0.0.9"}, {'s', "10.0.0.1"}};
  }
};

std::string without_repetitions(std::string text) {
  text.erase(std::unique(text.begin(), text.end()), text.end());
  return text;
}

TEST_F(Main, AsksForTheServersPortTheMessagePortThePptServersPortAndThenTheAddresses) {
  EXPECT_EQ(runs(), (Outcome{0, kStarting}));
  EXPECT_EQ(asked_letters, "nmpos");
  EXPECT_EQ(server_calls.front(), kDefaults);
  forgets_calls();
  gives_every_option();
  EXPECT_EQ(runs(), (Outcome{0, "Starting TFTP server on 127.0.0.9:70 PPT Server: 10.0.0.1\n"}));
  EXPECT_EQ(without_repetitions(asked_letters), "nmpos");
  EXPECT_EQ(server_calls.front(), "70 127.0.0.9 71 10.0.0.1 4000");
}

TEST_F(Main, AsksTwiceForANumberThatIsGiven) {
  gives_every_option();
  runs();
  EXPECT_EQ(asked_letters.substr(0, 6), "nnmmpp");
}

struct ThrownText {
  char letter;
  int call;  // of getValue with that letter
  const char* settings;
};

TEST_F(Main, TextThatTheParserThrowsLeavesTheDefaultOfThatOptionAlone) {
  gives_every_option();
  for (const ThrownText& thrown : {ThrownText{'n', 1, "69 127.0.0.9 71 10.0.0.1 4000"},
                                   ThrownText{'n', 2, "69 127.0.0.9 71 10.0.0.1 4000"},
                                   ThrownText{'m', 1, "70 127.0.0.9 71 10.0.0.1 12345"},
                                   ThrownText{'m', 2, "70 127.0.0.9 71 10.0.0.1 12345"},
                                   ThrownText{'p', 1, "70 127.0.0.9 69 10.0.0.1 4000"},
                                   ThrownText{'p', 2, "70 127.0.0.9 69 10.0.0.1 4000"},
                                   ThrownText{'o', 1, "70 127.0.0.1 71 10.0.0.1 4000"},
                                   ThrownText{'s', 1, "70 127.0.0.9 71 172.30.0.254 4000"}}) {
    SCOPED_TRACE(thrown.settings);
    forgets_calls();
    char text[] = "no value";
    at_value = [&, call = 0](char letter) mutable {
      if (letter == thrown.letter && ++call == thrown.call) throw static_cast<char*>(text);
    };
    EXPECT_EQ(runs().result, 0);
    EXPECT_EQ(server_calls.front(), thrown.settings);
  }
}

TEST_F(Main, AnythingElseThatTheParserThrowsIsPassedOn) {
  for (const char letter : {'n', 'm', 'p', 'o', 's'}) {
    at_value = [letter](char asked) {
      if (asked == letter) throw "a text that nobody may change";
    };
    EXPECT_THROW(runs(), const char*) << letter;
  }
  EXPECT_EQ(server_calls, Calls{});
}

TEST_F(Main, StatusIsWhatTheServersExitCodeIsAfterItsStop) {
  at_start = [] { server->exit_code = 1; };
  at_stop = [] { server->exit_code = 7; };
  EXPECT_EQ(runs(), (Outcome{7, kStarting}));
  EXPECT_EQ(server_calls, (Calls{kDefaults, "Start", "Stop", "deleted"}));
}

TEST_F(Main, ServerIsKnownDuringItsRunAndKeepsItsPlaceAfterIt) {
  server = nullptr;
  runs();
  EXPECT_NE(server_in_its_run, nullptr);
  EXPECT_EQ(server, server_in_its_run);
}

// A socket error whose text is known, and what became of it.
template <typename Error>
class NotedError : public Error {
 public:
  explicit NotedError(bool* deleted) : deleted_(deleted) {}
  ~NotedError() override { *deleted_ = true; }
  const char* what() const noexcept override { return "its text"; }

 private:
  bool* deleted_;
};

template <typename Error>
class MainWithSocketError : public Main {
 protected:
  static std::string line() {
    return std::string(std::is_same_v<Error, ETFTPSocketBind> ? "Socket Bind" : "Socket create") +
           " exception: its text\n";
  }
  // Ends with status 1 when the server throws it there, and leaves it alone.
  void ends_when_it_is_thrown_by(std::function<void()>* operation, const Calls& calls) {
    bool deleted = false;
    Error* const error = new NotedError<Error>(&deleted);
    *operation = [error] { throw error; };
    EXPECT_EQ(runs(), (Outcome{1, kStarting + line()}));
    EXPECT_EQ(server_calls, calls);
    EXPECT_FALSE(deleted);
    if (!deleted) delete error;
  }
};

using BothErrors = testing::Types<ETFTPSocketCreate, ETFTPSocketBind>;
TYPED_TEST_SUITE(MainWithSocketError, BothErrors, );

TYPED_TEST(MainWithSocketError, OfStartEndsWithoutStopAndLeavesTheErrorAlone) {
  this->ends_when_it_is_thrown_by(&at_start, {kDefaults, "Start", "deleted"});
}

TYPED_TEST(MainWithSocketError, OfStopEndsAlike) {
  this->ends_when_it_is_thrown_by(&at_stop, {kDefaults, "Start", "Stop", "deleted"});
}

}  // namespace
