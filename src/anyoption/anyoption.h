#ifndef ANYOPTION_ANYOPTION_H
#define ANYOPTION_ANYOPTION_H

#include <string>
#include <vector>

// The option parser: flags and value options, each valid on the command line, in a resource file, or in both.
// Short options are letters after "-", long options are names after "--".
//
// Use: register every option, then parse, then query. The store for the values is made at the first parse or
// query with one slot for every option registered by then; without any option nothing is parsed and every
// query answers null or false.
//
// argv and the texts of option names, usage lines and file name are kept by pointer and must outlive the
// parser. Values are copies that are never released, so that a pointer from getValue outlives the parser.
//
// Unknown or surplus input is never an error. It is reported on standard output when setVerbose was called.
// Without memory every operation says so and ends the process with status 0.
class AnyOption {
 public:
  // Tables for 10 long names and 10 letters, for max_options of each, or for the two given numbers. A full
  // table grows by itself.
  AnyOption();
  explicit AnyOption(int max_options);
  AnyOption(int max_long_options, int max_letters);
  AnyOption(const AnyOption&) = delete;
  AnyOption& operator=(const AnyOption&) = delete;

  // Value options and flags. With a name and a letter, both stand for the same value.
  void setOption(const char* name);
  void setOption(char letter);
  void setOption(const char* name, char letter);
  void setFlag(const char* name);
  void setFlag(char letter);
  void setFlag(const char* name, char letter);
  // Valid on the command line only.
  void setCommandOption(const char* name);
  void setCommandOption(char letter);
  void setCommandOption(const char* name, char letter);
  void setCommandFlag(const char* name);
  void setCommandFlag(char letter);
  void setCommandFlag(const char* name, char letter);
  // Valid in the resource file only.
  void setFileOption(const char* name);
  void setFileOption(char letter);
  void setFileOption(const char* name, char letter);
  void setFileFlag(const char* name);
  void setFileFlag(char letter);
  void setFileFlag(const char* name, char letter);

  // One line of the usage text.
  void addUsage(const char* line);

  // Reports what is unknown or surplus.
  void setVerbose();
  // Whether unknown or surplus arguments also print the usage.
  void autoUsagePrint(bool on);
  // Parses "-name" as a long option; letters registered from now on are refused.
  void noPOSIX();
  void setCommandPrefixChar(char prefix);
  // Keeps at most two characters: cuts the caller's text in place.
  void setCommandLongPrefix(char* prefix);
  // These two change nothing: the file is always read with "#" and ":" (known behaviour 48).
  void setFileCommentChar(char comment);
  void setFileDelimiterChar(char delimiter);

  void useCommandArgs(int argc, char** argv);
  void processCommandArgs(int argc, char** argv);
  // max_arguments: how many arguments that are no options are kept; 0 for all.
  void processCommandArgs(int argc, char** argv, int max_arguments);
  void processCommandArgs(int max_arguments);
  void processCommandArgs();
  // The double i is the operation's name.
  void useFiileName(const char* file_name);
  void processFile(const char* file_name);
  void processFile();
  // Makes the value store and parses nothing.
  void processOptions();

  // The value's text, or null when it was not given.
  char* getValue(const char* name);
  char* getValue(char letter);
  // Whether the text is "true", as it is after the flag was seen.
  bool getFlag(const char* name);
  bool getFlag(char letter);
  // The arguments that were no options, as far as they were kept. Null for an index out of range.
  int getArgc() const;
  char* getArgv(int index) const;
  // Whether the command line had more than the program name.
  bool hasOptions() const;
  bool CommandSet() const;
  bool FileSet() const;
  bool POSIX() const;

  // Prints the usage text; only the first call prints.
  void printUsage();
  // printUsage when autoUsagePrint is on.
  void printAutoUsage();

  // What the operations above are made of.
  // Forgets everything and makes tables for so many long names and letters: what the constructors do.
  void init(int max_long_options, int max_letters);
  // Makes the tables anew, empty, each with the capacity that it has.
  void alloc();
  // Twice the capacity, before one more is added. The one to be added is named when there is no memory.
  void doubleOptStorage(const char* added_name = "");
  void doubleCharStorage(char added_letter = kNoLetter);
  void doubleUsageStorage(const char* added_line = "");
  // Makes the value store if it is not there and an option is registered. Whether it is there.
  bool valueStoreOK();

 private:
  enum Kind { kNone, kCommonOption, kCommandOption, kFileOption, kCommonFlag, kCommandFlag, kFileFlag };
  // The kinds that one source of options may set: valid everywhere, or valid in that source.
  struct Kinds {
    Kind everywhere;
    Kind here;
  };
  static constexpr Kinds kCommandLineOptions{kCommonOption, kCommandOption};
  static constexpr Kinds kCommandLineFlags{kCommonFlag, kCommandFlag};
  static constexpr Kinds kFileOptions{kCommonOption, kFileOption};
  static constexpr Kinds kFileFlags{kCommonFlag, kFileFlag};
  static constexpr char kFileComment = '#';
  static constexpr char kFileDelimiter = ':';
  static constexpr int kNoSlot = -1;
  // Stands for "no letter" wherever a letter is handed about, so that a value option with the letter 0 can
  // never take its value from the next argument (known behaviour 46).
  static constexpr char kNoLetter = '0';

  template <typename Name>
  struct Entry {
    Name name;
    Kind kind;
    int slot;  // index into values_
  };
  static constexpr Entry<const char*> kFreshLongOption{nullptr, kNone, kNoSlot};
  static constexpr Entry<char> kFreshLetter{kNoLetter, kNone, kNoSlot};

  // Room for the capacity plus one items; the first `used` of them count.
  template <typename Item>
  struct Storage {
    std::vector<Item> items;
    int used;
    int capacity;

    void allocate(const Item& fresh);
    // Twice the capacity plus one items.
    void grow(const Item& fresh);
    void add(const Item& item) { items[static_cast<std::size_t>(used++)] = item; }
    bool full() const { return used >= capacity; }
  };
  template <typename Name>
  using Table = Storage<Entry<Name>>;

  void registerOption(const char* name, Kind kind);
  void registerOption(char letter, Kind kind);
  void registerOption(const char* name, char letter, Kind kind);
  void addLongOption(const char* name, Kind kind, int slot);
  void addLetter(char letter, Kind kind, int slot);

  template <typename Name>
  int slotOf(const Table<Name>& table, Name name) const;
  template <typename Name>
  int slotOf(const Table<Name>& table, Name name, Kinds kinds) const;
  bool store(int slot, const char* text);
  char* valueIn(int slot);

  int parseArgument(int index);
  const char* parseLongOption(const char* text);
  char parseLetters(const char* text);
  void keepExtraArgument(int index);
  void reportUnknownArgument(const std::string& offender);
  void parseFile();
  void parseLine(const std::string& line);
  int fileSlotOf(const std::string& name, Kinds kinds) const;
  void report(const char* text, const std::string& offender) const;

  // init gives all of them their first values.
  int argc_;
  char** argv_;
  std::vector<int> extra_arguments_;  // indexes into argv_
  int max_extra_arguments_;
  const char* file_name_;

  Table<const char*> long_options_;
  Table<char> letters_;
  Storage<const char*> usage_lines_;
  std::vector<char*> values_;  // one per slot, null = not given
  int slots_;                  // handed out so far

  bool command_set_;
  bool file_set_;
  bool posix_;
  bool verbose_;
  bool values_stored_;
  bool usage_not_printed_;
  bool has_options_;
  bool auto_usage_;

  char prefix_;
  std::string long_prefix_;
  // Stored and never read.
  char file_comment_;
  char file_delimiter_;
};

#endif
