#include "tftp_server/tftp_server.h"

#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "signals/signals.h"
#include "sockets/sockets.h"

namespace {

constexpr int kRequestCapacity = 512;  // bytes of a request that are looked at
constexpr std::uint32_t kClientPortStep = 100;
constexpr std::uint32_t kClientPortBase = 33033;
constexpr unsigned kAlarmSeconds = 10;
constexpr char kTestNetworkInterface[] = "lan0:0";

// The client's own socket, on its own port if that is free. Whether it is, is not looked at (known behaviour
// 2). -1 when there is no socket, or none that a wait could hold.
int client_socket(int local_port) {
  const int descriptor = open_socket(SOCK_DGRAM);
  if (descriptor == -1) return -1;
  sockaddr_in address = ipv4_address(INADDR_ANY, local_port);
  static_cast<void>(bind(descriptor, as_sockaddr(&address), sizeof address));
  if (fits_descriptor_set(descriptor)) return descriptor;
  close(descriptor);
  return -1;
}

// A record that waits for its datagram; null without memory.
std::unique_ptr<ServerClient> next_client() {
  try {
    return std::make_unique<ServerClient>(kRequestCapacity);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// The server made last, null once it has gone. Clients' threads look while it cannot go.
std::mutex server_guard;
const TFTPServer* living_server = nullptr;

}  // namespace

bool _bTimeoutFlag = false;  // NOLINT(bugprone-reserved-identifier)
TFTPServer* TFTPServer::self = nullptr;
std::int32_t ServerClient::sClientID = 0;

ServerClient::~ServerClient() {
  releaseFilesAndSocket();
}

void ServerClient::reset() {
  received_packet.clear();
  sent_packet.clear();
  receive_status = kNothing;
  connected = 0;
  request_type = kNoRequest;
  block_number = 0;
  client_ip.clear();
  last_block = false;
  file_size = 0;
  timeout = kDefaultTimeout;
  block_size = TFTP_Packet::kDefaultBlockSize;
  releaseFilesAndSocket();
}

bool ServerClient::limitWait() {
  if (timeout < 0) return false;
  if (timeout == 0 || (limited_socket_ == socket_fd && limit_seconds_ == timeout)) return true;
  const timeval limit{timeout, 0};
  if (setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) return false;
  limited_socket_ = socket_fd;
  limit_seconds_ = timeout;
  return true;
}

void ServerClient::releasePackets() {
  received_packet.release();
  sent_packet.release();
}

void ServerClient::releaseFilesAndSocket() {
  limited_socket_ = -1;
  if (socket_fd != -1) close(std::exchange(socket_fd, -1));
  delete std::exchange(input_file, nullptr);
  delete std::exchange(output_file, nullptr);
}

TFTPServer::TFTPServer(int server_port, const std::string& server_ip, int ppt_server_port,
                       const std::string& ppt_server_ip, int port_for_messages)
    : ppt_port(ppt_server_port),
      ppt_ip(ppt_server_ip),
      message_port(port_for_messages),
      socket_fd(open_socket(SOCK_DGRAM)) {
  if (socket_fd == -1) throw new ETFTPSocketCreate;
  server_address = ipv4_address(server_ip.empty() ? INADDR_ANY : inet_addr(server_ip.c_str()), server_port);
  self = this;
  try {
    message_server = new MessageServer(message_port);
  } catch (const std::exception&) {
    // The server works on without its message service.
  }
  const std::lock_guard<std::mutex> lock(server_guard);
  living_server = this;
}

TFTPServer::~TFTPServer() {
  {
    const std::lock_guard<std::mutex> lock(server_guard);
    if (living_server == this) living_server = nullptr;
  }
  deleteMessageServer();
  if (socket_fd != -1) close(std::exchange(socket_fd, -1));
  std::cout << "TFTP Server was shut down" << std::endl;
}

void TFTPServer::Start() {
  static struct sigaction timer_sig;
  bind_result = bind(socket_fd, as_sockaddr(&server_address), sizeof server_address);
  if (bind_result < 0) throw new ETFTPSocketBind;
  std::cout << "Server started , waiting for connections" << std::endl;
  timer_sig.sa_handler = TimeoutHandler;
  sigaction(SIGALRM, &timer_sig, nullptr);
  running = true;
  announceBoot();
  std::unique_ptr<ServerClient> next;
  while (running) {
    if (next == nullptr) next = next_client();
    if (!receiveRequest(next.get()) || next == nullptr) continue;
    try {
      serve(std::exchange(next, nullptr));
    } catch (const std::bad_alloc&) {
      // Without memory the datagram is dropped, and its record with it.
    }
  }
}

void TFTPServer::Stop() {
  const std::size_t active = clients.size();
  for (ServerClient* client : clients) delete client;
  clients.clear();
  deleteMessageServer();
  std::cout << "Stopping server. Active " << active << " connections" << std::endl;
}

void TFTPServer::DestroyClient(ServerClient* client) {
  const auto found = std::find(clients.begin(), clients.end(), client);
  if (found == clients.end()) return;
  delete client;
  clients.erase(found);
}

void TFTPServer::announceBoot() {
  if (message_server == nullptr) return;
  try {
    message_server->StartUDPServer(kTestNetworkAddress, ppt_ip);
    if (SendBroadcastScript(kTestNetworkInterface) != 0) alarm(kAlarmSeconds);
  } catch (const std::bad_alloc&) {
    // Without memory the unit hears nothing, and is served all the same if it asks.
  }
}

// Straight into the record; without one the datagram is dropped. False when nothing was received.
bool TFTPServer::receiveRequest(ServerClient* client) {
  sockaddr_in sender = {};
  socklen_t sender_length = sizeof sender;
  char* const room =
      client == nullptr ? nullptr : reinterpret_cast<char*>(client->received_packet.getData(0));
  ssize_t count = 0;
  {
    const SignalsLetIn meanwhile;
    count = recvfrom(socket_fd, room, room == nullptr ? 0 : kRequestCapacity, 0, as_sockaddr(&sender),
                     &sender_length);
  }
  if (count < 0) return false;
  if (client != nullptr) {
    client->received_packet.setSize(static_cast<int>(count));
    client->client_address = sender;
    client->client_address_length = sender_length;
  }
  return true;
}

// The record becomes the client of the datagram that it received. No other request is read meanwhile (known
// behaviour 1).
void TFTPServer::serve(std::unique_ptr<ServerClient> client) {
  ServerClient::sClientID += 1;
  // Wraps after some twenty million datagrams.
  client->local_port = static_cast<std::int32_t>(
      kClientPortStep * static_cast<std::uint32_t>(ServerClient::sClientID) + kClientPortBase);
  client->socket_fd = client_socket(client->local_port);
  if (client->socket_fd == -1 || client->socket_fd == 0) return;  // known behaviour 3
  client->connected = 1;
  if (client->client_address.sin_family == AF_INET) {
    client->client_ip = inet_ntoa(client->client_address.sin_addr);
  }
  clientStatus(client.get(), "Connected");
  if (ProcessRequest(client.get()) == 0) return;
  // Only -1 counts as a failure, though creation reports one by a positive number (known behaviour 10).
  const int created = pthread_create(&client->thread, nullptr, ClientProc, client.get());
  if (created != -1) static_cast<void>(client.release());
}

// The pointer leaves its field first: a signal that comes while the service ends finds nothing left to
// delete.
void TFTPServer::deleteMessageServer() {
  delete std::exchange(message_server, nullptr);
}

void* ClientProc(void* record) {
  auto* const client = static_cast<ServerClient*>(record);
  try {
    while (client->connected != 0) {
      if (TFTPServer::self->Receive(client) == 0) break;
      if (TFTPServer::self->Send(client) == 0) break;
    }
  } catch (const std::bad_alloc&) {
    client->reset();  // without memory the client is dropped
  }
  client->releasePackets();
  const std::lock_guard<std::mutex> lock(server_guard);
  if (living_server != nullptr && living_server == TFTPServer::self) TFTPServer::self->DestroyClient(client);
  return nullptr;
}

void TimeoutHandler(int /*signal_number*/) {
  _bTimeoutFlag = true;
}
