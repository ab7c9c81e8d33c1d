#include "message_server/message_server.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <utility>

#include "message_server/relay_records.h"
#include "message_server/worker.h"
#include "signals/signals.h"
#include "sockets/sockets.h"

namespace {

constexpr useconds_t kSendIntervalMicroseconds = 1000000;
constexpr useconds_t kStopPollMicroseconds = 50000;
constexpr int kRawProtocol = 255;
constexpr int kListenBacklog = 5;

constexpr char kCannotSetOptions[] = "Can't set the socket options the reason is ";

// The result is for the caller to return.
int fail_with_reason(const char* message) {
  print_with_reason(message);
  return -1;
}

// The same, and closes the descriptor. The field that holds it keeps the number (known behaviour 40).
int fail_and_close(int descriptor, ClosedNumber* closed, const char* message) {
  fail_with_reason(message);
  closed->close_once(descriptor);
  return -1;
}

bool switch_on(int descriptor, int socket_option) {
  const int on = 1;
  return setsockopt(descriptor, SOL_SOCKET, socket_option, &on, sizeof on) == 0;
}

// Asks the kernel for one IPv4 address of the interface. False, and address 0, when it has none.
bool query_interface(int descriptor, const std::string& name, unsigned long request, in_addr_t* address) {
  ifreq query = {};
  // A name of 16 characters or more fills the field without a NUL.
  std::memcpy(query.ifr_name, name.data(), std::min(name.size(), sizeof query.ifr_name));
  query.ifr_addr.sa_family = AF_INET;
  const bool answered = ioctl(descriptor, request, &query) != -1;
  sockaddr_in answer;
  std::memcpy(&answer, &query.ifr_addr, sizeof answer);
  *address = answer.sin_addr.s_addr;
  return answered;
}

// Creation reports a failure by a positive number, and the callers take only -1 for one (known behaviour
// 10). But no thread is alive then, and nobody must wait for one.
int forget_if_not_created(int creation_result, pthread_t* thread) {
  if (creation_result != 0) *thread = 0;
  return creation_result;
}

void wait_for_end_of(const pthread_t* thread) {
  while (is_alive(thread)) {
    const SignalsLetIn meanwhile;
    usleep(kStopPollMicroseconds);
  }
}

int connect_letting_signals_in(int descriptor, sockaddr_in* address) {
  const SignalsLetIn meanwhile;
  return connect(descriptor, as_sockaddr(address), sizeof *address);
}

}  // namespace

MessageServer::MessageServer(int message_port) : port(message_port) {}

MessageServer::~MessageServer() {
  forget_record(this);
  StopSender();
  wait_for_end_of(&sender_thread);
  StopReceive();
  wait_for_end_of(&receiver_thread);
  if (sender_socket != -1) closed_sender_socket.close_once(sender_socket);
  if (receive_socket != -1) closed_receive_socket.close_once(receive_socket);
  delete[] message;
  message = nullptr;
  std::cout << "Message Server was shut down" << std::endl;
}

int MessageServer::InitializeSender(const std::string& interface_name, bool broadcast) {
  if (sending) {
    std::cout << "MessageServer already sending message" << std::endl;
    return -1;
  }
  const int query_socket = open_socket(SOCK_RAW, kRawProtocol);
  if (query_socket == -1) return fail_with_reason("Can't create socket for ioctl calls  because of : ");
  const bool has_broadcast =
      query_interface(query_socket, interface_name, SIOCGIFBRDADDR, &broadcast_address);
  const bool has_address = query_interface(query_socket, interface_name, SIOCGIFADDR, &interface_address);
  if (!has_broadcast || !has_address) fail_with_reason("Can't get ioctl answer because of : ");
  close(query_socket);
  if (!has_broadcast || !has_address) return -1;

  const protoent* const udp = getprotobyname("udp");
  if (udp == nullptr) {
    std::cout << "error in proto entry" << std::endl;
    return -2;
  }
  sender_socket = open_socket(SOCK_DGRAM, udp->p_proto);
  closed_sender_socket.forget();
  sender_address = ipv4_address(broadcast ? broadcast_address : interface_address, port);
  if (broadcast) {
    if (!switch_on(sender_socket, SO_BROADCAST))
      return fail_and_close(sender_socket, &closed_sender_socket, kCannotSetOptions);
    if (bind(sender_socket, as_sockaddr(&sender_address), sizeof sender_address) == -1) {
      return fail_and_close(sender_socket, &closed_sender_socket, "Can't bind socket by the reason of ");
    }
  }
  std::cout << "Message Sender initialized. IP: " << inet_ntoa(sender_address.sin_addr) << " Port=" << port
            << std::endl;
  return 0;
}

bool MessageServer::StartSender(int count, const char* bytes, int length) {
  if (sending) return false;
  sending = true;
  delete[] std::exchange(message, nullptr);
  message_length = length;
  const auto byte_count = static_cast<std::size_t>(std::max(length, 0));
  message = new char[byte_count];
  if (byte_count != 0) std::memcpy(message, bytes, byte_count);
  repeat_count = count;
  const int created = pthread_create(&sender_thread, nullptr, SenderProc, this);
  if (forget_if_not_created(created, &sender_thread) == -1) {
    std::cout << " Can't create sender thread" << std::endl;
    return false;
  }
  return true;
}

void MessageServer::StopSender() {
  if (sending) sending = false;
}

int MessageServer::InitializeReceiver(const std::string& local_ip, const std::string& remote_ip,
                                      unsigned short message_port) {
  receive_socket = open_socket(SOCK_STREAM);
  closed_receive_socket.forget();
  if (receive_socket == -1) {
    std::cout << "Failed to create receive socket" << std::endl;
    return -1;
  }
  if (!switch_on(receive_socket, SO_REUSEADDR))
    return fail_and_close(receive_socket, &closed_receive_socket, kCannotSetOptions);
  int on = 1;
  if (ioctl(receive_socket, FIONBIO, &on) == -1) {
    std::cout << "Ioctl failed" << std::endl;
    closed_receive_socket.close_once(receive_socket);
    return -1;
  }
  receive_address = ipv4_address(inet_addr(local_ip.c_str()), message_port);
  if (bind(receive_socket, as_sockaddr(&receive_address), sizeof receive_address) == -1) {
    return fail_with_reason("ERROR on binding. ");
  }
  if (listen(receive_socket, kListenBacklog) == -1) return fail_with_reason("ERROR on listen. ");

  // The broadcast's socket goes, and the connection takes its place, unless its number is 0 (known
  // behaviour 40). Where there can be no connection, the listening socket stays open (known behaviour 39).
  if (sender_socket != 0) closed_sender_socket.close_once(sender_socket);
  sender_socket = open_socket(SOCK_STREAM);
  closed_sender_socket.forget();
  if (sender_socket == -1) return fail_with_reason("Failed to create sender socket. ");
  sender_address = ipv4_address(inet_addr(remote_ip.c_str()), message_port);
  if (connect_letting_signals_in(sender_socket, &sender_address) == -1) {
    const char* const reason = std::strerror(errno);
    std::cout << "ERROR on connect() to " << remote_ip << ":" << message_port << ". " << reason << std::endl;
    return -1;
  }
  std::cout << "Message receiver initialized. IP: " << inet_ntoa(sender_address.sin_addr)
            << " Port=" << message_port << std::endl;
  return 0;
}

bool MessageServer::StartReceive(const std::string& local_ip, const std::string& remote_ip,
                                 unsigned short message_port) {
  if (receiving) return false;
  if (InitializeReceiver(local_ip, remote_ip, message_port) < 0) {
    std::cout << "Error: Failed to initialize receiver" << std::endl;
    return false;
  }
  receiving = true;
  const int created = pthread_create(&receiver_thread, nullptr, ReceiverProc, this);
  if (forget_if_not_created(created, &receiver_thread) == -1) {
    std::cout << " Can't create receiver thread" << std::endl;
    return false;
  }
  return true;
}

void MessageServer::StopReceive() {
  if (receiving) receiving = false;
}

bool MessageServer::StartUDPServer(const std::string& local_ip, const std::string& remote_ip) {
  if (udp_running) return false;
  udp_local_ip = local_ip;
  udp_remote_ip = remote_ip;
  udp_running = true;
  announce_relay(this);
  const int created = pthread_create(&udp_thread, nullptr, UdpMessageServerProc, this);
  if (created != 0) withdraw_relay(this);
  if (forget_if_not_created(created, &udp_thread) == -1) {
    std::cout << " Can't create UDP receiver thread" << std::endl;
    return false;
  }
  return true;
}

void* SenderProc(void* record) {
  auto* const server = static_cast<MessageServer*>(record);
  std::int32_t countdown = server->repeat_count;
  while (server->sending) {
    if (server->repeat_count != -1) {
      if (countdown < 1) break;
      --countdown;
    }
    const ssize_t sent = sendto(server->sender_socket, server->message,
                                static_cast<std::size_t>(std::max(server->message_length, 0)), 0,
                                as_sockaddr(&server->sender_address), sizeof server->sender_address);
    if (sent == -1) print_with_reason("Error in \"sendto\":  the reason is ");
    usleep(kSendIntervalMicroseconds);
  }
  // `sending` stays as it is: a sender whose count ran out is spent until StopSender.
  mark_ended(&server->sender_thread);
  std::cout << "Sender proc stopped!!!" << std::endl;
  return nullptr;
}
