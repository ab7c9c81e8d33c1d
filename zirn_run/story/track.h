#ifndef STORY_TRACK_H
#define STORY_TRACK_H

#include <cstddef>
#include <cstdint>

#include "frames/packet.h"
#include "frames/tftp_message.h"
#include "story/book.h"

namespace story {

// Follows one transfer, datagram by datagram, in no more room than this and what Transfer is bounded to.
//
// Losses are inferred only where the transfer went on: from a block that was sent again after a pause and
// acknowledged less often than it was sent, and from an ACK that nothing but a pause followed, and then itself
// or its block again. So a network that doubles frames, a peer that answers late, and one that is gone, lose nothing.
class Track {
 public:
  static constexpr Nanoseconds kLeastPatience = 15000000000;  // and at least three times the time-out

  Track(Book* book, std::size_t place, const frames::Endpoint& from)
      : client(from), book_(book), place_(place) {}

  void request(const frames::Packet& packet, std::size_t source, std::size_t target);
  void take(const frames::Packet& packet, const frames::TftpMessage& message, bool is_from_client);
  void closed_port(const frames::Packet& packet, std::size_t source, std::size_t target);
  // Ends the transfer if one side has said nothing for too long.
  void pass_time(Nanoseconds now);
  void station_ended();
  // No more is told, or followed.
  void finish(Nanoseconds now);

  const Transfer& transfer() const { return book_->reading.transfers[place_]; }
  std::size_t place() const { return place_; }
  bool client_went_on() const { return client_went_on_; }
  Nanoseconds last_at() const { return last_at_; }

  const frames::Endpoint client;
  std::uint16_t server_port = 0;  // 0: not answered

 private:
  using Kind = frames::TftpMessage::Kind;

  Transfer& mine() { return book_->reading.transfers[place_]; }
  void judge_silence(const frames::Packet& packet, std::size_t source);
  void note(const frames::Packet& packet);
  void note_repetition(const frames::Packet& packet, const frames::TftpMessage& message, bool is_from_client);
  bool goes_its_way(const frames::TftpMessage& message, bool is_from_client) const;
  void take_block_or_ack(const frames::Packet& packet, const frames::TftpMessage& message,
                         bool is_from_client);
  static void count(const frames::Packet& packet, Flow* flow);
  void note_loss(const frames::Packet& packet, const frames::TftpMessage& message, bool is_from_client);
  void add_loss(Loss loss);
  void take_loss_back();
  void take_data(const frames::Packet& packet, const frames::TftpMessage& message);
  void take_new_block(const frames::TftpMessage& message, std::uint16_t ahead, bool is_lost);
  void take_ack(const frames::Packet& packet, const frames::TftpMessage& message);
  void take_oack(const frames::TftpMessage& message);
  void take_error(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source);
  void take_first_answer(const frames::Packet& packet);
  void tell(Step::Kind kind, std::size_t* step, const frames::Packet& packet, std::size_t source,
            std::size_t target);
  void add_silence(const frames::Packet& packet, std::size_t ended_by);
  void mark(Nanoseconds at);
  Mark mark_now(Nanoseconds at) const;
  void end(Transfer::End end, std::size_t ended_by);
  void resolve_silence();
  bool is_all_acknowledged() const;

  Book* book_;
  std::size_t place_;
  std::size_t request_step_ = kNone;
  std::size_t oack_step_ = kNone;
  std::size_t blocks_step_ = kNone;
  std::size_t error_step_ = kNone;
  std::size_t other_step_ = kNone;
  std::size_t cut_steps_[2] = {kNone, kNone};     // from the server, from the client
  std::size_t closed_steps_[2] = {kNone, kNone};  // where the server's port was closed, the client's

  bool client_went_on_ = false;
  bool client_gave_up_ = false;
  bool has_cut_ = false;        // of what was cut is not known whether it was the last block, or its ACK
  Kind answer_ = Kind::kOther;  // what the first packet from the server was
  bool has_ack_ = false;
  bool has_block_ = false;
  std::uint16_t last_block_ = 0;
  std::uint16_t last_ack_ = 0;
  // Of the present block: how often it was sent without being seen lost, how often after a pause that no ACK
  // had ended, how often it was acknowledged; and what was inferred of the one before.
  std::uint64_t arrived_ = 0;
  std::uint64_t pauses_ = 0;
  std::uint64_t acknowledged_ = 0;
  Nanoseconds sent_at_ = 0;
  bool sent_lost_ = false;
  std::uint64_t owed_before_ = 0;
  std::uint64_t acks_in_vain_ = 0;  // since the last new block

  // The last datagram.
  Kind last_kind_ = Kind::kOther;
  std::uint16_t last_number_ = 0;
  bool last_from_client_ = false;
  bool last_lost_ = false;
  Nanoseconds last_at_ = 0;
  Numbers last_frames_;
  Nanoseconds in_vain_since_ = 0;  // since when it, and nothing else, was sent

  std::uint64_t mark_every_ = 1;  // datagrams
  std::uint64_t marked_ = 0;      // datagrams, when the last mark was begun
};

// The option's value as a number; 0 when it is missing, or none.
std::size_t number_of(const Transfer::Options& options, const char* name);

}  // namespace story

#endif
