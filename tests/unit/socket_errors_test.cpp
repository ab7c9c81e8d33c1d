#include "socket_errors/socket_errors.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

namespace {

template <typename Error>
class DeletionNoted : public Error {
 public:
  explicit DeletionNoted(bool& deleted) : deleted_(deleted) {}
  ~DeletionNoted() override { deleted_ = true; }

 private:
  bool& deleted_;
};

template <typename Error>
class SocketErrors : public testing::Test {};

using BothErrors = testing::Types<ETFTPSocketCreate, ETFTPSocketBind>;
TYPED_TEST_SUITE(SocketErrors, BothErrors, );

}  // namespace

TYPED_TEST(SocketErrors, AreStandardExceptions) {
  EXPECT_TRUE((std::is_convertible_v<TypeParam*, std::exception*>));
  EXPECT_TRUE((std::is_default_constructible_v<TypeParam>));
}

TYPED_TEST(SocketErrors, AreDeletedWhollyThroughTheirOwnPointer) {
  bool deleted = false;
  TypeParam* const error = new DeletionNoted<TypeParam>(deleted);
  delete error;
  EXPECT_TRUE(deleted);
}

TYPED_TEST(SocketErrors, AreDeletedWhollyThroughTheStandardPointer) {
  bool deleted = false;
  std::exception* const error = new DeletionNoted<TypeParam>(deleted);
  delete error;
  EXPECT_TRUE(deleted);
}

TYPED_TEST(SocketErrors, AreCaughtAsPointers) {
  std::unique_ptr<TypeParam> caught;
  try {
    throw new TypeParam;
  } catch (TypeParam* error) {
    caught.reset(error);
  }
  EXPECT_NE(caught, nullptr);
}

TEST(SocketErrors, AreToldApartByWhoeverCatchesThem) {
  EXPECT_FALSE((std::is_base_of_v<ETFTPSocketCreate, ETFTPSocketBind>));
  EXPECT_FALSE((std::is_base_of_v<ETFTPSocketBind, ETFTPSocketCreate>));
}

TEST(SocketErrors, CreateSaysThatNoSocketWasMadeWhateverTheErrorNumber) {
  const std::unique_ptr<std::exception> error = std::make_unique<ETFTPSocketCreate>();
  errno = EMFILE;
  EXPECT_STREQ(error->what(), "Unable to create a socket");
  errno = 0;
  EXPECT_STREQ(error->what(), "Unable to create a socket");
}

TEST(SocketErrors, BindTellsTheErrorNumberOfTheMomentWhenItIsAsked) {
  errno = EADDRINUSE;
  const std::unique_ptr<std::exception> error = std::make_unique<ETFTPSocketBind>();
  errno = EACCES;
  EXPECT_EQ(std::string(error->what()), "Permission denied");
  errno = EADDRNOTAVAIL;
  EXPECT_EQ(std::string(error->what()), "Cannot assign requested address");
  errno = 0;
  EXPECT_EQ(std::string(error->what()), "Success");
}
