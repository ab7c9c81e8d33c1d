#include <unistd.h>

#include <fstream>
#include <iostream>
#include <memory>

#include "decimal_number/decimal_number.h"
#include "files/files.h"
#include "signals/signals.h"
#include "tftp_client/tftp_client.h"
#include "tftp_server/tftp_server.h"

namespace {

constexpr char kVerdictPrefix[] = "F_l_m_";
constexpr int kMinTimeoutSeconds = 5;
constexpr int kExitFinalVerdict = 2;
constexpr int kExitTimeout = 1;

bool is_verdict(const std::string& file_name) {
  return file_name.rfind(kVerdictPrefix, 0) == 0;
}

int wait_for_file(const std::string& file_name) {
  const SignalsLetIn meanwhile;
  return open_for_reading(file_name);
}

// Whether the name can be opened, and has an end.
bool exists(const std::string& file_name) {
  std::ifstream file;
  attach_descriptor(&file, wait_for_file(file_name), std::ios::in);
  return file.seekg(0, std::ios::end).good();
}

// Takes one option over into the record and edits the value that is acknowledged. An unknown option is
// acknowledged as it came (known behaviour 7).
void accept_option(ServerClient* client, const std::string& name, std::string& value) {
  if (name == TFTP_Packet::kTimeoutOption) {
    client->timeout = decimal_number(value.c_str());
    if (client->timeout < kMinTimeoutSeconds) {
      client->timeout = kMinTimeoutSeconds;
      value = std::to_string(kMinTimeoutSeconds);
    }
  } else if (name == TFTP_Packet::kBlockSizeOption) {
    // No lower limit: 0 and negative sizes are accepted (known behaviour 8).
    client->block_size = decimal_number(value.c_str());
    if (client->block_size > TFTP_Packet::kMaxSize) {
      std::cout << "Requested blksize=" << client->block_size << " we support " << TFTP_Packet::kMaxSize
                << std::endl;
      client->block_size = TFTP_Packet::kMaxSize;
      value = std::to_string(TFTP_Packet::kMaxSize);
    }
  } else if (name == TFTP_Packet::kTransferSizeOption) {
    client->input_file->seekg(0, std::ios::end);
    client->file_size = static_cast<std::int32_t>(client->input_file->tellg());
    value = std::to_string(client->file_size);
  }
}

}  // namespace

int TFTPServer::ProcessRequest(ServerClient* client) {
  if (client->request_type != ServerClient::kNoRequest) return 1;
  if (client->received_packet.isRRQ()) {
    client->request_type = ServerClient::kReadRequest;
    const std::string file_name = client->received_packet.fileName();
    return is_verdict(file_name) ? processVerdict(client, file_name) : processRead(client, file_name);
  }
  if (client->received_packet.isWRQ()) return processWrite(client);
  std::cout << "Unexpected packet" << std::endl;
  clientStatus(client, "Client sent unexpected packet, so we will disconnect him");
  return refuse(client, TFTP_Packet::kIllegalOperation, "");
}

int TFTPServer::processRead(ServerClient* client, const std::string& file_name) {
  std::cout << "RRQ " << file_name << std::endl;
  if (file_name.empty()) {
    std::cout << "Filename is not set" << std::endl;
    return refuse(client, TFTP_Packet::kFileNotFound, "File not found");
  }
  const std::string mode = client->received_packet.mode();
  if (mode != TFTP_Packet::kMode) {
    std::cout << "Mode " << mode << " not supported" << std::endl;
    return refuse(client, TFTP_Packet::kNotDefined, "Mode not supported");
  }
  auto file = std::make_unique<std::ifstream>();
  // A directory or a pipe too (known behaviour 6).
  attach_descriptor(file.get(), wait_for_file(file_name), std::ios::in);
  const bool opened = file->is_open() && file->good();
  client->input_file = file.release();
  // The message is empty here, unlike for an empty name (known behaviour 5).
  if (!opened) return refuse(client, TFTP_Packet::kFileNotFound, "");

  std::vector<std::string> names;
  std::vector<std::string> values;
  const bool negotiates = client->received_packet.hasOption(names, values) && names.size() == values.size();
  return negotiates ? startNegotiated(client, names, values) : startPlain(client);
}

int TFTPServer::startPlain(ServerClient* client) {
  client->input_file->seekg(0);
  client->received_packet.reSizeForBlock(client->block_size);
  client->sent_packet.reSizeForBlock(client->block_size);
  clientStatus(client, "File was found, starting GET transfer");
  // A block that could not be sent leaves the state at 0, and no ACK moves the transfer on (known behaviour
  // 9).
  if (sendPacketData(client) != 0) client->transfer_state = ServerClient::kAwaitsAck;
  return 1;
}

int TFTPServer::startNegotiated(ServerClient* client, const std::vector<std::string>& names,
                                std::vector<std::string>& values) {
  for (std::size_t i = 0; i < names.size(); ++i) accept_option(client, names[i], values[i]);
  client->input_file->seekg(0);
  client->sent_packet.reSizeForBlock(client->block_size);
  client->sent_packet.createOACK(names, values);
  client->transfer_state = ServerClient::kMaySend;
  sendPacket(&client->sent_packet, client);
  return 1;
}

int TFTPServer::processVerdict(ServerClient* client, const std::string& file_name) {
  client->sent_packet.createData(1, nullptr, 0);
  sendPacket(&client->sent_packet, client);
  disconnectClient(client);

  const bool is_final = forwardVerdict(file_name);
  if (message_server != nullptr) {
    alarm(0);                          // before its flag is ever looked at (known behaviour 13)
    { const SignalsLetIn held_back; }  // an alarm that has fired by now is forgotten, too
    _bTimeoutFlag = false;
    message_server->StopSender();
    message_server->StartReceive(kTestNetworkAddress, ppt_ip, static_cast<unsigned short>(message_port));
  }
  if (is_final || _bTimeoutFlag) {
    exit_code = kExitFinalVerdict;
    deleteMessageServer();
    running = false;
    if (_bTimeoutFlag) exit_code = kExitTimeout;  // the alarm may have come during the deletion
  }
  return 0;
}

// Whether the name is a final verdict. Without a socket to forward it, it is not.
bool TFTPServer::forwardVerdict(const std::string& file_name) {
  try {
    TFTPClient ppt_server(ppt_ip, ppt_port);
    return ppt_server.sendMagic(file_name) == 1;
  } catch (ETFTPSocketCreate* error) {
    delete error;
    return false;
  }
}

int TFTPServer::processWrite(ServerClient* client) {
  std::cout << "WRQ " << std::endl;
  client->request_type = ServerClient::kWriteRequest;
  const std::string file_name = client->received_packet.fileName();
  if (exists(file_name)) {
    clientStatus(client, "PUT failed. File already exists on server");
    return refuse(client, TFTP_Packet::kFileExists, "");
  }
  // Whether it can be created is not looked at: the request is acknowledged all the same, and no data is
  // taken (known behaviour 18).
  client->output_file = new std::ofstream;
  create_file(client->output_file, file_name);
  clientStatus(client, "Starting PUT transfer");
  TFTP_Packet acknowledgement;
  acknowledgement.createACK(0);
  const bool sent = sendPacket(&acknowledgement, client) != 0;
  clientStatus(client, sent ? "Acknowledgement sent" : "Error in sending acknowledgement");
  return 1;
}

int TFTPServer::refuse(ServerClient* client, int code, const std::string& message) {
  sendError(client, code, message);
  disconnectClient(client);
  return 0;
}
