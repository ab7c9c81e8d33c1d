#ifndef TFTP_CLIENT_TFTP_CLIENT_H
#define TFTP_CLIENT_TFTP_CLIENT_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

#include "socket_errors/socket_errors.h"
#include "tftp_packet/tftp_packet.h"

// One UDP socket aimed at one TFTP server, with a bounded wait for one datagram and what is built from it.
//
// Every receive overwrites server_address with the sender's address. So the first reply, which a TFTP server
// sends from a port of its own (the transfer ID of RFC 1350), redirects all later sends to that port. The
// source of a datagram is never compared with anything; nothing is sent twice unless an operation says so.
//
// All diagnostics go to standard output. A client is used by one thread at a time.
class TFTPClient {
 public:
  static constexpr std::int32_t kDefaultTimeout = 5;  // seconds

  // What waitForPacket and waitForPacketData return.
  enum WaitResult : int {
    kTimeOut = 0,        // nothing arrived within the wait
    kWaitFailed = 1,     // select failed, also when a signal interrupted it
    kEmptyDatagram = 2,  // a datagram of length 0 arrived
    kReceiveFailed = 3,
    kReceived = 4,     // a datagram is in the packet
    kErrorPacket = 5,  // waitForPacketData only: it is an ERROR packet, and was printed
  };

  // An address that is no dotted quad becomes 255.255.255.255.
  // Throws a new ETFTPSocketCreate, by pointer, when there is no socket that can be waited for.
  TFTPClient(const std::string& address, int port);
  ~TFTPClient();
  TFTPClient(const TFTPClient&) = delete;
  TFTPClient& operator=(const TFTPClient&) = delete;

  // Both return what sendto returns. sendBuffer sends the text without its NUL.
  int sendBuffer(const char* text);
  int sendPacket(TFTP_Packet* packet);
  // Waits up to wait_seconds for one datagram and receives it, cut to the packet's capacity. The packet is
  // cleared first, but only once a datagram is there: after kTimeOut and kWaitFailed it holds what it held.
  int waitForPacket(TFTP_Packet* packet, int wait_seconds);
  // waitForPacket into received_packet; prints an ERROR packet. kReceived says nothing of the packet's kind.
  int waitForPacketData(int wait_seconds);
  // Waits for one packet and prints what it is. 0 only for an ERROR packet; a time-out, a wrong number, DATA
  // and anything else return 1 like the right ACK. expected_block is printed and never compared (known
  // behaviour 27).
  int waitForPacketACK(int expected_block, int wait_seconds);
  // Prints code and text of an ERROR packet.
  void errorReceived(TFTP_Packet* packet);

  // Passes a test verdict on: a final one ("PPT_PASSED", "PPT_FAILED") returns 1 and sends nothing; any other
  // name is sent to the server as a read request with "CPU_2_" inserted after its eighth character, the
  // first answer is awaited once and acknowledged whatever it was, and the result is 0. A failed verdict
  // marks the board by "envtool ppt_flag=failed". Throws std::out_of_range for a name of fewer than eight
  // characters that is not final.
  int sendMagic(const std::string& file_name);

  // Downloads a file with the options timeout, blksize and tsize. 1 when it was received to its end, 0 after
  // an ERROR packet or when the server went silent; the local file is removed then. Blocks until it ends.
  // What the server acknowledges is used as it is: after a negative "timeout" no wait succeeds and it never
  // ends.
  int getFile(const std::string& remote_name, const std::string& local_path);
  // Uploads a file in blocks of 512 bytes, without options and without ever repeating a block. 1 when the
  // last block was sent, 0 when the local file could not be opened or the server sent an ERROR packet.
  // The order of the two names is the opposite of getFile's.
  int sendFile(const std::string& local_path, const std::string& remote_name);

  std::string server_ip;
  std::int32_t server_port;
  std::int32_t socket_fd;
  sockaddr_in server_address;  // destination of every send, overwritten by every receive
  socklen_t server_address_length;
  std::int32_t timeout;     // seconds
  std::int32_t block_size;  // data bytes per DATA block in getFile
  TFTP_Packet received_packet;
};

#endif
