#ifndef SOCKET_ERRORS_SOCKET_ERRORS_H
#define SOCKET_ERRORS_SOCKET_ERRORS_H

#include <cerrno>
#include <cstring>
#include <exception>

// The two failures that are thrown. Both are thrown as pointers to objects made with new and caught as
// pointers; whoever catches one owns it.

// A UDP socket could not be made: thrown by the constructors of TFTPServer and TFTPClient.
class ETFTPSocketCreate : public std::exception {
 public:
  ~ETFTPSocketCreate() override = default;
  const char* what() const noexcept override { return "Unable to create a socket"; }
};

// The listening socket could not be bound: thrown by TFTPServer::Start.
class ETFTPSocketBind : public std::exception {
 public:
  ~ETFTPSocketBind() override = default;
  // The text of errno at the time of this call, not of the throw.
  const char* what() const noexcept override { return std::strerror(errno); }
};

#endif
