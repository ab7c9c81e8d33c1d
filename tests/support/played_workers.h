#ifndef SUPPORT_PLAYED_WORKERS_H
#define SUPPORT_PLAYED_WORKERS_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "message_server/message_server.h"
#include "message_server/relay_records.h"
#include "support/threads.h"

// The bodies of the command receiver and of the relay, played by the test: a program that includes this file
// (once) is linked with these and not with the product's, which have tests of their own.

// What the test sees of a body that it plays.
struct PlayedBody {
  std::atomic<int> starts{0};
  std::atomic<int> ends{0};  // of receivers: they touch no record any more
  std::atomic<void*> record{nullptr};
  std::atomic<SignalMask> blocked{0};
  std::atomic<bool> has_its_handle{false};
  std::atomic<bool> has_default_attributes{false};
  std::string local_ip;  // of the relay, once it has started
  std::string remote_ip;
  std::atomic<bool> was_asked_to_run{false};
  std::atomic<bool> may_end{true};
  std::atomic<bool> has_ended{false};
  std::atomic<int> flag_reads{0};

  void starts_with(void* its_record, pthread_t handle) {
    blocked = blocked_signals("thread-self");
    has_its_handle = pthread_equal(handle, pthread_self()) != 0;
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    int state = -1;
    pthread_attr_getdetachstate(&attributes, &state);
    pthread_attr_destroy(&attributes);
    has_default_attributes = state == PTHREAD_CREATE_JOINABLE;
    record = its_record;
    ++starts;
  }
};

static PlayedBody receiver;
static PlayedBody relay;

// Lives until it is stopped and the test lets it end.
void* ReceiverProc(void* record) {
  auto* const server = static_cast<MessageServer*>(record);
  receiver.starts_with(record, server->receiver_thread);
  while (server->receiving || !receiver.may_end) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  receiver.has_ended = true;
  server->receiver_thread = 0;
  ++receiver.ends;
  return nullptr;
}

// Asks whether it is to run until the test lets it end.
void* UdpMessageServerProc(void* record) {
  auto* const server = static_cast<MessageServer*>(record);
  const auto relay_record = take_relay(server);
  relay.starts_with(record, server->udp_thread);
  relay.local_ip = relay_record->local_ip;
  relay.remote_ip = relay_record->remote_ip;
  relay.was_asked_to_run = relay_record->is_to_run();
  while (!relay.may_end) {
    if (relay_record->is_to_run()) ++relay.flag_reads;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  relay_record->mark_ended();
  relay.has_ended = true;
  return nullptr;
}

// Begins each test with bodies that have not run and end when they are stopped.
class WithPlayedWorkers : public testing::Test {
 protected:
  void SetUp() override {
    for (PlayedBody* body : {&receiver, &relay}) {
      body->starts = 0;
      body->ends = 0;
      body->record = nullptr;
      body->may_end = true;
      body->has_ended = false;
      body->flag_reads = 0;
    }
  }
};

#endif
