#include "anyoption/anyoption.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/captured_output.h"
#include "support/flush_recorder.h"
#include "support/scratch_directory.h"

namespace {

int allocations = 0;
int failing_allocation = 0;  // counted from when it was set; 0 = none fails

void* allocate(std::size_t size) noexcept {
  ++allocations;
  if (failing_allocation > 0 && --failing_allocation == 0) return nullptr;
  return std::malloc(size > 0 ? size : 1);
}

void* allocate_or_throw(std::size_t size) {
  void* const storage = allocate(size);
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}

// Apart, so that the compiler does not hold it against the operator new that it knows.
[[gnu::noinline]] void give_back(void* storage) noexcept {
  std::free(storage);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate_or_throw(size);
}

void* operator new[](std::size_t size) {
  return allocate_or_throw(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}

void operator delete(void* storage) noexcept {
  give_back(storage);
}

void operator delete[](void* storage) noexcept {
  give_back(storage);
}

void operator delete(void* storage, std::size_t) noexcept {
  give_back(storage);
}

void operator delete[](void* storage, std::size_t) noexcept {
  give_back(storage);
}

void operator delete(void* storage, const std::nothrow_t&) noexcept {
  give_back(storage);
}

void operator delete[](void* storage, const std::nothrow_t&) noexcept {
  give_back(storage);
}

namespace {

using Texts = std::vector<std::string>;

constexpr int kNothingFailed = 77;

// Runs the scenario in child processes, in which the first, the second, ... allocation after its call of
// memory_fails() fails, until none is left to fail. Each must end the process with status 0 and this output.
template <typename Scenario>
void expect_every_failed_allocation_to_exit(const std::string& output, Scenario scenario) {
  int status = 0;
  for (int nth = 1; WEXITSTATUS(status) != kNothingFailed; ++nth) {
    const CapturedOutput child_output;
    const pid_t child = fork();
    if (child == 0) {
      scenario([nth] { failing_allocation = nth; });
      _exit(kNothingFailed);
    }
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "allocation " << nth;
    if (WEXITSTATUS(status) == kNothingFailed) {
      EXPECT_GT(nth, 1) << "nothing was allocated";
    } else {
      ASSERT_EQ(WEXITSTATUS(status), 0) << "allocation " << nth;
      ASSERT_EQ(child_output.text(), output) << "allocation " << nth;
    }
  }
}

// Which of the calls action(1), action(2), ... action(count) allocate.
template <typename Action>
std::vector<int> allocating_calls(int count, Action action) {
  std::vector<int> calls;
  for (int number = 1; number <= count; ++number) {
    const int before = allocations;
    action(number);
    if (allocations != before) calls.push_back(number);
  }
  return calls;
}

// Names of options: "option1", "option2", ...
std::vector<std::string> numbered_names(int count) {
  std::vector<std::string> names;
  for (int number = 1; number <= count; ++number) names.push_back("option" + std::to_string(number));
  return names;
}

const std::vector<std::string> kNumberedNames = numbered_names(50);

const char* numbered_name(int number) {
  return kNumberedNames[static_cast<std::size_t>(number - 1)].c_str();
}

char numbered_letter(int number) {
  return static_cast<char>('A' + number - 1);
}

// argc and argv, in storage of its own.
class CommandLine {
 public:
  explicit CommandLine(Texts arguments) : texts_(std::move(arguments)) {
    texts_.insert(texts_.begin(), "TFTP");
    for (std::string& text : texts_) pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
  }
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  int argc() const { return static_cast<int>(texts_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  Texts texts_;
  std::vector<char*> pointers_;
};

// A parser that keeps the command lines it was given and shows what it found: 'text', or (null).
class Parser : public AnyOption {
 public:
  using AnyOption::AnyOption;

  template <typename... MaxExtraArguments>
  Parser& parse(const Texts& arguments, MaxExtraArguments... max_extra_arguments) {
    CommandLine& line = lines_.emplace_back(arguments);
    processCommandArgs(line.argc(), line.argv(), max_extra_arguments...);
    return *this;
  }
  Parser& use(const Texts& arguments) {
    CommandLine& line = lines_.emplace_back(arguments);
    useCommandArgs(line.argc(), line.argv());
    return *this;
  }
  Parser& read(const std::string& file_contents) {
    const ScratchDirectory directory;
    write_whole_file(directory.file("resource"), file_contents);
    processFile("resource");
    return *this;
  }
  template <typename Name>
  std::string value(Name name) {
    const char* const text = getValue(name);
    return text == nullptr ? "(null)" : "'" + std::string(text) + "'";
  }
  Texts extra_arguments() const {
    Texts arguments;
    for (int i = 0; i < getArgc(); ++i) arguments.emplace_back(getArgv(i));
    return arguments;
  }

 private:
  std::deque<CommandLine> lines_;
};

// With the options that the program itself has.
class ProgramParser : public Parser {
 public:
  ProgramParser() {
    setFlag('h');
    setOption("port", 'n');
    setOption("serverip", 's');
    setOption("serverport", 'p');
    setOption("ipaddr", 'o');
    setOption("msgport", 'm');
  }
};

std::string value_of(char letter, const Texts& arguments) {
  return ProgramParser().parse(arguments).value(letter);
}

template <typename Action>
std::string printed_by(Action action) {
  const CapturedOutput output;
  action();
  return output.text();
}

// What a parser with a usage line of "usage" prints.
struct Reports {
  bool verbose;
  bool automatic_usage;

  std::string of(const Texts& arguments, int max_extra_arguments = 0) const {
    ProgramParser parser;
    prepare(parser);
    return printed_by([&] { parser.parse(arguments, max_extra_arguments); });
  }
  std::string of_file(const std::string& contents) const {
    ProgramParser parser;
    parser.setFlag("flag");
    prepare(parser);
    return printed_by([&] { parser.read(contents); });
  }

 private:
  void prepare(AnyOption& parser) const {
    parser.addUsage("usage");
    parser.autoUsagePrint(automatic_usage);
    if (verbose) parser.setVerbose();
  }
};

constexpr Reports kSilent{false, false};
constexpr Reports kVerbose{true, false};
constexpr Reports kUsage{false, true};
constexpr Reports kVerboseUsage{true, true};

struct OptionKind {
  const char* setter;
  void (AnyOption::*by_name)(const char*);
  void (AnyOption::*by_letter)(char);
  void (AnyOption::*by_both)(const char*, char);
  bool is_flag;
  bool on_command_line;
  bool in_file;

  void register_in(AnyOption& parser, const char* name) const { (parser.*by_name)(name); }
  void register_in(AnyOption& parser, char letter) const { (parser.*by_letter)(letter); }
  void register_in(AnyOption& parser, const char* name, char letter) const {
    (parser.*by_both)(name, letter);
  }
  Texts argument(const char* option) const { return is_flag ? Texts{option} : Texts{option, "text"}; }
  std::string line(const std::string& name) const { return name + (is_flag ? "\n" : ":text\n"); }
  std::string expected(bool accepted) const { return !accepted ? "(null)" : is_flag ? "'true'" : "'text'"; }
};

#define WITH_SETTER(setter) #setter, &AnyOption::setter, &AnyOption::setter, &AnyOption::setter
constexpr OptionKind kOptionKinds[] = {
    {WITH_SETTER(setOption), false, true, true},         {WITH_SETTER(setFlag), true, true, true},
    {WITH_SETTER(setCommandOption), false, true, false}, {WITH_SETTER(setCommandFlag), true, true, false},
    {WITH_SETTER(setFileOption), false, false, true},    {WITH_SETTER(setFileFlag), true, false, true},
};
#undef WITH_SETTER

void PrintTo(const OptionKind& kind, std::ostream* output) {
  *output << kind.setter;
}

class AnyOptionSetter : public testing::TestWithParam<OptionKind> {
 protected:
  AnyOptionSetter() { verbose_.setVerbose(); }

  template <typename... Names>
  void register_everywhere(Names... names) {
    kind_.register_in(parser_, names...);
    kind_.register_in(other_, names...);
    kind_.register_in(verbose_, names...);
  }

  const OptionKind& kind_ = GetParam();
  Parser parser_;
  Parser other_;
  Parser verbose_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Kind, AnyOptionSetter, testing::ValuesIn(kOptionKinds),
                         [](const auto& kind) { return std::string(kind.param.setter); });

TEST_P(AnyOptionSetter, WithANameIsFoundByThatName) {
  register_everywhere("name");
  EXPECT_EQ(parser_.parse(kind_.argument("--name")).value("name"), kind_.expected(kind_.on_command_line));
  EXPECT_EQ(parser_.getFlag("name"), kind_.is_flag && kind_.on_command_line);
  EXPECT_EQ(other_.read(kind_.line("name")).value("name"), kind_.expected(kind_.in_file));
  EXPECT_EQ(other_.getFlag("name"), kind_.is_flag && kind_.in_file);
  EXPECT_EQ(printed_by([&] { verbose_.parse({"--name"}); }),
            kind_.on_command_line ? "" : "Unknown command argument option : name\n");
  EXPECT_EQ(printed_by([&] { verbose_.read(kind_.line("name")); }),
            kind_.in_file ? "" : "Unknown option in resourcefile : name\n");
}

TEST_P(AnyOptionSetter, WithALetterIsFoundByThatLetter) {
  register_everywhere('n');
  EXPECT_EQ(parser_.parse(kind_.argument("-n")).value('n'), kind_.expected(kind_.on_command_line));
  EXPECT_EQ(parser_.getFlag('n'), kind_.is_flag && kind_.on_command_line);
  EXPECT_EQ(other_.read(kind_.line("n")).value('n'), kind_.expected(kind_.in_file));
  EXPECT_EQ(other_.getFlag('n'), kind_.is_flag && kind_.in_file);
  EXPECT_EQ(printed_by([&] { verbose_.read(kind_.line("n")); }),
            kind_.in_file ? "" : "Unknown option in resourcefile : n\n");
}

TEST_P(AnyOptionSetter, WithNameAndLetterFindsTheSameValueByEither) {
  register_everywhere("name", 'n');
  EXPECT_EQ(parser_.parse(kind_.argument("--name")).value('n'), kind_.expected(kind_.on_command_line));
  EXPECT_EQ(other_.parse(kind_.argument("-n")).value("name"), kind_.expected(kind_.on_command_line));
  EXPECT_EQ(other_.value('n'), kind_.expected(kind_.on_command_line));
}

TEST_P(AnyOptionSetter, WithNameAndLetterFindsTheSameValueOfTheFileByEither) {
  register_everywhere("name", 'n');
  EXPECT_EQ(parser_.read(kind_.line("name")).value('n'), kind_.expected(kind_.in_file));
  EXPECT_EQ(other_.read(kind_.line("n")).value("name"), kind_.expected(kind_.in_file));
}

TEST_P(AnyOptionSetter, OfAFlagTakesNoValueAndOfAnOptionNeedsOne) {
  kind_.register_in(parser_, "name", 'n');
  parser_.parse({kind_.is_flag ? "--name=text" : "--name"});
  parser_.read(kind_.is_flag ? "name:text\nn:text\n" : "name\nn\n");
  EXPECT_EQ(parser_.value("name"), "(null)");
  EXPECT_FALSE(parser_.getFlag('n'));
}

TEST(AnyOption, TakesTheNextArgumentAsValue) {
  ProgramParser parser;
  parser.parse({"-n", "70", "-s", "10.0.0.1", "--msgport", "5000"});
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(parser.value("port"), "'70'");
  EXPECT_EQ(parser.value('s'), "'10.0.0.1'");
  EXPECT_EQ(parser.value('m'), "'5000'");
  EXPECT_EQ(parser.value('o'), "(null)");
  EXPECT_EQ(parser.value('p'), "(null)");
  EXPECT_EQ(parser.getArgc(), 0);
}

TEST(AnyOption, TakesTheNextArgumentWhateverItLooksLike) {
  ProgramParser parser;
  parser.parse({"-n", "-s", "--serverip", "--port=1"});
  EXPECT_EQ(parser.value('n'), "'-s'");
  EXPECT_EQ(parser.value('s'), "'--port=1'");
}

TEST(AnyOption, TakesTheValueOfALongOptionBehindTheFirstEqualsSign) {
  EXPECT_EQ(value_of('n', {"--port=70"}), "'70'");
  EXPECT_EQ(value_of('n', {"--port", "70"}), "'70'");
  EXPECT_EQ(value_of('n', {"--port==7=0"}), "'=7=0'");
  EXPECT_EQ(value_of('n', {"--port= 70"}), "' 70'");
  EXPECT_EQ(value_of('n', {"--port=70", "71"}), "'70'");
}

TEST(AnyOption, TakesTheValueOfALetterFromTheSameArgumentBehindBlanksAndEqualsSigns) {
  EXPECT_EQ(value_of('p', {"-p70"}), "'70'");
  EXPECT_EQ(value_of('p', {"-p=70"}), "'70'");
  EXPECT_EQ(value_of('p', {"-p 70"}), "'70'");
  EXPECT_EQ(value_of('p', {"-p = =70"}), "'70'");
  EXPECT_EQ(value_of('p', {"-p70= 1"}), "'70= 1'");
  EXPECT_EQ(value_of('p', {"-p70", "71"}), "'70'");
}

TEST(AnyOption, TakesEmptyValues) {
  for (const Texts& arguments : std::vector<Texts>{
           {"-s", ""}, {"-s="}, {"-s "}, {"--serverip="}, {"--serverip", ""}, {"-n", "70", "-s", ""}}) {
    EXPECT_EQ(value_of('s', arguments), "''") << arguments.front();
  }
}

TEST(AnyOption, GivesALastArgumentWithoutValueNone) {
  EXPECT_EQ(value_of('n', {"-n"}), "(null)");
  EXPECT_EQ(value_of('n', {"--port"}), "(null)");
  EXPECT_EQ(value_of('n', {"-n", "70", "-n"}), "'70'");
  EXPECT_EQ(kVerboseUsage.of({"-n"}) + kVerboseUsage.of({"--port"}), "");
}

TEST(AnyOption, LooksAtLettersOneByOneUpToTheFirstThatTakesAValue) {
  ProgramParser parser;
  parser.setFlag('q');
  parser.parse({"-hqn", "70"});
  EXPECT_TRUE(parser.getFlag('h'));
  EXPECT_TRUE(parser.getFlag('q'));
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(value_of('n', {"-hn70"}), "'70'");
  EXPECT_EQ(value_of('n', {"-xn70"}), "'70'");
  EXPECT_EQ(value_of('n', {"-nh"}), "'h'");
  EXPECT_EQ(value_of('h', {"-nh"}), "(null)");
}

TEST(AnyOption, SetsAFlagToTrue) {
  ProgramParser parser;
  EXPECT_FALSE(parser.parse({"-n", "70"}).getFlag('h'));
  EXPECT_TRUE(parser.parse({"-h"}).getFlag('h'));
  EXPECT_EQ(parser.value('h'), "'true'");
}

TEST(AnyOption, TakesTheTextTrueForAFlagThatIsOn) {
  ProgramParser parser;
  parser.parse({"-n", "true", "-s", "True", "-p", "true ", "-o", ""});
  EXPECT_TRUE(parser.getFlag('n'));
  EXPECT_TRUE(parser.getFlag("port"));
  EXPECT_FALSE(parser.getFlag('s'));
  EXPECT_FALSE(parser.getFlag('p'));
  EXPECT_FALSE(parser.getFlag("ipaddr"));
}

TEST(AnyOption, AnswersNullAndFalseForWhatIsNotRegistered) {
  ProgramParser parser;
  parser.parse({"-x", "--unknown=1", "-0"});
  EXPECT_EQ(parser.value('x'), "(null)");
  EXPECT_EQ(parser.value('0'), "(null)");
  EXPECT_EQ(parser.value("unknown"), "(null)");
  EXPECT_EQ(parser.value("PORT"), "(null)");
  EXPECT_EQ(parser.value("por"), "(null)");
  EXPECT_FALSE(parser.getFlag('x'));
  EXPECT_FALSE(parser.getFlag("unknown"));
}

TEST(AnyOption, AsksTheFirstEntryOfAName) {
  Parser parser;
  parser.setFileOption("name", 'n');
  parser.setOption("name", 'n');
  parser.parse({"--name=1", "-n2"});
  EXPECT_EQ(parser.value("name"), "(null)");
  EXPECT_EQ(parser.value('n'), "(null)");
  parser.read("name:first\n");
  EXPECT_EQ(parser.value('n'), "'first'");
}

TEST(AnyOption, TakesALetterOfTwoKindsForTheOneThatItsSourceKnows) {
  Parser option_first;
  option_first.setFileOption('v');
  option_first.setCommandFlag('v');
  option_first.setVerbose();
  // As for every argument without a value letter; the letter itself is known.
  EXPECT_EQ(printed_by([&] { option_first.parse({"-v"}); }), "Unknown command argument option : v\n");
  EXPECT_EQ(option_first.value('v'), "(null)");
  EXPECT_EQ(printed_by([&] { option_first.read("v:text\n"); }), "");
  EXPECT_EQ(option_first.value('v'), "'text'");

  Parser flag_first;
  flag_first.setCommandFlag('v');
  flag_first.setFileOption('v');
  flag_first.setVerbose();
  EXPECT_EQ(printed_by([&] { flag_first.read("v:text\n"); }), "");
  EXPECT_EQ(flag_first.value('v'), "(null)");
  EXPECT_TRUE(flag_first.parse({"-v"}).getFlag('v'));
}

TEST(AnyOption, TakesALetterThatIsFlagAndOptionForTheOption) {
  Parser option_first;
  option_first.setOption('v');
  option_first.setFlag('v');
  EXPECT_EQ(option_first.parse({"-v", "text"}).value('v'), "'text'");
  EXPECT_EQ(option_first.getArgc(), 0);

  Parser flag_first;
  flag_first.setFlag('v');
  flag_first.setOption('v');
  EXPECT_EQ(flag_first.parse({"-v", "text"}).value('v'), "(null)");
  EXPECT_EQ(flag_first.getArgc(), 0);
}

TEST(AnyOption, ReplacesAnEarlierValueAndLeavesItsTextAlone) {
  ProgramParser parser;
  const char* const first = parser.parse({"-n", "70"}).getValue('n');
  parser.parse({"--port=71", "-n72"});
  EXPECT_EQ(parser.value('n'), "'72'");
  EXPECT_STREQ(first, "70");
}

TEST(AnyOption, KeepsItsOwnCopyOfAValueAndLeavesItBehind) {
  char text[] = "70";
  char program[] = "TFTP";
  char option[] = "-n";
  char* arguments[] = {program, option, text, nullptr};
  const char* value = nullptr;
  {
    ProgramParser parser;
    parser.processCommandArgs(3, arguments);
    value = parser.getValue('n');
  }
  text[0] = '8';
  EXPECT_STREQ(value, "70");
}

TEST(AnyOption, KeepsNamesAndUsageLinesByPointer) {
  char name[] = "before";
  char line[] = "before";
  Parser parser;
  parser.setOption(name);
  parser.addUsage(line);
  std::strcpy(name, "later");
  std::strcpy(line, "later");
  EXPECT_EQ(parser.parse({"--later=1", "--before=2"}).value("later"), "'1'");
  EXPECT_EQ(printed_by([&] { parser.printUsage(); }), "\nlater\n\n");
}

TEST(AnyOption, NeverTakesTheNextArgumentAsValueOfTheLetterZero) {
  Parser parser;
  parser.setVerbose();
  parser.setOption("zero", '0');
  parser.setFlag('1');
  EXPECT_EQ(printed_by([&] {
              parser.parse({"-0", "70", "-10", "71", "-0"});
            }),
            "Unknown command argument option : 70\n"
            "Unknown command argument option : 71\n");
  EXPECT_EQ(parser.value('0'), "(null)");
  EXPECT_TRUE(parser.getFlag('1'));
  EXPECT_EQ(parser.extra_arguments(), (Texts{"70", "71"}));
}

TEST(AnyOption, TakesTheValueOfTheLetterZeroFromElsewhere) {
  Parser parser;
  parser.setOption("zero", '0');
  EXPECT_EQ(parser.parse({"-070"}).value('0'), "'70'");
  EXPECT_EQ(parser.parse({"-0=71"}).value('0'), "'71'");
  EXPECT_EQ(parser.parse({"--zero", "72"}).value('0'), "'72'");
}

TEST(AnyOption, SetsTheFlagOfTheLetterZero) {
  Parser parser;
  parser.setFlag('0');
  parser.setFlag('1');
  parser.parse({"-01"});
  EXPECT_TRUE(parser.getFlag('0'));
  EXPECT_TRUE(parser.getFlag('1'));
}

TEST(AnyOption, KeepsPlainWordsAsExtraArguments) {
  ProgramParser parser;
  EXPECT_EQ(parser.parse({"word"}).getArgc(), 1);
  EXPECT_STREQ(parser.getArgv(0), "word");

  ProgramParser mixed;
  mixed.parse({"one", "-n", "70", "", "-h", "two", "--port=1", "three"});
  EXPECT_EQ(mixed.extra_arguments(), (Texts{"one", "", "two", "three"}));
}

TEST(AnyOption, HasNoExtraArgumentOutOfRange) {
  ProgramParser parser;
  EXPECT_EQ(parser.getArgc(), 0);
  EXPECT_EQ(parser.getArgv(0), nullptr);
  parser.parse({"one", "two"});
  for (int index : {2, 3, 1000, INT_MAX, -1, INT_MIN}) EXPECT_EQ(parser.getArgv(index), nullptr) << index;
}

TEST(AnyOption, KeepsNoMoreExtraArgumentsThanTheMaximum) {
  EXPECT_EQ(ProgramParser().parse({"one", "two", "three"}, 2).extra_arguments(), (Texts{"one", "two"}));
  EXPECT_EQ(ProgramParser().parse({"one", "two"}, 2).extra_arguments(), (Texts{"one", "two"}));
  EXPECT_EQ(ProgramParser().parse({"one", "two"}, 0).extra_arguments(), (Texts{"one", "two"}));
  EXPECT_EQ(ProgramParser().parse({"one", "two"}, -1).extra_arguments(), Texts{});
  ProgramParser parser;
  parser.use({"one", "-n70", "two"}).processCommandArgs(1);
  EXPECT_EQ(parser.extra_arguments(), (Texts{"one"}));
  EXPECT_EQ(parser.value('n'), "'70'");
}

TEST(AnyOption, KeepsTheMaximumOfTheParseBefore) {
  ProgramParser parser;
  parser.parse({"one", "two"}, 1);
  EXPECT_EQ(parser.parse({"three", "four"}).extra_arguments(), (Texts{"three"}));

  // Without one, the first parse makes it the number of its arguments, the program's name included.
  ProgramParser unlimited;
  unlimited.parse({"one"});
  EXPECT_EQ(unlimited.parse({"two", "three", "four"}).extra_arguments(), (Texts{"two", "three"}));
  EXPECT_EQ(unlimited.parse({"two", "three", "four"}, 0).extra_arguments(), (Texts{"two", "three", "four"}));
}

TEST(AnyOption, ForgetsTheExtraArgumentsOfTheParseBefore) {
  ProgramParser parser;
  parser.parse({"one", "two"}, 2);
  EXPECT_EQ(parser.parse({"three"}, 2).extra_arguments(), (Texts{"three"}));
}

TEST(AnyOption, ParsesTheCommandLineThatItWasToldToUse) {
  ProgramParser parser;
  parser.use({"-n", "70", "word"});
  EXPECT_EQ(parser.getArgc(), 0);
  parser.processCommandArgs();
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(parser.extra_arguments(), (Texts{"word"}));
}

TEST(AnyOption, ParsesNothingWithoutACommandLine) {
  ProgramParser parser;
  parser.processCommandArgs();
  parser.processCommandArgs(3);
  EXPECT_EQ(parser.getArgc(), 0);
  EXPECT_FALSE(parser.CommandSet());
  char* none[] = {nullptr};
  parser.processCommandArgs(0, none);
  EXPECT_TRUE(parser.CommandSet());
  EXPECT_FALSE(parser.hasOptions());
  EXPECT_EQ(parser.getArgc(), 0);
}

TEST(AnyOption, TellsItsSwitches) {
  ProgramParser parser;
  EXPECT_FALSE(parser.CommandSet());
  EXPECT_FALSE(parser.FileSet());
  EXPECT_FALSE(parser.hasOptions());
  EXPECT_TRUE(parser.POSIX());
  parser.use({});
  EXPECT_TRUE(parser.CommandSet());
  EXPECT_FALSE(parser.hasOptions());
  parser.use({"word"});
  EXPECT_TRUE(parser.hasOptions());
  EXPECT_FALSE(parser.FileSet());
  parser.useFiileName("resource");
  EXPECT_TRUE(parser.FileSet());
  parser.noPOSIX();
  EXPECT_FALSE(parser.POSIX());
}

TEST(AnyOption, SaysNothingOfUnknownArgumentsUnlessVerbose) {
  EXPECT_EQ(kSilent.of({"-x", "-h", "--unknown", "--unknown=1", "word", "surplus"}, 1), "");
  EXPECT_EQ(kSilent.of_file("unknown\nunknown:text\n"), "");
}

TEST(AnyOption, ReportsUnknownLongNames) {
  EXPECT_EQ(kVerbose.of({"--unknown"}), "Unknown command argument option : unknown\n");
  EXPECT_EQ(kVerbose.of({"--unknown=text"}), "Unknown command argument option : unknown\n");
  EXPECT_EQ(kVerbose.of({"--=text"}), "Unknown command argument option : =text\n");
  EXPECT_EQ(kVerbose.of({"--"}), "Unknown command argument option : \n");
}

TEST(AnyOption, ReportsUnknownLettersAndThenTheArgumentWhenNoLetterTakesAValue) {
  EXPECT_EQ(kVerbose.of({"-x"}),
            "Unknown command argument option : x\n"
            "Unknown command argument option : x\n");
  EXPECT_EQ(kVerbose.of({"-xhy"}),
            "Unknown command argument option : x\n"
            "Unknown command argument option : y\n"
            "Unknown command argument option : xhy\n");
  EXPECT_EQ(kVerbose.of({"-xn70"}), "Unknown command argument option : x\n");
  EXPECT_EQ(kVerbose.of({"-h"}), "Unknown command argument option : h\n");
  EXPECT_EQ(kVerbose.of({"-"}), "Unknown command argument option : \n");
}

TEST(AnyOption, ReportsExtraArgumentsWhetherItKeepsThemOrNot) {
  EXPECT_EQ(kVerbose.of({"one"}), "Unknown command argument option : one\n");
  EXPECT_EQ(kVerbose.of({"one", "two"}, 1),
            "Unknown command argument option : one\n"
            "Ignoring extra argument: two\n"
            "Unknown command argument option : two\n");
}

TEST(AnyOption, ReportsNothingOfWhatItTakes) {
  EXPECT_EQ(kVerboseUsage.of({"-n", "70", "-hs10.0.0.1", "--serverport=1", "--ipaddr", "x", "-m"}), "");
}

TEST(AnyOption, PrintsTheAutomaticUsageOnceAfterTheFirstReport) {
  EXPECT_EQ(kVerboseUsage.of({"-x", "word"}),
            "Unknown command argument option : x\n"
            "\nusage\n\n"
            "Unknown command argument option : x\n"
            "Unknown command argument option : word\n");
  EXPECT_EQ(kVerboseUsage.of({"-h"}), "Unknown command argument option : h\n\nusage\n\n");
  EXPECT_EQ(kVerboseUsage.of({"--unknown"}), "Unknown command argument option : unknown\n\nusage\n\n");
  EXPECT_EQ(kVerboseUsage.of({"--unknown=1"}), "Unknown command argument option : unknown\n\nusage\n\n");
  EXPECT_EQ(kVerboseUsage.of({"word"}), "Unknown command argument option : word\n\nusage\n\n");
}

TEST(AnyOption, PrintsTheAutomaticUsageAlsoWithoutReports) {
  for (const char* argument : {"-x", "--unknown", "--unknown=1", "word"}) {
    EXPECT_EQ(kUsage.of({argument}), "\nusage\n\n") << argument;
  }
}

TEST(AnyOption, PrintsTheAutomaticUsageOnDemandOnlyWhenItIsOn) {
  Parser parser;
  EXPECT_EQ(printed_by([&] { parser.printAutoUsage(); }), "");
  parser.autoUsagePrint(true);
  parser.autoUsagePrint(false);
  EXPECT_EQ(printed_by([&] { parser.printAutoUsage(); }), "");
  parser.autoUsagePrint(true);
  EXPECT_EQ(printed_by([&] { parser.printAutoUsage(); }), "\n\n");
}

TEST(AnyOption, PrintsTheUsageOnce) {
  Parser parser;
  parser.autoUsagePrint(true);
  for (const char* line : {"", " -h Prints this help", ""}) parser.addUsage(line);
  EXPECT_EQ(printed_by([&] { parser.printUsage(); }), "\n\n -h Prints this help\n\n\n");
  EXPECT_EQ(printed_by([&] { parser.printUsage(); }), "");
  EXPECT_EQ(printed_by([&] { parser.printAutoUsage(); }), "");
}

TEST(AnyOption, FlushesEveryLine) {
  ProgramParser parser;
  parser.addUsage("usage");
  parser.setVerbose();
  const FlushRecorder output;
  parser.printUsage();
  parser.parse({"-x", "one", "two"}, 1).read("unknown\n");
  parser.noPOSIX();
  parser.setFlag('x');
  EXPECT_EQ(output.text(),
            "\n<flush>usage\n<flush>\n<flush>"
            "Unknown command argument option : x\n<flush>"
            "Unknown command argument option : x\n<flush>"
            "Unknown command argument option : one\n<flush>"
            "Ignoring extra argument: two\n<flush>"
            "Unknown command argument option : two\n<flush>"
            "Unknown option in resourcefile : unknown\n<flush>"
            "Ignoring the option character \"x\" ( POSIX options are turned off )\n<flush>");
}

TEST(AnyOption, WithoutPosixParsesSinglePrefixesAsLongOptions) {
  ProgramParser parser;
  parser.setFlag("help");
  parser.setVerbose();
  parser.noPOSIX();
  EXPECT_EQ(printed_by([&] {
              parser.parse({"-port", "70", "-serverip=10.0.0.1", "--msgport=5", "-help", "-h", "-p1"});
            }),
            "Unknown command argument option : h\n"
            "Unknown command argument option : p1\n");
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(parser.value('s'), "'10.0.0.1'");
  EXPECT_EQ(parser.value('m'), "'5'");
  EXPECT_TRUE(parser.getFlag("help"));
  EXPECT_FALSE(parser.getFlag('h'));
  EXPECT_EQ(parser.value('p'), "(null)");
}

TEST(AnyOption, WithoutPosixGivesALastArgumentWithoutValueNone) {
  ProgramParser parser;
  parser.noPOSIX();
  EXPECT_EQ(parser.parse({"-port"}).value("port"), "(null)");
}

TEST(AnyOption, WithoutPosixRefusesLetters) {
  Parser parser;
  parser.setFlag('a');
  parser.noPOSIX();
  EXPECT_EQ(printed_by([&] { parser.setFlag('b'); }), "");
  parser.setVerbose();
  EXPECT_EQ(printed_by([&] {
              parser.setOption('c');
              parser.setOption("name", 'd');
              parser.setFlag("long");
            }),
            "Ignoring the option character \"c\" ( POSIX options are turned off )\n"
            "Ignoring the option character \"d\" ( POSIX options are turned off )\n");
  parser.read("a\nname:text\nlong\n");
  EXPECT_TRUE(parser.getFlag('a'));
  EXPECT_EQ(parser.value("name"), "'text'");
  EXPECT_TRUE(parser.getFlag("long"));
  EXPECT_EQ(printed_by([&] { parser.read("b\nc:text\nd:text\n"); }),
            "Unknown option in resourcefile : b\n"
            "Unknown option in resourcefile : c\n"
            "Unknown option in resourcefile : d\n");
}

TEST(AnyOption, TakesAnotherPrefixForLetters) {
  ProgramParser parser;
  parser.setCommandPrefixChar('/');
  parser.parse({"/n", "70", "-h", "--serverip=x", "/p71"});
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(parser.value('s'), "'x'");
  EXPECT_EQ(parser.value('p'), "'71'");
  EXPECT_FALSE(parser.getFlag('h'));
  EXPECT_EQ(parser.extra_arguments(), (Texts{"-h"}));
}

TEST(AnyOption, TakesALetterForThePrefixOfLetters) {
  Parser parser;
  parser.setFlag('n');
  parser.setCommandPrefixChar('x');
  EXPECT_EQ(parser.parse({"xn"}).value('n'), "'true'");
}

TEST(AnyOption, EmptyArgumentIsNoGroupOfLettersWhateverThePrefixIs) {
  Parser parser;
  parser.setFlag('n');
  parser.setCommandPrefixChar('\0');
  EXPECT_EQ(parser.parse({"", "n"}, 3).extra_arguments(), (Texts{"", "n"}));
}

TEST(AnyOption, OptionWithTheLetterNulTakesNothingBehindAGroupOfFlags) {
  Parser parser;
  parser.setFlag('n');
  parser.setOption('\0');
  EXPECT_EQ(parser.parse({"-n", "text"}).value('\0'), "(null)");
}

TEST(AnyOption, TakesAnotherPrefixForLongNamesAndCutsItToTwoCharacters) {
  ProgramParser parser;
  char prefix[] = "+:long";
  parser.setCommandLongPrefix(prefix);
  EXPECT_STREQ(prefix, "+:");
  parser.parse({"+:port", "70", "+:serverip=x", "+port", "-p71"});
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(parser.value('s'), "'x'");
  EXPECT_EQ(parser.value('p'), "'71'");
  EXPECT_EQ(parser.extra_arguments(), (Texts{"+port"}));
}

TEST(AnyOption, LeavesALongPrefixOfUpToTwoCharactersUncut) {
  for (const std::string text : {"+", "++"}) {
    ProgramParser parser;
    std::string prefix = text;
    parser.setCommandLongPrefix(prefix.data());
    EXPECT_EQ(prefix, text);
    EXPECT_EQ(parser.parse({text + "port=70"}).value('n'), "'70'");
  }
  char shorter[] = "+\0behind";
  ProgramParser().setCommandLongPrefix(shorter);
  EXPECT_STREQ(shorter + 2, "behind");
}

TEST(AnyOption, WithoutOptionsParsesNothingAndAnswersNothing) {
  Parser parser;
  parser.setVerbose();
  EXPECT_EQ(printed_by([&] { parser.parse({"-x", "word"}).read("unknown\n").processOptions(); }), "");
  EXPECT_TRUE(parser.hasOptions());
  EXPECT_EQ(parser.getArgc(), 0);
  EXPECT_EQ(parser.value('x'), "(null)");
  EXPECT_EQ(parser.value("name"), "(null)");
  EXPECT_FALSE(parser.getFlag('x'));
  EXPECT_FALSE(parser.getFlag("name"));
}

TEST(AnyOption, MakesNoValueStoreBeforeThereAreOptions) {
  Parser parser;
  parser.parse({"-n", "70"}).processOptions();
  EXPECT_EQ(parser.value('n'), "(null)");
  parser.setOption('n');
  EXPECT_EQ(parser.parse({"-n", "70"}).value('n'), "'70'");
}

TEST(AnyOption, HasNoValueForOptionsRegisteredAfterTheFirstParseOrQuery) {
  const auto first_parse = [](Parser& parser) { parser.parse({"-n70"}); };
  const auto first_file = [](Parser& parser) { parser.read("n:70\n"); };
  const auto first_query = [](Parser& parser) { parser.getValue('n'); };
  const auto store_alone = [](Parser& parser) { parser.processOptions(); };
  for (void (*make_store)(Parser&) : {+first_parse, +first_file, +first_query, +store_alone}) {
    Parser parser;
    parser.setOption("port", 'n');
    make_store(parser);
    parser.setOption("late", 'l');
    parser.setFlag("flag", 'f');
    parser.parse({"-n71", "-l1", "--late=2", "--flag", "-f"}).read("late:text\nl:text\nflag\nf\n");
    parser.parse({"--late", "3"}).parse({"-l", "4"});
    EXPECT_EQ(parser.value("late"), "(null)");
    EXPECT_EQ(parser.value('l'), "(null)");
    EXPECT_FALSE(parser.getFlag("flag"));
    EXPECT_FALSE(parser.getFlag('f'));
    EXPECT_EQ(parser.value("port"), "'71'");
  }
}

TEST(AnyOption, PrintsEveryUsageLineHoweverOftenItsArrayGrows) {
  Parser parser;
  std::string expected = "\n";
  for (int number = 1; number <= 25; ++number) {
    parser.addUsage(numbered_name(number));
    expected += "option" + std::to_string(number) + "\n";
  }
  EXPECT_EQ(printed_by([&] { parser.printUsage(); }), expected + "\n");
}

TEST(AnyOption, FindsEveryOptionHoweverSmallItsTablesWere) {
  const auto makers = {
      +[] { return std::make_unique<Parser>(); },       +[] { return std::make_unique<Parser>(1); },
      +[] { return std::make_unique<Parser>(0); },      +[] { return std::make_unique<Parser>(-3); },
      +[] { return std::make_unique<Parser>(-3, 10); }, +[] { return std::make_unique<Parser>(10, INT_MIN); },
  };
  for (const auto& make : makers) {
    const std::unique_ptr<Parser> parser = make();
    Texts arguments;
    for (int number = 1; number <= 50; ++number) {
      parser->setOption(numbered_name(number), numbered_letter(number));
      arguments.push_back(std::string("--") + numbered_name(number) + "=" + std::to_string(number));
    }
    parser->parse(arguments);
    for (int number = 1; number <= 50; ++number) {
      ASSERT_EQ(parser->value(numbered_letter(number)), "'" + std::to_string(number) + "'");
    }
  }
}

TEST(AnyOption, DoublesItsTablesWhenOneMoreIsAddedToAFullOne) {
  Parser names;
  EXPECT_EQ(allocating_calls(50, [&](int number) { names.setOption(numbered_name(number)); }),
            (std::vector<int>{11, 21, 41}));
  Parser letters;
  EXPECT_EQ(allocating_calls(50, [&](int number) { letters.setFlag(numbered_letter(number)); }),
            (std::vector<int>{11, 21, 41}));
  Parser usage;
  EXPECT_EQ(allocating_calls(30, [&](int) { usage.addUsage(""); }), (std::vector<int>{4, 7, 13, 25}));
}

TEST(AnyOption, StartsWithTablesOfTheGivenCapacities) {
  Parser both(5);
  EXPECT_EQ(allocating_calls(12, [&](int number) { both.setFileFlag(numbered_name(number)); }),
            (std::vector<int>{6, 11}));
  EXPECT_EQ(allocating_calls(12, [&](int number) { both.setFileFlag(numbered_letter(number)); }),
            (std::vector<int>{6, 11}));
  Parser each(4, 6);
  EXPECT_EQ(allocating_calls(8, [&](int number) { each.setFileFlag(numbered_name(number)); }),
            (std::vector<int>{5}));
  EXPECT_EQ(allocating_calls(8, [&](int number) { each.setFileFlag(numbered_letter(number)); }),
            (std::vector<int>{7}));
}

TEST(AnyOption, InitForgetsEverything) {
  Parser parser;
  char prefix[] = "++";
  parser.setVerbose();
  parser.autoUsagePrint(true);
  parser.setOption("port", 'n');
  parser.addUsage("usage");
  parser.setCommandPrefixChar('+');
  parser.setCommandLongPrefix(prefix);
  parser.parse({"+n", "70", "stray"}, 1).read("port:71\n");
  printed_by([&] { parser.printUsage(); });
  parser.noPOSIX();

  parser.init(2, 3);
  EXPECT_EQ(parser.value("port") + parser.value('n'), "(null)(null)");
  EXPECT_EQ(parser.extra_arguments(), Texts{});
  EXPECT_FALSE(parser.hasOptions() || parser.CommandSet() || parser.FileSet());
  EXPECT_TRUE(parser.POSIX());
  EXPECT_FALSE(parser.valueStoreOK());
  parser.setOption("port", 'n');
  EXPECT_EQ(printed_by([&] { parser.parse({"-n", "72", "--unknown", "first", "second"}); }), "");
  EXPECT_EQ(parser.value("port"), "'72'");
  EXPECT_EQ(parser.extra_arguments(), (Texts{"first", "second"}));
  EXPECT_EQ(printed_by([&] { parser.printUsage(); }), "\n\n");
}

TEST(AnyOption, InitWithoutRoomLeavesTablesThatGrow) {
  Parser parser;
  for (const int capacity : {0, -1, INT_MIN}) {
    parser.init(capacity, capacity);
    parser.setOption("port", 'n');
    parser.setOption("address", 'o');
    EXPECT_EQ(parser.parse({"-o", "text"}).value("address"), "'text'");
  }
}

TEST(AnyOption, AllocEmptiesTheTablesAndKeepsTheirCapacities) {
  Parser parser(5);
  for (int number = 1; number <= 6; ++number)
    parser.setOption(numbered_name(number), numbered_letter(number));
  parser.addUsage("usage");
  parser.alloc();
  EXPECT_EQ(parser.parse({"-A", "text"}).value(numbered_name(1)), "(null)");
  EXPECT_EQ(printed_by([&] { parser.printUsage(); }), "\n\n");
  EXPECT_EQ(allocating_calls(21, [&](int number) { parser.setFlag(numbered_name(number)); }),
            (std::vector<int>{11, 21}));
  EXPECT_EQ(allocating_calls(21, [&](int number) { parser.setFlag(numbered_letter(number)); }),
            (std::vector<int>{11, 21}));
}

TEST(AnyOption, StorageIsDoubledBeforeItIsFull) {
  Parser parser(5);
  parser.setOption("port", 'n');
  parser.addUsage("usage");
  parser.doubleOptStorage();
  parser.doubleCharStorage();
  parser.doubleUsageStorage();
  EXPECT_EQ(allocating_calls(12, [&](int number) { parser.setFlag(numbered_name(number)); }),
            (std::vector<int>{10}));
  EXPECT_EQ(allocating_calls(12, [&](int number) { parser.setFlag(numbered_letter(number)); }),
            (std::vector<int>{10}));
  EXPECT_EQ(allocating_calls(12, [&](int) { parser.addUsage("more"); }), (std::vector<int>{6, 12}));
  EXPECT_EQ(parser.parse({"-n", "70"}).value("port"), "'70'");
}

TEST(AnyOption, EndsTheProcessWhenItsStorageCannotBeDoubledAndNamesNothing) {
  const std::string begin = "\nOPTIONS ERROR : Failed allocating extra memory \nWhile adding the ";
  expect_every_failed_allocation_to_exit(begin + "option : \"\"\nExiting.\n", [](auto memory_fails) {
    AnyOption parser;
    memory_fails();
    parser.doubleOptStorage();
  });
  expect_every_failed_allocation_to_exit(begin + "option: \"0\"\nExiting.\n", [](auto memory_fails) {
    AnyOption parser;
    memory_fails();
    parser.doubleCharStorage();
  });
  expect_every_failed_allocation_to_exit(begin + "usage/help  : \"\"\nExiting.\n", [](auto memory_fails) {
    AnyOption parser;
    memory_fails();
    parser.doubleUsageStorage();
  });
}

TEST(AnyOption, ValueStoreIsMadeOnceAndOnlyForOptions) {
  Parser parser;
  EXPECT_FALSE(parser.valueStoreOK());
  parser.setOption("port", 'n');
  EXPECT_EQ(allocating_calls(3, [&](int) { EXPECT_TRUE(parser.valueStoreOK()); }), (std::vector<int>{1}));
  parser.setOption("address", 'o');
  EXPECT_EQ(parser.parse({"-n", "70", "-o", "text"}).value('n'), "'70'");
  EXPECT_EQ(parser.value('o'), "(null)");
}

TEST(AnyOption, EndsTheProcessWhenACommandLineOrAFileCannotBeParsed) {
  const std::string output = "\nOPTIONS ERROR : Failed allocating memory\nExiting.\n";
  const std::string name(40, 'n');
  expect_every_failed_allocation_to_exit(output, [&](auto memory_fails) {
    CommandLine line({"--" + name + "=value", "stray", "-x"});
    AnyOption parser;
    parser.setOption(name.c_str(), 'n');
    memory_fails();
    parser.processCommandArgs(line.argc(), line.argv());
  });
  const ScratchDirectory directory;
  write_whole_file(directory.file("resource"), name + " : " + name + "\nunknown-and-rather-long-name:1\n");
  expect_every_failed_allocation_to_exit(output, [&](auto memory_fails) {
    AnyOption parser;
    parser.setOption(name.c_str(), 'n');
    memory_fails();
    parser.processFile("resource");
  });
}

TEST(AnyOption, EndsTheProcessWhenItCannotBeMade) {
  const std::string output = "\nOPTIONS ERROR : Failed allocating memory\nExiting.\n";
  expect_every_failed_allocation_to_exit(output, [](auto memory_fails) {
    memory_fails();
    const AnyOption parser;
  });
  expect_every_failed_allocation_to_exit(output, [](auto memory_fails) {
    memory_fails();
    const AnyOption parser(3);
  });
  expect_every_failed_allocation_to_exit(output, [](auto memory_fails) {
    memory_fails();
    const AnyOption parser(3, 100);
  });
}

TEST(AnyOption, EndsTheProcessWhenTheNamesCannotGrow) {
  for (int capacity : {10, 20, 40}) {
    expect_every_failed_allocation_to_exit(
        "\nOPTIONS ERROR : Failed allocating extra memory \n"
        "While adding the option : \"one more\"\nExiting.\n",
        [capacity](auto memory_fails) {
          AnyOption parser;
          for (int number = 1; number <= capacity; ++number) parser.setOption(numbered_name(number));
          memory_fails();
          parser.setOption("one more", 'm');
        });
  }
}

TEST(AnyOption, EndsTheProcessWhenTheLettersCannotGrow) {
  for (int capacity : {10, 20, 40}) {
    expect_every_failed_allocation_to_exit(
        "\nOPTIONS ERROR : Failed allocating extra memory \n"
        "While adding the option: \"~\"\nExiting.\n",
        [capacity](auto memory_fails) {
          AnyOption parser;
          for (int number = 1; number <= capacity; ++number) parser.setFlag(numbered_letter(number));
          memory_fails();
          parser.setCommandFlag("tilde", '~');
        });
  }
}

TEST(AnyOption, EndsTheProcessWhenTheUsageCannotGrow) {
  for (int capacity : {3, 6, 12}) {
    expect_every_failed_allocation_to_exit(
        "\nOPTIONS ERROR : Failed allocating extra memory \n"
        "While adding the usage/help  : \" -h Prints this help\"\nExiting.\n",
        [capacity](auto memory_fails) {
          AnyOption parser;
          for (int number = 1; number <= capacity; ++number) parser.addUsage("");
          memory_fails();
          parser.addUsage(" -h Prints this help");
        });
  }
}

TEST(AnyOptionFile, EndsTheProcessWhenItDoesNotFit) {
  const ScratchDirectory directory;
  std::ofstream("options") << "port:" + std::string(3000, '7') + "\n";
  expect_every_failed_allocation_to_exit("\nOPTIONS ERROR : Failed allocating memory\nExiting.\n",
                                         [](auto memory_fails) {
                                           ProgramParser parser;
                                           memory_fails();
                                           parser.processFile("options");
                                           if (parser.getValue('n') == nullptr) _exit(1);
                                         });
}

TEST(AnyOptionFile, TrimsBlanksAroundNameAndValue) {
  ProgramParser parser;
  parser.read("  port  :   70   \nserverip:a b c \n s :1 2\nm:5000\n");
  EXPECT_EQ(parser.value("port"), "'70'");
  EXPECT_EQ(parser.value("serverip"), "'1 2'");
  EXPECT_EQ(parser.value("msgport"), "'5000'");
}

TEST(AnyOptionFile, EndsTheNameAtTheFirstColon) {
  EXPECT_EQ(ProgramParser().read("serverip:10.0.0.1:80\n").value('s'), "'10.0.0.1:80'");
}

TEST(AnyOptionFile, LooksForNamesOfOneCharacterAmongTheLettersOnly) {
  Parser parser;
  parser.setOption("x");
  parser.setFlag("y");
  parser.setVerbose();
  EXPECT_EQ(printed_by([&] { parser.read("x:text\ny\n"); }),
            "Unknown option in resourcefile : x\n"
            "Unknown option in resourcefile : y\n");
  EXPECT_EQ(parser.value("x"), "(null)");
  EXPECT_FALSE(parser.getFlag("y"));
}

TEST(AnyOptionFile, DoesNotUseALastLineWithoutItsNewline) {
  ProgramParser parser;
  parser.read("port:70\nserverip:10.0.0.1");
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(parser.value('s'), "(null)");
}

TEST(AnyOptionFile, IgnoresLinesWhoseFirstCharacterIsTheCommentSign) {
  EXPECT_EQ(kVerbose.of_file("#\n#unknown\n# unknown:text\n"), "");
  EXPECT_EQ(kVerbose.of_file(" # comment\n"), "Unknown option in resourcefile : # comment\n");
  EXPECT_EQ(ProgramParser().read("port:70 # text\n").value('n'), "'70 # text'");
}

TEST(AnyOptionFile, ReportsUnknownNamesWithoutTheUsage) {
  EXPECT_EQ(kVerboseUsage.of_file("unknown:text\n some flag \nport\nflag:text\nflag\nport:70\n"),
            "Unknown option in resourcefile : unknown\n"
            "Unknown option in resourcefile : some flag\n"
            "Unknown option in resourcefile : port\n"
            "Unknown option in resourcefile : flag\n");
}

TEST(AnyOptionFile, TakesALineWithAColonAtItsBeginningOrEndOnlyForAFlagName) {
  EXPECT_EQ(kVerbose.of_file("port:\n:flag\n"),
            "Unknown option in resourcefile : port:\n"
            "Unknown option in resourcefile : :flag\n");
}

TEST(AnyOptionFile, TakesALaterValueOverAnEarlierOne) {
  ProgramParser parser;
  EXPECT_EQ(parser.read("port:70\nport:71\n").value('n'), "'71'");
  EXPECT_EQ(parser.parse({"-n72"}).value('n'), "'72'");
  EXPECT_EQ(parser.read("port:73\n").value('n'), "'73'");
}

TEST(AnyOptionFile, ReadsOnAfterVeryShortLines) {
  EXPECT_EQ(ProgramParser().read("\n:\n::\n:::\na:\n:a\na:b\n \n : \n#\nport:70\n").value('n'), "'70'");
}

TEST(AnyOptionFile, ReadsLongFilesWhole) {
  const std::string value(100000, 'v');
  ProgramParser parser;
  parser.read(std::string(100000, '#') + "\nport:" + value + "\nserverip:x.y\n");
  EXPECT_EQ(parser.value('n'), "'" + value + "'");
  EXPECT_EQ(parser.value('s'), "'x.y'");
}

TEST(AnyOptionFile, KeepsItsSignsWhateverIsSet) {
  ProgramParser parser;
  parser.setVerbose();
  parser.setFileCommentChar(';');
  parser.setFileDelimiterChar('=');
  EXPECT_EQ(printed_by([&] { parser.read("#port:69\nport:70\n;comment\nserverip=x\n"); }),
            "Unknown option in resourcefile : ;comment\n"
            "Unknown option in resourcefile : serverip=x\n");
  EXPECT_EQ(parser.value('n'), "'70'");
  EXPECT_EQ(parser.value('s'), "(null)");
  EXPECT_EQ(parser.parse({"-p1", "--ipaddr=x"}).value('p'), "'1'");
  EXPECT_EQ(parser.value('o'), "'x'");
}

TEST(AnyOptionFile, IsReadUnderTheNameThatWasToldToUse) {
  const ScratchDirectory directory;
  write_whole_file(directory.file("resource"), "port:70\n");
  ProgramParser parser;
  parser.processFile();
  EXPECT_EQ(parser.value('n'), "(null)");
  parser.useFiileName("resource");
  EXPECT_EQ(parser.value('n'), "(null)");
  parser.processFile();
  EXPECT_EQ(parser.value('n'), "'70'");
}

TEST(AnyOptionFile, ThatIsMissingOrEmptyChangesNothing) {
  const ScratchDirectory directory;
  ProgramParser parser;
  parser.setVerbose();
  EXPECT_EQ(printed_by([&] {
              parser.parse({"-n70"}).processFile("missing");
              parser.processFile(directory.path().c_str());
              parser.read("");
            }),
            "");
  EXPECT_TRUE(parser.FileSet());
  EXPECT_EQ(parser.value('n'), "'70'");
}
