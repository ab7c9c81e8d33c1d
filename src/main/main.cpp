#include <malloc.h>
#include <pthread.h>
#include <signal.h>

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>

#include "anyoption/anyoption.h"
#include "decimal_number/decimal_number.h"
#include "signals/signals.h"
#include "socket_errors/socket_errors.h"
#include "tftp_server/tftp_server.h"

// The one server. It keeps its value after the server was deleted (known behaviour 45).
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

// The texts are the parser's, which never releases them.
struct Settings {
  int server_port;
  const char* server_ip;
  int ppt_port;
  const char* ppt_ip;
  int message_port;
};

// A parser that reports by throwing a text leaves the default in these two.
int number_option(AnyOption& options, char letter, int default_number) {
  try {
    if (options.getValue(letter) != nullptr) {
      return decimal_number(options.getValue(letter));
    }
  } catch (char*) {
  }
  return default_number;
}

const char* text_option(AnyOption& options, char letter, const char* default_text) {
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

  if (options.getFlag('h')) options.printUsage();  // known behaviour 42
  Settings settings;
  settings.server_port = number_option(options, 'n', kDefaultPort);
  settings.message_port = number_option(options, 'm', kDefaultMessagePort);
  settings.ppt_port = number_option(options, 'p', kDefaultPort);
  settings.server_ip = text_option(options, 'o', kDefaultServerIp);
  settings.ppt_ip = text_option(options, 's', kDefaultPptServerIp);
  if (*settings.ppt_ip == '\0') options.printUsage();
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

const pthread_t main_thread = pthread_self();

// Runs the server until its run is over. The exit status of the process.
int run_server() {
  try {
    server->Start();
    server->Stop();
    return server->exit_code;
  } catch (ETFTPSocketCreate* error) {
    std::cout << "Socket create exception: " << error->what() << std::endl;
  } catch (ETFTPSocketBind* error) {
    std::cout << "Socket Bind exception: " << error->what() << std::endl;
  }
  return kExitFailure;
}

}  // namespace

void signalHandler(int signal_number) {
  // The command receiver, which takes signals while it runs a board's command, would wait here for its own
  // end.
  if (pthread_equal(pthread_self(), main_thread) == 0) {
    pthread_kill(main_thread, signal_number);
    return;
  }
  block_signals_for_good();
  if (server != nullptr) {
    server->Stop();
    delete server;
  }
  std::exit(signal_number);
}

int main(int argc, char** argv) {
  set_default_thread_attributes();
  share_one_heap();
  block_signals();
  signal(SIGINT, signalHandler);
  signal(SIGTERM, signalHandler);
  const Settings settings = read_command_line(argc, argv);
  { const SignalsLetIn ends_it_before_there_is_a_server; }
  if (*settings.ppt_ip == '\0') return kExitFailure;
  std::cout << "Starting TFTP server on " << settings.server_ip << ":" << settings.server_port
            << " PPT Server: " << settings.ppt_ip << std::endl;
  // Without a socket the constructor throws, and nobody catches: the process is aborted.
  server = new TFTPServer(settings.server_port, settings.server_ip, settings.ppt_port, settings.ppt_ip,
                          settings.message_port);
  const int status = run_server();
  delete server;
  return status;
}
