#ifndef TFTP_SERVER_TFTP_SERVER_H
#define TFTP_SERVER_TFTP_SERVER_H

#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdint>
#include <fstream>
#include <istream>
#include <memory>
#include <string>
#include <vector>

#include "message_server/message_server.h"
#include "socket_errors/socket_errors.h"
#include "tftp_packet/tftp_packet.h"

// Set by TimeoutHandler when the alarm fires, read and cleared by request processing.
extern bool _bTimeoutFlag;  // NOLINT(bugprone-reserved-identifier)

// One client: a request datagram and all that follows from it. The record belongs to the main loop until its
// thread is created, and to that thread alone from then on.
//
// Destroying a record closes its socket and its files.
struct ServerClient {
  // What the last wait for this client brought.
  enum ReceiveStatus : std::int32_t {
    kTimedOut = 0,
    kWaitFailed = 1,
    kNothing = 2,  // nothing yet, or an empty datagram
    kReceiveFailed = 3,
    kReceived = 4,
  };
  enum RequestType : std::int32_t { kNoRequest = 0, kReadRequest = 1, kWriteRequest = 2 };
  enum TransferState : std::int32_t {
    kMaySend = 1,    // the next block may be sent; also while an OACK waits for its ACK 0
    kAwaitsAck = 2,  // a DATA block is out
  };
  static constexpr std::int32_t kDefaultTimeout = 5;  // seconds

  ServerClient() = default;
  // With packets of that capacity, in bytes.
  explicit ServerClient(int packet_capacity)
      : received_packet(packet_capacity), sent_packet(packet_capacity) {}
  ~ServerClient();
  ServerClient(const ServerClient&) = delete;
  ServerClient& operator=(const ServerClient&) = delete;
  // Ends whatever the record was doing and takes it back to its defaults. Leaves transfer_state, retries,
  // local_port, the address and the thread as they are.
  void reset();
  // Lets the socket's next receive wait for `timeout` seconds at the most; no call is made where it does so
  // already. False when that cannot be: for a negative timeout, or without a socket.
  bool limitWait();
  // For the end of its thread: gives back the bytes of both packets, which nothing looks at any more.
  void releasePackets();

  static std::int32_t sClientID;  // datagrams turned into records so far; never goes back

  std::int32_t connected = 0;  // 1 while the transfer is live
  std::int32_t request_type = kNoRequest;
  std::int32_t block_number = 0;           // of the last DATA block built, 0 to 65535
  std::int32_t transfer_state = 0;         // TransferState, or 0 before the first packet
  std::string client_ip;                   // dotted quad of the requester
  std::int32_t local_port = 0;             // 100 x client number + 33033; the socket has its low 16 bits
  std::int32_t timeout = kDefaultTimeout;  // seconds for each wait; negotiable, at least 5 then
  // Data bytes per DATA block; negotiable, at most 32768, and as low as the client asks, below zero included.
  std::int32_t block_size = TFTP_Packet::kDefaultBlockSize;
  std::int32_t file_size = 0;  // bytes; known only when the client asked for it
  fd_set read_set;             // scratch of each wait
  std::int32_t retries = 0;    // waits in a row that brought no datagram
  std::int32_t receive_status = kNothing;
  std::int32_t socket_fd = -1;      // -1 = none
  sockaddr_in client_address = {};  // the requester's; where every packet goes
  socklen_t client_address_length = sizeof(sockaddr_in);
  std::istream* input_file = nullptr;    // being served; owned
  std::ofstream* output_file = nullptr;  // created by a write request; owned
  bool last_block = false;               // the block last read reached the end of the file
  pthread_t thread = 0;
  TFTP_Packet received_packet;  // the request, then each datagram received
  TFTP_Packet sent_packet;      // what goes out again when no answer comes

 private:
  void releaseFilesAndSocket();

  // The socket that was limited last, and to how many seconds.
  std::int32_t limited_socket_ = -1;
  std::int32_t limit_seconds_ = 0;
};

// The TFTP server: the listening socket, its receive loop, and one thread per transfer.
//
//   Start            each datagram becomes a ServerClient with a socket of its own      tftp_server.cpp
//   ProcessRequest   reads the request, on the main thread: read, verdict, write        request.cpp
//   ClientProc       Receive, Send, Receive, ... until the transfer ends                transfer.cpp
//
// A record is never entered in `clients`, so that one whose thread has ended stays allocated
// (known behaviour 20).
// Client threads reach the server through `self`. They may outlive it, wherever it lived: Receive, Send and
// all that these call work on the client's record alone, and DestroyClient is not called when the server has
// gone.
class TFTPServer {
 public:
  // server_ip: dotted quad to listen on, empty for every local address.
  // Throws a new ETFTPSocketCreate, by pointer. When its message service cannot be made it works without one.
  TFTPServer(int server_port, const std::string& server_ip, int ppt_port, const std::string& ppt_ip,
             int message_port);
  ~TFTPServer();
  TFTPServer(const TFTPServer&) = delete;
  TFTPServer& operator=(const TFTPServer&) = delete;

  // Binds the socket, takes SIGALRM over, starts the relay and the boot script (with an alarm ten seconds
  // later), and runs the receive loop until `running` is cleared. For the main thread, which takes the
  // signals. Throws a new ETFTPSocketBind, by pointer.
  void Start();
  // Destroys the clients in the table, deletes the message service, and says how many clients there were.
  // Does not end Start.
  void Stop();
  // Takes the client out of the table and destroys it; does nothing when it is not in the table.
  void DestroyClient(ServerClient* client);

  // Tells the unit over the interface's broadcast address how to boot from here, once a second from now on.
  // Non-zero when the broadcast was started.
  int SendBroadcastScript(const std::string& interface_name);

  // Decides what happens to a new client's first datagram and sends the first packet. 1: the client gets a
  // thread; 0: it is to be released. A name of a verdict that is too short throws std::out_of_range
  // (known behaviour 11).
  int ProcessRequest(ServerClient* client);

  // One turn of a client's thread. 0 ends the thread.
  int Receive(ServerClient* client);
  int Send(ServerClient* client);

  // 1 when more than 0 bytes were sent, else 0.
  int sendPacket(TFTP_Packet* packet, ServerClient* client);
  // Reads the next block and sends it.
  int sendPacketData(ServerClient* client);
  int sendError(ServerClient* client, int code, const std::string& message);
  // Waits for one datagram, for `timeout` seconds at the most: the new receive_status.
  int receivePacket(ServerClient* client);
  // The hook for every step of a transfer. It is empty: none of these texts is printed (known behaviour 19).
  void clientStatus(ServerClient* client, const std::string& status);
  // Resets the record. 0 for a null pointer, else 1.
  int disconnectClient(ServerClient* client);

  static TFTPServer* self;  // the server made last; the program makes one

  std::int32_t exit_code = 0;  // result of the run: 2 after a final verdict, 1 when the alarm had fired
  std::int32_t ppt_port;
  std::string ppt_ip;
  std::int32_t message_port;
  std::int32_t socket_fd;
  sockaddr_in server_address = {};
  std::int32_t bind_result = 0;
  bool running = false;
  MessageServer* message_server = nullptr;  // owned; null when there is none
  std::vector<ServerClient*> clients;

 private:
  static constexpr char kTestNetworkAddress[] = "172.40.0.1";

  void announceBoot();
  bool receiveRequest(ServerClient* client);
  void serve(std::unique_ptr<ServerClient> client);
  void deleteMessageServer();

  int processRead(ServerClient* client, const std::string& file_name);
  int startPlain(ServerClient* client);
  int startNegotiated(ServerClient* client, const std::vector<std::string>& names,
                      std::vector<std::string>& values);
  int processVerdict(ServerClient* client, const std::string& file_name);
  bool forwardVerdict(const std::string& file_name);
  int processWrite(ServerClient* client);
  int refuse(ServerClient* client, int code, const std::string& message);
};

// The body of a client's thread. The argument is the ServerClient; the result is always null.
void* ClientProc(void* record);

// The SIGALRM handler: sets _bTimeoutFlag.
void TimeoutHandler(int signal_number);

#endif
