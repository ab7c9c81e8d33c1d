#ifndef MESSAGE_SERVER_MESSAGE_SERVER_H
#define MESSAGE_SERVER_MESSAGE_SERVER_H

#include <netinet/in.h>
#include <pthread.h>

#include <cstdint>
#include <string>

#include "message_server/closed_number.h"

// The test station's message channel: three independent workers, each a thread with a run flag in the record.
//
//   sender    SenderProc             sends one stored message over and over, one second apart
//   receiver  ReceiverProc           serves the unit's text commands over TCP
//   relay     UdpMessageServerProc   passes datagrams on to the PPT server
//
// How a worker is stopped: its owner clears the run flag; the worker sees it at its next check (the sender
// after each one-second sleep, the receiver and the relay after each wait), sets its handle field to 0,
// touches the record no more, and ends. Nobody joins a worker; the destructor polls the handles of sender and
// receiver. The receiver also clears its own flag, when it can accept no more. Flags and handles are plain
// fields, shared without a lock and polled across system calls.
//
// The relay is never stopped and outlives the record; from then on it touches nothing of it, so that the
// record may live anywhere (relay_records.h).
//
// A flag stays set when its worker ends by itself. Until the owner clears it, the worker cannot be started
// again (known behaviour 38). A worker that could not be created counts as started (known behaviour 10); its
// handle stays 0.
class MessageServer {
 public:
  // The message port: where the sender sends to (its low 16 bits).
  explicit MessageServer(int port);
  // Returns when sender and receiver have ended.
  ~MessageServer();
  MessageServer(const MessageServer&) = delete;
  MessageServer& operator=(const MessageServer&) = delete;

  // Makes the sender's socket and address: the interface's broadcast address, with the socket bound to it, or
  // else the interface's own address. 0 ready, -1 failure (printed), -2 the protocol "udp" is unknown.
  int InitializeSender(const std::string& interface_name, bool broadcast);
  // Copies the bytes and starts sending them, count times or, for -1, until StopSender. True when started;
  // false while `sending` is set, or when the creation of the thread gives -1.
  bool StartSender(int count, const char* bytes, int length);
  void StopSender();

  // Makes the listening socket for the unit's commands and connects sender_socket to the same port of the
  // remote address. 0 ready, -1 failure (printed). Sockets made before the failing step may stay open.
  int InitializeReceiver(const std::string& local_ip, const std::string& remote_ip, unsigned short port);
  // InitializeReceiver, then the receiver thread. True when started; false while `receiving` is set, when
  // InitializeReceiver fails, or when the creation of the thread gives -1.
  bool StartReceive(const std::string& local_ip, const std::string& remote_ip, unsigned short port);
  void StopReceive();

  // Starts the relay. True when started; false when it was started before, or when the creation of the thread
  // gives -1.
  bool StartUDPServer(const std::string& local_ip, const std::string& remote_ip);

  std::int32_t port;
  // The two fields keep the numbers of sockets that were closed (known behaviour 40).
  std::int32_t sender_socket = -1;   // UDP of InitializeSender, later TCP of InitializeReceiver
  sockaddr_in sender_address = {};   // where SenderProc sends to; the remote end of the TCP connection
  std::int32_t receive_socket = -1;  // listening TCP socket
  sockaddr_in receive_address = {};  // what it is bound to
  in_addr_t interface_address = 0;   // network order
  in_addr_t broadcast_address = 0;   // network order
  char* message = nullptr;           // what the sender sends; owned
  std::int32_t repeat_count = 0;     // how many times; -1 = until stopped
  bool sending = false;              // run flags
  bool receiving = false;
  bool udp_running = false;
  std::int32_t message_length = 0;  // bytes in message
  std::string udp_local_ip;         // dotted quads
  std::string udp_remote_ip;
  pthread_t sender_thread = 0;  // 0 = none alive
  pthread_t receiver_thread = 0;
  pthread_t udp_thread = 0;
  // Whether the numbers in sender_socket and receive_socket are those of closed sockets.
  ClosedNumber closed_sender_socket;
  ClosedNumber closed_receive_socket;
};

// The thread bodies. The argument is the MessageServer; the result is always null.
void* SenderProc(void* record);
void* ReceiverProc(void* record);
void* UdpMessageServerProc(void* record);

#endif
