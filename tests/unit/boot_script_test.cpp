#include <gtest/gtest.h>
#include <cerrno>
#include "support/captured_output.h"
#include "support/fault.h"
#include "tftp_server/tftp_server.h"
#include "socket_errors/socket_errors.h"
TEST(Smoke, Fault) {
  Fault none(Call::kSocket, EMFILE);
  EXPECT_THROW(TFTPServer(0, "127.0.0.1", 69, "127.0.0.1", 1), ETFTPSocketCreate*);
  EXPECT_EQ(none.struck(), 1);
}
