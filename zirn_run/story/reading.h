#ifndef STORY_READING_H
#define STORY_READING_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "frames/packet.h"
#include "record/run_entry.h"

// What happened in a run, as a story tells it: *parties*, *steps* between them in the order of their
// beginnings, and *threads*, which are the larger things that steps belong to (a transfer, a verdict, a
// connection, ...). All stand in lists that only grow, so that a place in one means the same for good; kNone is
// no place. Every one has the numbers of the frames (or lines: journal entries) that it comes from.
//
// Texts are as they came, any bytes, cut to kMaxText.
//
// *Seen* is what a frame or a line says; a loss counts as seen where the record's comments say so. *Inferred*
// is what follows from what was seen; such a field says so in its name or in its comment.
namespace story {

using frames::Numbers;
using record::Nanoseconds;

inline constexpr std::size_t kNone = static_cast<std::size_t>(-1);
inline constexpr std::size_t kMaxText = 512;  // bytes

enum class Role { kStation, kBoard, kEveryone, kUnit, kPptServer, kOther };

// These always have the same place. Everyone: whom a broadcast goes to, and who has no place of his own.
inline constexpr std::size_t kStation = 0;
inline constexpr std::size_t kBoard = 1;
inline constexpr std::size_t kEveryone = 2;

struct Party {
  Role role = Role::kOther;
  std::vector<std::uint32_t>
      addresses;                   // the station may have several; none: it turned out to be the station
  std::optional<frames::Mac> mac;  // that it was first seen with
};

// A text that was said, cut to kMaxText.
struct Said {
  std::string text;
  std::uint64_t size = 0;  // bytes of the whole

  bool operator==(const Said& other) const { return size == other.size && text == other.text; }
};

struct Step {
  enum class Kind {
    kRunBegins,    // Reading::run
    kTimeout,      // Reading::timeout: from here on the station is to end
    kStationEnds,  // Reading::station_end
    kRunEnds,      // Reading::run_end
    kLine,         // `said`, by the station
    kBoardCall,    // `said`, from station to board, and the `status` that it ended with
    kCut,          // the test network's cable was out from `from` until `until`
    kDrops,        // the kernel dropped frames: `count` of them, of the interface `thread`
    kBootScript,   // Reading::boot_script
    kRequest,      // from here on the thread is a transfer
    kOack,
    kBlocks,      // DATA and ACKs, from the sender of the data to its receiver; the transfer says how many
    kError,       // `status`: the code; `said`
    kOtherTftp,   // an answer that is none of these
    kCutTftp,     // a datagram of which the capture kept too little
    kClosedPort,  // "port unreachable", of `port`, in answer to it
    kOtherClosedPort,  // the same, of none; the thread is a closed port
    kConnect,          // from here on the thread is a connection; `port`
    kRefused,
    kSays,  // `said`
    kCloses,
    kResets,  // an RST after the end
    kBreaksOff,
    kDatagram,  // to `port`, `said`; the thread is a relayed datagram, or none
    kRelayed,   // from the station to the PPT server, the same
  };

  Kind kind = Kind::kLine;
  Nanoseconds from = 0;
  Nanoseconds until = 0;  // of the last one of several that this stands for
  std::size_t source = kNone;
  std::size_t target = kNone;
  std::size_t thread = kNone;
  std::uint16_t port = 0;
  std::optional<int> status;
  Said said;

  std::uint64_t count = 0;  // of those that this stands for; kBlocks: of the frames' datagrams
  std::uint64_t lost = 0;   // of these, as seen
  std::uint64_t duplicated = 0;
  std::uint64_t swapped = 0;
  Numbers frames;
  Numbers lines;
  std::uint64_t revision = 0;  // of the story, when this changed last
};

// The datagrams of one kind in one transfer.
struct Flow {
  std::uint64_t sent = 0;
  std::uint64_t again = 0;  // of these: with a number that was sent before
  std::uint64_t lost = 0;   // of these, as seen; so are those that the wire doubled or swapped
  std::uint64_t duplicated = 0;
  std::uint64_t swapped = 0;
};

// A datagram of a transfer that was lost on its way, with its repetitions that were; not what nobody took.
struct Loss {
  enum class What {
    kRequest,
    kAnswer,  // the first packet with which the server answers
    kBlock,
    kAck,
  };

  What what = What::kBlock;
  std::uint64_t number = 0;  // of the block, as counted from 1; kAck: 0: of the options
  std::uint64_t times = 0;
  Nanoseconds at = 0;  // of the last one
  bool is_inferred = false;
};

// A time in which a transfer rested.
struct Silence {
  Nanoseconds from = 0;
  Nanoseconds until = 0;
  std::size_t ended_by = kNone;  // the party that spoke again
  Numbers frames;                // the one before and the one after
};

// How far a transfer was, for drawing.
struct Mark {
  // Of DATA and ACKs together, up to then.
  struct Times {
    std::uint32_t count = 0;  // without what is beyond 32 bits
    Nanoseconds last = 0;
  };

  Nanoseconds at = 0;
  std::uint64_t blocks = 0;
  Times again;
  Times lost;
  Times duplicated;
  Times swapped;
};

struct Transfer {
  enum class Kind {
    kRead,
    kWrite,
    kOther,   // something else than a request came to the port
    kCut,     // something came to the port of which the capture kept too little
    kMidway,  // the record begins after the request; that it is a read is inferred
  };
  enum class End {
    kOpen,
    kFinished,     // the short block was acknowledged
    kError,        // by `ended_by`
    kUnanswered,   // by `ended_by`: nothing came until the client gave up, or for long, or the port is closed
    kAbandoned,    // by `ended_by`, who has said nothing for long, or whose port is closed
    kStationEnds,  // the station ended before it
    kUnknown,      // the record ends before, lacks one side, or kept too little of its datagrams
  };
  using Options = std::vector<std::pair<std::string, std::string>>;
  static constexpr std::size_t kMaxSilences = 8;  // the longest
  static constexpr std::size_t kMaxLosses = 20;   // the first ones
  static constexpr std::size_t kMaxMarks = 64;
  static constexpr Nanoseconds kShortestSilence = 100000000;

  Kind kind = Kind::kRead;
  std::size_t client = kNone;
  std::size_t server = kNone;
  std::uint16_t client_port = 0;
  std::uint16_t server_port = 0;  // that answered; 0: none did
  std::string name;
  std::string mode;
  Options asked;
  Options acknowledged;
  std::size_t block_size = 0;            // bytes; 0: not known
  std::uint64_t requests = 0;            // how often the request was sent
  Nanoseconds request_patience = 0;      // the shortest time until it was sent again
  std::size_t second_answer_of = kNone;  // the transfer whose request was answered twice
  std::size_t verdict = kNone;           // that this is about: the unit's, or the station's query for it
  Nanoseconds from = 0;
  Nanoseconds until = 0;                  // of its last datagram
  std::optional<Nanoseconds> answered;    // first
  bool is_answered_late = false;          // after the client had given up
  std::uint64_t blocks = 0;               // that were sent, each once
  std::uint64_t bytes = 0;                // of these
  std::uint64_t acknowledged_blocks = 0;  // by the numbers of the ACKs
  std::uint64_t blocks_missing = 0;       // whose numbers were passed over: the record lacks them
  bool is_last_sent = false;              // the short block
  Nanoseconds data_from = 0;
  Nanoseconds data_until = 0;  // of the last DATA or ACK
  Flow data;
  Flow acks;
  std::uint64_t inferred_lost = 0;  // beyond those seen, from repetitions: at least so many
  std::vector<Loss> losses;
  std::uint64_t losses_left_out = 0;  // for which that had no room
  std::vector<Silence> silences;      // in order
  std::vector<Mark> marks;            // in order
  std::uint64_t closed_ports = 0;     // "port unreachable" in answer to it

  End end = End::kOpen;
  bool is_end_inferred = false;  // kFinished, although one side's datagrams are missing
  std::size_t ended_by = kNone;  // kError: the sender; kAbandoned and kUnanswered: who was silent last
  std::uint16_t error_code = 0;
  Said error;
  std::uint64_t sent_in_vain = 0;       // how often its last datagram was sent in a row
  std::uint64_t sent_in_vain_lost = 0;  // of these, as seen
  Numbers frames;
  std::uint64_t revision = 0;
};

// A read by a unit whose name is a verdict.
struct Verdict {
  enum class Says { kStep, kStepFailed, kPassed, kFailed };  // of these, the last two are final
  static constexpr std::size_t kMaxQueries = 16;

  std::string name;
  Says says = Says::kStep;
  std::size_t unit = kNone;
  std::size_t transfer = kNone;
  Nanoseconds at = 0;
  std::vector<std::size_t>
      queries;                    // transfers: what the station asked the PPT server for it, the first ones
  std::uint64_t query_count = 0;  // more than one: each request that arrived was passed on
  std::uint64_t revision = 0;
};

struct Connection {
  enum class State { kConnecting, kOpen, kRefused, kClosed, kBrokenOff };
  struct Text {
    bool is_from_client = false;
    Nanoseconds at = 0;
    Said said;
    std::uint64_t count = 1;  // of equal ones in a row
    Numbers frames;
  };
  static constexpr std::size_t kMaxTexts = 16;  // the first ones

  std::size_t client = kNone;
  std::size_t server = kNone;
  std::uint16_t client_port = 0;  // of the last attempt
  std::uint16_t server_port = 0;
  State state = State::kConnecting;  // kConnecting at the end: it was never answered
  bool is_midway = false;            // the record begins after its opening; who is the client is inferred
  std::uint64_t attempts = 0;        // equal ones that were refused or not answered are one connection
  Nanoseconds from = 0;
  std::optional<Nanoseconds> opened;
  Nanoseconds until = 0;
  std::size_t ended_by = kNone;      // kRefused, kClosed (first), kBrokenOff
  std::optional<Nanoseconds> ended;  // the same
  std::uint64_t again = 0;           // segments with bytes or flags that were sent before
  std::uint64_t lost = 0;            // segments, as seen
  std::uint64_t resets = 0;          // RSTs after the end, which break nothing off
  std::size_t reset_by = kNone;      // the first of these
  std::vector<Text> texts;
  std::uint64_t text_count = 0;
  std::uint64_t bytes_from_client = 0;
  std::uint64_t bytes_from_server = 0;
  Numbers frames;
  std::uint64_t revision = 0;
};

// Datagrams of a unit to the station's relay, and what became of them. Equal ones in a row are one.
struct Relayed {
  std::size_t unit = kNone;
  Said said;
  Nanoseconds from = 0;
  Nanoseconds until = 0;
  std::uint64_t received = 0;
  std::uint64_t received_lost = 0;  // of these, as seen: they cannot be passed on
  std::uint64_t passed_on = 0;
  std::optional<Nanoseconds> passed_on_at;  // last
  Numbers frames;                           // both ways
  std::uint64_t revision = 0;
};

struct BootScript {
  Nanoseconds first = 0;
  Nanoseconds last = 0;
  std::uint64_t count = 0;
  std::uint64_t lost = 0;           // as seen
  std::size_t answered_by = kNone;  // the first unit that asked for something after it
  std::optional<Nanoseconds> answered;
  Numbers frames;
};

// Datagrams to a port that nobody listens on, which belong to no transfer.
struct ClosedPort {
  std::size_t at = kNone;
  std::size_t from = kNone;  // who sent there
  std::uint16_t port = 0;
  std::uint64_t count = 0;
  Nanoseconds first = 0;
  Nanoseconds last = 0;
  Numbers frames;
};

struct Network {
  std::string name;
  std::string filter;
  std::optional<std::uint64_t> received;
  std::optional<std::uint64_t> dropped;
};

// A line that came without a time.
struct UntimedLine {
  static constexpr std::size_t kMost = 10000;  // of a run

  std::string text;
  Numbers lines;
};

// What the recorder says that the record lacks from then on, or no longer lacks.
struct Gap {
  Nanoseconds at = 0;
  std::string text;
  Numbers lines;
};

struct Reading {
  std::vector<Party> parties;
  std::vector<Step> steps;
  std::vector<std::size_t> order;  // of all steps, by their beginnings
  std::vector<Transfer> transfers;
  std::vector<Verdict> verdicts;
  std::vector<Connection> connections;
  std::vector<Relayed> relayed;
  std::vector<ClosedPort> closed_ports;
  std::vector<Network> networks;
  std::vector<UntimedLine> untimed_lines;
  std::vector<Gap> gaps;
  std::optional<BootScript> boot_script;
  std::optional<record::RunBegins> run;
  std::optional<record::Timeout> timeout;
  std::optional<record::StationEnds> station_end;
  std::optional<record::RunEnds> run_end;
  std::uint16_t tftp_port = 69;  // the station's
  std::uint16_t ppt_port = 69;   // the PPT server's
  std::uint16_t message_port = 12345;
  Nanoseconds first = 0;  // of all that was told
  Nanoseconds last = 0;
  bool has_frames = false;
  bool has_ended = false;       // no more will be told
  bool is_cut_short = false;    // the record broke off
  std::uint64_t not_whole = 0;  // datagrams and segments, other than DATA, that the capture kept a part of
  std::uint64_t left_out = 0;   // things that a list had no room for
  std::uint64_t revision = 0;   // grows with every change
};

// What became of a verdict at the PPT server, by the last query for it.
enum class PassedOn {
  kNotDue,   // it is final
  kNotSeen,  // no query is in the record
  kWaiting,  // for the answer, still, or when the station ended
  kAnswered,
  kRefused,     // with an ERROR
  kClosedPort,  // nobody listens there
  kSilent,
};
PassedOn passed_on(const Reading& reading, const Verdict& verdict);

// When the station's own alarm comes, as its lines tell: ten seconds after its first boot script. It comes once, unless a
// verdict has come before, and cuts short what the station waits for.
std::optional<Nanoseconds> alarm_in(const Reading& reading);
// Whether the line tells that it came.
bool is_by_alarm(const Reading& reading, const Step& line);

// What the station passes on of a datagram to its relay.
std::string_view passed_on_part(std::string_view text);

// How the station ended: "2 (a final verdict or SIGINT ended the run)", as a shell gives the status, and what it
// means where that is known.
std::string in_words(const record::StationEnds& end);

bool is_final(Verdict::Says says);

// What a verdict's name says; nothing for a name that is none.
std::optional<Verdict::Says> verdict_in(std::string_view name);

// The name under which the station asks the PPT server for a verdict; empty where that has none.
std::string query_for(const std::string& verdict);
bool is_query(std::string_view name);
// The verdict that a query is for.
std::string verdict_of(const std::string& query);

}  // namespace story

#endif
