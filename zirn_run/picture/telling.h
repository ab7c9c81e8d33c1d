#ifndef PICTURE_TELLING_H
#define PICTURE_TELLING_H

#include <optional>
#include <string>

#include "picture/row.h"
#include "story/reading.h"

namespace picture {

// What is said of the things of a run, without times and counts of their rows; printable.

// In quotation marks; where the record has only its beginning, also how many bytes it had.
std::string quoted(const story::Said& said);

// "the station", "the unit"; with an address where there are several of the kind.
std::string name_of(const story::Reading& reading, std::size_t party);

// A step by itself, where nothing is folded: "boot script", "read image.bin, blksize 1428", "closes the connection".
std::string step_in_words(const story::Reading& reading, const story::Step& step);
// Whether a port of a transfer was found closed because that was over: the station answers a verdict and closes that
// port at once, so that the unit's ACK finds it closed; and a datagram that was on its way twice finds the same.
bool is_harmless(const story::Reading& reading, const story::Step& closed_port);

// "read image.bin, blksize 1428", "OACK blksize 1428".
std::string request_in_words(const story::Transfer& transfer);
std::string oack_in_words(const story::Transfer& transfer);
// "ERROR 1, "File not found"".
std::string error_in_words(const story::Transfer& transfer);

// The blocks of a transfer that is told by an arrow: "DATA 1, 20 bytes, ACK 1". Nothing for one that needs a band.
std::optional<std::string> few_blocks_in_words(const story::Transfer& transfer);
// The lines in a band.
std::vector<std::string> facts_of(const story::Reading& reading, const story::Transfer& transfer);
// The whole of it in a few words: "image.bin, 5.0 MiB in 0.164 s, 2 lost".
std::string in_short(const story::Reading& reading, const story::Transfer& transfer);
// How it ended, where that is not told by its datagrams. Nothing for one that the record only breaks off.
std::string end_in_words(const story::Reading& reading, const story::Transfer& transfer);

// "connects to port 12345, accepted, "DO_PMC_INIT:7""; has_answers: with what the server said.
std::string opening_in_words(const story::Connection& connection, bool has_answers);
// What the server said; empty: nothing.
std::string answers_in_words(const story::Connection& connection);
// Whether the client asked, and then the server answered, and that was all.
bool is_one_exchange(const story::Connection& connection);
// "closed by the unit, then by the station, 1 segment lost"; empty while it is open.
std::string closing_in_words(const story::Reading& reading, const story::Connection& connection,
                             bool by_both);

std::string board_call_in_words(const story::Step& step);

}  // namespace picture

#endif
