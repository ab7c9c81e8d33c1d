#include "anyoption/anyoption.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <new>

#include "files/files.h"

namespace {

constexpr int kDefaultCapacity = 10;
constexpr int kFirstUsageCapacity = 3;
constexpr char kPrefix = '-';
constexpr char kLongPrefix[] = "--";
constexpr std::size_t kLongPrefixLength = 2;
constexpr char kSkippedBeforeLetterValue[] = " =";
constexpr char kFlagOn[] = "true";

constexpr char kUnknownArgument[] = "Unknown command argument option : ";
constexpr char kIgnoredArgument[] = "Ignoring extra argument: ";
constexpr char kUnknownInFile[] = "Unknown option in resourcefile : ";

bool same_name(const char* left, const char* right) {
  return left != nullptr && right != nullptr && std::strcmp(left, right) == 0;
}

bool same_name(char left, char right) {
  return left == right;
}

std::string without_outer_blanks(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Running out of memory ends the process with status 0 (known behaviour 44).
[[noreturn]] void exit_without_memory() {
  std::cout << std::endl << "OPTIONS ERROR : Failed allocating memory" << std::endl;
  std::cout << "Exiting." << std::endl;
  std::exit(0);
}

// What work returns.
template <typename Work>
auto or_exit_without_memory(const Work& work) {
  try {
    return work();
  } catch (const std::exception&) {
    exit_without_memory();
  }
}

template <typename Added>
[[noreturn]] void exit_without_extra_memory(const char* while_adding, Added added) {
  std::cout << std::endl << "OPTIONS ERROR : Failed allocating extra memory " << std::endl;
  std::cout << while_adding << '"' << added << '"' << std::endl;
  std::cout << "Exiting." << std::endl;
  std::exit(0);
}

}  // namespace

AnyOption::AnyOption() {
  init(kDefaultCapacity, kDefaultCapacity);
}

AnyOption::AnyOption(int max_options) {
  init(max_options, max_options);
}

AnyOption::AnyOption(int max_long_options, int max_letters) {
  init(max_long_options, max_letters);
}

void AnyOption::setOption(const char* name) {
  registerOption(name, kCommonOption);
}

void AnyOption::setOption(char letter) {
  registerOption(letter, kCommonOption);
}

void AnyOption::setOption(const char* name, char letter) {
  registerOption(name, letter, kCommonOption);
}

void AnyOption::setFlag(const char* name) {
  registerOption(name, kCommonFlag);
}

void AnyOption::setFlag(char letter) {
  registerOption(letter, kCommonFlag);
}

void AnyOption::setFlag(const char* name, char letter) {
  registerOption(name, letter, kCommonFlag);
}

void AnyOption::setCommandOption(const char* name) {
  registerOption(name, kCommandOption);
}

void AnyOption::setCommandOption(char letter) {
  registerOption(letter, kCommandOption);
}

void AnyOption::setCommandOption(const char* name, char letter) {
  registerOption(name, letter, kCommandOption);
}

void AnyOption::setCommandFlag(const char* name) {
  registerOption(name, kCommandFlag);
}

void AnyOption::setCommandFlag(char letter) {
  registerOption(letter, kCommandFlag);
}

void AnyOption::setCommandFlag(const char* name, char letter) {
  registerOption(name, letter, kCommandFlag);
}

void AnyOption::setFileOption(const char* name) {
  registerOption(name, kFileOption);
}

void AnyOption::setFileOption(char letter) {
  registerOption(letter, kFileOption);
}

void AnyOption::setFileOption(const char* name, char letter) {
  registerOption(name, letter, kFileOption);
}

void AnyOption::setFileFlag(const char* name) {
  registerOption(name, kFileFlag);
}

void AnyOption::setFileFlag(char letter) {
  registerOption(letter, kFileFlag);
}

void AnyOption::setFileFlag(const char* name, char letter) {
  registerOption(name, letter, kFileFlag);
}

void AnyOption::addUsage(const char* line) {
  if (usage_lines_.full()) doubleUsageStorage(line);
  usage_lines_.add(line);
}

void AnyOption::setVerbose() {
  verbose_ = true;
}

void AnyOption::autoUsagePrint(bool on) {
  auto_usage_ = on;
}

void AnyOption::noPOSIX() {
  posix_ = false;
}

void AnyOption::setCommandPrefixChar(char prefix) {
  prefix_ = prefix;
}

void AnyOption::setCommandLongPrefix(char* prefix) {
  if (std::strlen(prefix) > kLongPrefixLength) prefix[kLongPrefixLength] = '\0';
  long_prefix_ = prefix;
}

void AnyOption::setFileCommentChar(char comment) {
  file_comment_ = comment;
}

void AnyOption::setFileDelimiterChar(char delimiter) {
  file_delimiter_ = delimiter;
}

void AnyOption::useCommandArgs(int argc, char** argv) {
  argc_ = argc;
  argv_ = argv;
  command_set_ = true;
  has_options_ = argc > 1;
}

void AnyOption::processCommandArgs(int argc, char** argv) {
  useCommandArgs(argc, argv);
  processCommandArgs();
}

void AnyOption::processCommandArgs(int argc, char** argv, int max_arguments) {
  max_extra_arguments_ = max_arguments;
  processCommandArgs(argc, argv);
}

void AnyOption::processCommandArgs(int max_arguments) {
  max_extra_arguments_ = max_arguments;
  processCommandArgs();
}

void AnyOption::processCommandArgs() {
  if (!valueStoreOK() || !command_set_) return;
  if (max_extra_arguments_ == 0) max_extra_arguments_ = argc_;
  extra_arguments_.clear();
  or_exit_without_memory([this] {
    for (int index = 1; index < argc_;) index = parseArgument(index);
  });
}

void AnyOption::useFiileName(const char* file_name) {
  file_name_ = file_name;
  file_set_ = true;
}

void AnyOption::processFile(const char* file_name) {
  useFiileName(file_name);
  processFile();
}

void AnyOption::processFile() {
  if (!valueStoreOK() || !file_set_) return;
  or_exit_without_memory([this] { parseFile(); });
}

void AnyOption::processOptions() {
  valueStoreOK();
}

char* AnyOption::getValue(const char* name) {
  return valueIn(slotOf(long_options_, name));
}

char* AnyOption::getValue(char letter) {
  return valueIn(slotOf(letters_, letter));
}

bool AnyOption::getFlag(const char* name) {
  return same_name(getValue(name), kFlagOn);
}

bool AnyOption::getFlag(char letter) {
  return same_name(getValue(letter), kFlagOn);
}

int AnyOption::getArgc() const {
  return static_cast<int>(extra_arguments_.size());
}

char* AnyOption::getArgv(int index) const {
  if (index < 0 || index >= getArgc()) return nullptr;
  return argv_[extra_arguments_[static_cast<std::size_t>(index)]];
}

bool AnyOption::hasOptions() const {
  return has_options_;
}

bool AnyOption::CommandSet() const {
  return command_set_;
}

bool AnyOption::FileSet() const {
  return file_set_;
}

bool AnyOption::POSIX() const {
  return posix_;
}

void AnyOption::printUsage() {
  if (!usage_not_printed_) return;
  usage_not_printed_ = false;
  std::cout << std::endl;
  for (int i = 0; i < usage_lines_.used; ++i) {
    std::cout << usage_lines_.items[static_cast<std::size_t>(i)] << std::endl;
  }
  std::cout << std::endl;
}

void AnyOption::printAutoUsage() {
  if (auto_usage_) printUsage();
}

template <typename Item>
void AnyOption::Storage<Item>::allocate(const Item& fresh) {
  used = 0;
  capacity = std::max(capacity, 1);  // storage without room could not be doubled
  items.assign(static_cast<std::size_t>(capacity) + 1, fresh);
}

template <typename Item>
void AnyOption::Storage<Item>::grow(const Item& fresh) {
  items.resize(2 * static_cast<std::size_t>(capacity) + 1, fresh);
  capacity *= 2;
}

void AnyOption::init(int max_long_options, int max_letters) {
  argc_ = 0;
  argv_ = nullptr;
  extra_arguments_.clear();
  max_extra_arguments_ = 0;
  file_name_ = nullptr;
  long_options_.capacity = max_long_options;
  letters_.capacity = max_letters;
  usage_lines_.capacity = kFirstUsageCapacity;
  values_.clear();
  slots_ = 0;
  command_set_ = file_set_ = verbose_ = values_stored_ = has_options_ = auto_usage_ = false;
  posix_ = usage_not_printed_ = true;
  prefix_ = kPrefix;
  long_prefix_ = kLongPrefix;
  file_comment_ = kFileComment;
  file_delimiter_ = kFileDelimiter;
  alloc();
}

void AnyOption::alloc() {
  or_exit_without_memory([this] {
    long_options_.allocate(kFreshLongOption);
    letters_.allocate(kFreshLetter);
    usage_lines_.allocate(nullptr);
  });
}

void AnyOption::doubleOptStorage(const char* added_name) {
  try {
    long_options_.grow(kFreshLongOption);
  } catch (const std::exception&) {
    exit_without_extra_memory("While adding the option : ", added_name);
  }
}

void AnyOption::doubleCharStorage(char added_letter) {
  try {
    letters_.grow(kFreshLetter);
  } catch (const std::exception&) {
    exit_without_extra_memory("While adding the option: ", added_letter);
  }
}

void AnyOption::doubleUsageStorage(const char* added_line) {
  try {
    usage_lines_.grow(nullptr);
  } catch (const std::exception&) {
    exit_without_extra_memory("While adding the usage/help  : ", added_line);
  }
}

void AnyOption::registerOption(const char* name, Kind kind) {
  addLongOption(name, kind, slots_++);
}

void AnyOption::registerOption(char letter, Kind kind) {
  addLetter(letter, kind, slots_++);
}

void AnyOption::registerOption(const char* name, char letter, Kind kind) {
  const int slot = slots_++;
  addLongOption(name, kind, slot);
  addLetter(letter, kind, slot);
}

void AnyOption::addLongOption(const char* name, Kind kind, int slot) {
  if (long_options_.full()) doubleOptStorage(name);
  long_options_.add({name, kind, slot});
}

void AnyOption::addLetter(char letter, Kind kind, int slot) {
  if (!posix_) {
    if (verbose_) {
      std::cout << "Ignoring the option character \"" << letter << "\" ( POSIX options are turned off )"
                << std::endl;
    }
    return;
  }
  if (letters_.full()) doubleCharStorage(letter);
  letters_.add({letter, kind, slot});
}

bool AnyOption::valueStoreOK() {
  if (!values_stored_ && slots_ > 0) {
    or_exit_without_memory([this] { values_.assign(static_cast<std::size_t>(slots_), nullptr); });
    values_stored_ = true;
  }
  return values_stored_;
}

// The slot of the first entry with that name, of any kind or of one of two kinds.
template <typename Name>
int AnyOption::slotOf(const Table<Name>& table, Name name) const {
  for (int i = 0; i < table.used; ++i) {
    const auto& entry = table.items[static_cast<std::size_t>(i)];
    if (same_name(entry.name, name)) return entry.slot;
  }
  return kNoSlot;
}

template <typename Name>
int AnyOption::slotOf(const Table<Name>& table, Name name, Kinds kinds) const {
  for (int i = 0; i < table.used; ++i) {
    const auto& entry = table.items[static_cast<std::size_t>(i)];
    const bool of_these_kinds = entry.kind == kinds.everywhere || entry.kind == kinds.here;
    if (of_these_kinds && same_name(entry.name, name)) return entry.slot;
  }
  return kNoSlot;
}

// False when there is no such slot; options registered after the first parse have none.
bool AnyOption::store(int slot, const char* text) {
  if (slot < 0 || slot >= static_cast<int>(values_.size())) return false;
  const std::size_t length_with_nul = std::strlen(text) + 1;
  auto* copy = new char[length_with_nul];
  std::memcpy(copy, text, length_with_nul);
  values_[static_cast<std::size_t>(slot)] = copy;  // an older copy may still be in a caller's hands
  return true;
}

char* AnyOption::valueIn(int slot) {
  if (!valueStoreOK() || slot < 0 || slot >= static_cast<int>(values_.size())) return nullptr;
  return values_[static_cast<std::size_t>(slot)];
}

// Returns the index of the argument to look at next.
int AnyOption::parseArgument(int index) {
  char* const argument = argv_[index];
  const bool has_next = index + 1 < argc_;
  const bool is_long = std::strncmp(argument, long_prefix_.c_str(), long_prefix_.size()) == 0;
  const bool is_short = !is_long && argument[0] != '\0' && argument[0] == prefix_;
  if (!is_long && !is_short) {
    keepExtraArgument(index);
    return index + 1;
  }
  const char* const text = argument + (is_long ? long_prefix_.size() : 1);
  int slot_of_next = kNoSlot;
  if (is_short && posix_) {
    const char letter = parseLetters(text);
    if (letter != kNoLetter) slot_of_next = slotOf(letters_, letter, kCommandLineOptions);
  } else if (const char* const name = parseLongOption(text)) {
    slot_of_next = slotOf(long_options_, name, kCommandLineOptions);
  }
  if (slot_of_next == kNoSlot || !has_next) return index + 1;
  store(slot_of_next, argv_[index + 1]);
  return index + 2;
}

// Returns the name when the next argument is its value, else null.
const char* AnyOption::parseLongOption(const char* text) {
  const bool carries_value = text[0] != '\0' && std::strchr(text + 1, '=') != nullptr;
  if (carries_value) {
    const char* const equals = std::strchr(text, '=');
    const std::string name(text, equals);
    if (!store(slotOf(long_options_, name.c_str(), kCommandLineOptions), equals + 1)) {
      reportUnknownArgument(name);
    }
    return nullptr;
  }
  if (slotOf(long_options_, text, kCommandLineOptions) != kNoSlot) return text;
  if (!store(slotOf(long_options_, text, kCommandLineFlags), kFlagOn)) reportUnknownArgument(text);
  return nullptr;
}

// Returns the letter when the next argument is its value, else kNoLetter.
char AnyOption::parseLetters(const char* text) {
  for (const char* letter = text; *letter != '\0'; ++letter) {
    const int slot = slotOf(letters_, *letter, kCommandLineOptions);
    if (slot != kNoSlot) {
      const char* const rest = letter + 1;
      if (*rest == '\0') return *letter;
      store(slot, rest + std::strspn(rest, kSkippedBeforeLetterValue));
      return kNoLetter;
    }
    if (!store(slotOf(letters_, *letter, kCommandLineFlags), kFlagOn)) {
      reportUnknownArgument(std::string(1, *letter));
    }
  }
  // Also when every letter was a known flag (known behaviour 47).
  reportUnknownArgument(text);
  return kNoLetter;
}

void AnyOption::keepExtraArgument(int index) {
  if (getArgc() < max_extra_arguments_) {
    extra_arguments_.push_back(index);
  } else {
    report(kIgnoredArgument, argv_[index]);
  }
  // Also for an argument that was kept (known behaviour 47).
  reportUnknownArgument(argv_[index]);
}

void AnyOption::reportUnknownArgument(const std::string& offender) {
  report(kUnknownArgument, offender);
  printAutoUsage();
}

void AnyOption::parseFile() {
  std::ifstream file;
  open_file(&file, file_name_);
  if (!file.is_open()) return;
  std::string text;  // not by way of a stream, which finds no memory and says nothing
  char piece[512];
  while (file.read(piece, sizeof piece), file.gcount() > 0) {
    text.append(piece, static_cast<std::size_t>(file.gcount()));
  }
  std::size_t start = 0;
  // A last line without its newline is not used.
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    parseLine(text.substr(start, end - start));
    start = end + 1;
  }
}

void AnyOption::parseLine(const std::string& line) {
  if (!line.empty() && line.front() == kFileComment) return;
  const std::size_t delimiter = line.find(kFileDelimiter, 1);
  const bool is_pair = delimiter != std::string::npos && delimiter + 1 < line.size();
  const std::string name = without_outer_blanks(is_pair ? line.substr(0, delimiter) : line);
  const bool accepted = is_pair ? store(fileSlotOf(name, kFileOptions),
                                        without_outer_blanks(line.substr(delimiter + 1)).c_str())
                                : store(fileSlotOf(name, kFileFlags), kFlagOn);
  if (!accepted) report(kUnknownInFile, name);
}

int AnyOption::fileSlotOf(const std::string& name, Kinds kinds) const {
  return name.size() == 1 ? slotOf(letters_, name.front(), kinds)
                          : slotOf(long_options_, name.c_str(), kinds);
}

void AnyOption::report(const char* text, const std::string& offender) const {
  if (verbose_) std::cout << text << offender << std::endl;
}
