#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "wire/arguments.h"
#include "wire/orders.h"

namespace {

void expect_order(const std::string& line, Order::What what, double amount) {
  const ReadOrder read = read_order(line);
  EXPECT_TRUE(read.is_valid) << line << ": " << read.expected;
  EXPECT_EQ(read.order.what, what) << line;
  EXPECT_EQ(read.order.amount, amount) << line;
}

void expect_refused(const std::string& line, const std::string& expected) {
  const ReadOrder read = read_order(line);
  EXPECT_FALSE(read.is_valid) << line;
  EXPECT_EQ(read.expected, expected) << line;
}

TEST(WireOrders, EachOrderHasAWordAndANumber) {
  expect_order("loses 5", Order::What::kLose, 5);
  expect_order("duplicates 100", Order::What::kDuplicate, 100);
  expect_order("swaps 0", Order::What::kSwap, 0);
  expect_order("delays 60000", Order::What::kDelay, 60000);
  expect_order("cuts 3600", Order::What::kCut, 3600);
}

TEST(WireOrders, NumbersMayHaveDecimals) {
  expect_order("loses 12.5", Order::What::kLose, 12.5);
  expect_order("cuts 0.25", Order::What::kCut, 0.25);
  expect_order("delays 1.5", Order::What::kDelay, 1.5);
}

TEST(WireOrders, ANumberOutOfRangeIsRefusedWithTheRange) {
  expect_refused("loses 100.01", "loses and a number of percent from 0 to 100");
  expect_refused("duplicates 101", "duplicates and a number of percent from 0 to 100");
  expect_refused("swaps -1", "swaps and a number of percent from 0 to 100");
  expect_refused("delays 60001", "delays and a number of milliseconds from 0 to 60000");
  expect_refused("cuts 3601", "cuts and a number of seconds from 0 to 3600");
}

TEST(WireOrders, WhatIsNoNumberIsRefused) {
  for (const char* amount : {"", " ", "x", "5%", "5 ", " 5", "1,5", "nan", "inf", "1e1", "5 5", "5\r"}) {
    expect_refused(std::string("loses ") + amount, "loses and a number of percent from 0 to 100");
  }
  expect_refused("loses", "loses and a number of percent from 0 to 100");
}

TEST(WireOrders, AnUnknownOrderIsRefusedWithTheListOfOrders) {
  for (const char* line : {"", "lose 5", "Loses 5", "cut", " loses 5"}) {
    expect_refused(line, "loses, duplicates, swaps, delays or cuts, and a number");
  }
}

TEST(WireArguments, TwoLinksAreReadEndByEnd) {
  const Arguments arguments = read_arguments(
      {"a.pcap", "fates", "18446744073709551615", "/proc/1/ns/net=lan0,/proc/2/ns/net=lan1", "x=y=ppt0,z=p"});
  EXPECT_EQ(arguments.capture, "a.pcap");
  EXPECT_EQ(arguments.fates, "fates");
  EXPECT_EQ(arguments.seed, 18446744073709551615U);
  ASSERT_EQ(arguments.links.size(), 2U);
  EXPECT_EQ(arguments.links[0][0].network_namespace, "/proc/1/ns/net");
  EXPECT_EQ(arguments.links[0][0].device, "lan0");
  EXPECT_EQ(arguments.links[0][1].network_namespace, "/proc/2/ns/net");
  EXPECT_EQ(arguments.links[0][1].device, "lan1");
  EXPECT_EQ(arguments.links[1][0].network_namespace, "x=y");
  EXPECT_EQ(arguments.links[1][0].device, "ppt0");
  EXPECT_EQ(arguments.links[1][1].network_namespace, "z");
  EXPECT_EQ(arguments.links[1][1].device, "p");
}

void expect_arguments_refused(const std::vector<std::string>& words, const std::string& expected) {
  try {
    read_arguments(words);
    FAIL() << "was read instead of: " << expected;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), expected);
  }
}

TEST(WireArguments, TooFewAndTooManyAreRefused) {
  expect_arguments_refused({}, "expected CAPTURE FATES SEED LINK [LINK]");
  expect_arguments_refused({"c", "f", "1"}, "expected CAPTURE FATES SEED LINK [LINK]");
  expect_arguments_refused({"c", "f", "1", "a=b,c=d", "a=b,c=d", "a=b,c=d"},
                           "expected CAPTURE FATES SEED LINK [LINK]");
}

TEST(WireArguments, ASeedThatIsNoNumberIsRefused) {
  for (const std::string seed : {"", "x", "-1", "1.5", "1 ", "18446744073709551616"}) {
    expect_arguments_refused({"c", "f", seed, "a=b,c=d"},
                             "expected a seed from 0 to 18446744073709551615 instead of '" + seed + "'");
  }
}

TEST(WireArguments, ALinkNeedsTwoEndsWithNamespaceAndDevice) {
  expect_arguments_refused({"c", "f", "1", "a=b"},
                           "expected NAMESPACE=DEVICE,NAMESPACE=DEVICE instead of 'a=b'");
  expect_arguments_refused({"c", "f", "1", "a=b,c"}, "expected NAMESPACE=DEVICE instead of 'c'");
  expect_arguments_refused({"c", "f", "1", "=b,c=d"}, "expected NAMESPACE=DEVICE instead of '=b'");
  expect_arguments_refused({"c", "f", "1", "a=,c=d"}, "expected a device name of 1 to 15 characters in 'a='");
  expect_arguments_refused({"c", "f", "1", "a=b,c=0123456789abcdef"},
                           "expected a device name of 1 to 15 characters in 'c=0123456789abcdef'");
}

}  // namespace
