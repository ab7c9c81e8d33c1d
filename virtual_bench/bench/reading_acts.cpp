// What a made scenario has of files and of the wire.
#include <algorithm>

#include "bench/maker.h"

namespace {

constexpr int kLostBlockSeconds = 5;  // the shortest time-out of the station
constexpr int kSmallestBlock = 32;    // bytes, from where on the answer to the options has room
constexpr int kLargestBlock = 32764;  // bytes, that the unit's client has room for
constexpr int kUnfragmented = 1428;   // bytes of a block that fits a frame
constexpr int kBlocksUnderLoss = 8;   // few frames, so that few are lost
constexpr int kBlocksAtMost = 300;
constexpr int kDelayedMilliseconds = 1500;  // that a read may wait in all for frames under way
constexpr int kLongestDelay = 20;           // milliseconds

}  // namespace

void Maker::hear_again() {
  say("unit hears the boot script");
}

const Maker::File& Maker::readable_file() {
  std::vector<const File*> readable;
  for (const File& file : files_)
    if (is_readable(file)) readable.push_back(&file);
  return *chance_.one_of(readable);
}

int Maker::most_blocks() const {
  const int by_delay = delay_ > 0 ? kDelayedMilliseconds / (2 * delay_) : kBlocksAtMost;
  return loss_ > 0 ? std::min(by_delay, kBlocksUnderLoss) : by_delay;
}

// Often one that the file's size is a multiple of, or nearly.
int Maker::drawn_block(const File& file) {
  switch (chance_.between(1, 8)) {
    case 1:
      return file.bytes;
    case 2:
      return file.bytes + chance_.between(-1, 1);
    case 3:
      return file.bytes / chance_.between(2, 8);
    case 4:
      return chance_.between(kSmallestBlock, 64);
    case 5:
      return kUnfragmented;
    case 6:
      return chance_.between(65, kUnfragmented);
    case 7:
      return chance_.between(kUnfragmented, kLargestBlock);
    default:
      return chance_.between(kLargestBlock + 1, 65464);
  }
}

int Maker::block_for(const File& file) {
  constexpr int kAttempts = 10;
  for (int left = kAttempts; left > 0; --left) {
    const int block = drawn_block(file);
    const bool has_room = block <= kLargestBlock || file.bytes < kLargestBlock;
    const bool is_asked = block >= kSmallestBlock && has_room && (loss_ == 0 || block <= kUnfragmented);
    if (is_asked && file.bytes / block <= most_blocks()) return block;
  }
  return largest_block();
}

std::string Maker::options_for(const File& file) {
  constexpr int kTimeouts[] = {1, 2, 5, 6};
  std::string options;
  if (file.bytes / 512 > most_blocks() || !chance_.one_in(3))
    options += " blksize " + number(block_for(file));
  if (chance_.one_in(4)) options += " timeout " + number(chance_.one_of(kTimeouts));
  return options;
}

void Maker::read_file() {
  read_file(readable_file());
}

void Maker::read_file(const File& file) {
  say("unit reads " + file.name + options_for(file) + tries());
  succeed_in_reading(file);
  say_of_station("RRQ " + file.name);
  if (loss_ > 0) seconds_ += kLostBlockSeconds / 2;
}

void Maker::read_missing_file() {
  say("unit cannot read missing.img");
  meet(Problem::kMissingFile);
  if (loss_ == 0) say_of_station("RRQ missing.img");
}

void Maker::give_up_reading() {
  say("unit gives up kernel.img blksize " + number(block_for(files_.back())));
  meet(Problem::kGivenUp);
  say_of_station("RRQ kernel.img");
}

void Maker::read_wrongly() {
  const bool has_name = chance_.one_in(2);
  say(has_name ? "unit is refused odd.img in mode netascii" : "unit is refused \"\"");
  meet(Problem::kWrongRead);
  say_of_station(has_name ? "Mode netascii not supported" : "Filename is not set");
}

void Maker::write_file() {
  say("unit writes result" + number(++written_files_) + ".txt");
  say_of_station("WRQ ");
}

void Maker::send_stray() {
  say("unit sends " + std::string(chance_.one_in(2) ? "hello" : "bytes 00ff") + " to port " +
      number(tftp_port_));
  say_of_station("Unexpected packet");
}

// One that is as patient as the station's own client while a verdict is passed on, and that reads empty files.
void Maker::be_like_a_loader() {
  constexpr const char* kPatient[] = {"zirn", "tftp-hpa", "atftp", "u-boot"};
  say("unit is like " + std::string(chance_.one_of(kPatient)));
}

void Maker::begin_reading(const File& file) {
  say("unit begins reading " + file.name + options_for(file));
  succeed_in_reading(file);
  say_of_station("RRQ " + file.name);
}

// At the longest delay it takes more than a second.
void Maker::begin_long_reading() {
  const File& file = files_.back();
  say("unit begins reading " + file.name + " blksize " + number(file.bytes / chance_.between(26, 36)));
  succeed_in_reading(file);
  say_of_station("RRQ " + file.name);
}

void Maker::read_beside_commands() {
  if (delay_ == 0) delay();
  begin_reading(readable_file());
  if (commands_are_served_) ask_mac();
  relay();
  if (commands_are_served_ && chance_.one_in(2)) ask_pmc();
  say("unit ends reading");
}

void Maker::die_and_come_back() {
  if (delay_ < kLongestDelay) delay_by(kLongestDelay);
  say("unit reads kernel.img blksize 1428 dies after " + number(chance_.between(1, 16000)) + " bytes");
  meet(Problem::kDeath);
  say_of_station("RRQ kernel.img");
  if (chance_.one_in(2)) say("bench waits 1 s");
  if (chance_.one_in(2)) mend_wire();
  if (script_is_sent()) say("unit hears the boot script");
  read_file();
  seconds_ += 2;
}

void Maker::pull_the_cable() {
  const std::string time = number(chance_.between(1, 2)) + " s";
  const bool in_between = neither_loses_nor_duplicates() && chance_.one_in(2);
  if (in_between && delay_ < kLongestDelay) delay_by(kLongestDelay);
  if (in_between) {
    begin_long_reading();
    say("unit has read 8000 bytes");
    say("wire is cut for " + time);
    say("unit ends reading");
  } else {
    const File& file = readable_file();
    say("wire is cut for " + time);
    say("unit reads " + file.name + options_for(file) + " tries 9 within 40 s");
    succeed_in_reading(file);
    say_of_station("RRQ " + file.name);
  }
  seconds_ += kLostBlockSeconds;
}

void Maker::lose() {
  loss_ = chance_.between(1, 3);
  say("wire loses " + number(loss_) + " %");
}

void Maker::lose_block() {
  const File& file = readable_file();
  const int block = block_for(file);
  say("wire loses block " + number(chance_.between(1, file.bytes / block + 1)) + " of " + file.name);
  say("unit reads " + file.name + " blksize " + number(block));
  succeed_in_reading(file);
  say_of_station("RRQ " + file.name);
  seconds_ += kLostBlockSeconds;
}

void Maker::lose_answer() {
  const File& file = readable_file();
  say("wire loses the answer to " + file.name);
  // The unit gives it up before the station repeats its answer.
  say("unit reads " + file.name + " blksize " + number(block_for(file)) + " timeout 9 tries 2");
  succeed_in_reading(file);
  say_of_station("RRQ " + file.name);
  seconds_ += kLostBlockSeconds;
}

void Maker::duplicate() {
  duplication_ = chance_.between(1, 60);
  say("wire duplicates " + number(duplication_) + " %");
}

void Maker::swap() {
  swapping_ = chance_.between(1, 60);
  say("wire swaps " + number(swapping_) + " %");
}

void Maker::delay() {
  delay_by(chance_.between(1, kLongestDelay));
}

void Maker::delay_by(int milliseconds) {
  delay_ = milliseconds;
  say("wire delays " + number(delay_) + " ms");
}

void Maker::mend_wire() {
  loss_ = duplication_ = swapping_ = delay_ = 0;
  say("wire is whole");
}

int Maker::largest_block() const {
  return loss_ > 0 ? kUnfragmented : kLargestBlock;
}
