#include <malloc.h>
#include <pthread.h>
#include <signal.h>

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>

#include "anyoption/anyoption.h"
#include "main/uninterrupted_output.h"
#include "socket_errors/socket_errors.h"
#include "tftp_server/tftp_server.h"

// The one server. It keeps its value after the server was deleted; it is meant.
TFTPServer* server = nullptr;

// SIGINT and SIGTERM: stops and deletes the server, and exits with the signal's number.
void signalHandler(int signal_number);

namespace {

constexpr int kDefaultPort = 69;  // TFTP, RFC 1350; the PPT server's too
constexpr int kDefaultMessagePort = 12345;
constexpr char kDefaultServerIp[] = "127.0.0.1";
constexpr char kDefaultPptServerIp[] = "172.30.0.254";
constexpr int kExitFailure = 1;
// Many times what a thread was seen to use (12 KiB), and no less than any system asks for.
constexpr std::size_t kThreadStackBytes = std::size_t{256} * 1024;

constexpr const char* kUsage[] = {
    "",
    "Usage: TFTP [-h] [-p port] [-s server]",
    "",
    " -h Prints this help",
    " -n Specifies the server port, if none is specified default 69 is used",
    " -o Specifies the server ip, if none is specified default 127.0.0.1 is used",
    " -p Specifies the PPT server port",
    " -s Specifies the PPT server ip",
    " -m Specifies the PPT message port",
    "",
};

struct Settings {
  int server_port;
  std::string server_ip;
  int ppt_port;
  std::string ppt_ip;
  int message_port;
};

// A parser that reports by throwing a text leaves the default in these two.
int number_option(AnyOption& options, char letter, int default_number) {
  try {
    if (options.getValue(letter) != nullptr) {
      return static_cast<int>(std::strtol(options.getValue(letter), nullptr, 10));
    }
  } catch (char*) {
  }
  return default_number;
}

std::string text_option(AnyOption& options, char letter, const char* default_text) {
  try {
    if (options.getValue(letter) != nullptr) return options.getValue(letter);
  } catch (char*) {
  }
  return default_text;
}

Settings read_command_line(int argc, char** argv) {
  AnyOption options;
  for (const char* line : kUsage) options.addUsage(line);
  options.setFlag('h');
  options.setOption("port", 'n');
  options.setOption("serverip", 's');
  options.setOption("serverport", 'p');
  options.setOption("ipaddr", 'o');
  options.setOption("msgport", 'm');
  options.processCommandArgs(argc, argv);

  if (options.getFlag('h')) options.printUsage();  // and the server starts all the same
  Settings settings;
  settings.server_port = number_option(options, 'n', kDefaultPort);
  settings.message_port = number_option(options, 'm', kDefaultMessagePort);
  settings.ppt_port = number_option(options, 'p', kDefaultPort);
  settings.server_ip = text_option(options, 'o', kDefaultServerIp);
  settings.ppt_ip = text_option(options, 's', kDefaultPptServerIp);
  if (settings.ppt_ip.empty()) options.printUsage();
  return settings;
}

// Every thread is created with the default attributes, and none is joined. With these, a thread's stack is
// free for the next one as soon as it ends, and a 32-bit board has room for as many as it has descriptors.
void set_default_thread_attributes() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kThreadStackBytes);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
}

// A heap for each thread would only be address space, up to 64 MiB of it: they allocate next to nothing.
void share_one_heap() {
  mallopt(M_ARENA_MAX, 1);
}

// Standard output is written to until the process has ended, and its buffer lives as long.
void hold_signals_back_while_printing() {
  std::cout.rdbuf(new UninterruptedOutput(std::cout.rdbuf()));
}

const pthread_t main_thread = pthread_self();

// For good: what the handler would delete, main deletes.
void keep_server_from_handler() {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

// Runs the server until its run is over. The exit status of the process.
int run_server() {
  try {
    server->Start();
    keep_server_from_handler();
    server->Stop();
    return server->exit_code;
  } catch (ETFTPSocketCreate* error) {
    std::cout << "Socket create exception: " << error->what() << std::endl;
  } catch (ETFTPSocketBind* error) {
    std::cout << "Socket Bind exception: " << error->what() << std::endl;
  }
  keep_server_from_handler();
  return kExitFailure;
}

}  // namespace

void signalHandler(int signal_number) {
  // The command receiver takes signals too, and would wait here for its own end.
  if (pthread_equal(pthread_self(), main_thread) == 0) {
    pthread_kill(main_thread, signal_number);
    return;
  }
  keep_server_from_handler();
  if (server != nullptr) {
    server->Stop();
    delete server;
  }
  std::exit(signal_number);
}

int main(int argc, char** argv) {
  set_default_thread_attributes();
  share_one_heap();
  hold_signals_back_while_printing();
  signal(SIGINT, signalHandler);
  signal(SIGTERM, signalHandler);
  const Settings settings = read_command_line(argc, argv);
  if (settings.ppt_ip.empty()) return kExitFailure;
  std::cout << "Starting TFTP server on " << settings.server_ip << ":" << settings.server_port
            << " PPT Server: " << settings.ppt_ip << std::endl;
  // Without a socket the constructor throws, and nobody catches: the process is aborted.
  server = new TFTPServer(settings.server_port, settings.server_ip, settings.ppt_port, settings.ppt_ip,
                          settings.message_port);
  const int status = run_server();
  delete server;
  return status;
}
