#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "anyoption/anyoption.h"
#include "fuzz/script.h"

// The command line, as arguments that are each ended by a NUL. The first byte chooses how the parser is set
// up.

namespace {

enum Setting : unsigned {
  kVerbose = 1,
  kUsage = 2,
  kNoPosix = 4,
  kPlus = 8,
  kFewArguments = 16,
  kTwice = 32
};

std::vector<std::string> arguments_of(const char* text, std::size_t size) {
  std::vector<std::string> arguments = {"TFTP"};
  while (size > 0) {
    const std::size_t length = strnlen(text, size);
    arguments.emplace_back(text, length);
    const std::size_t used = std::min(length + 1, size);
    text += used;
    size -= used;
  }
  return arguments;
}

void register_options(AnyOption& options) {
  options.setFlag('h');
  options.setFlag("verbose", 'v');
  options.setCommandFlag("quick");
  options.setFileFlag("slow", 'w');
  options.setOption("port", 'n');
  options.setOption("serverip", 's');
  options.setCommandOption("ipaddr", 'o');
  options.setFileOption("msgport", 'm');
  options.setOption('0');
  options.addUsage("usage");
}

bool is_flag_value(const char* value) {
  return value == nullptr || std::strcmp(value, "true") == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const unsigned setting = bytes[0];
  std::vector<std::string> arguments = arguments_of(reinterpret_cast<const char*>(bytes) + 1, size - 1);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const int argc = static_cast<int>(arguments.size());

  AnyOption options(1);
  char plus[] = "+++";
  if ((setting & kVerbose) != 0) options.setVerbose();
  if ((setting & kUsage) != 0) options.autoUsagePrint(true);
  if ((setting & kNoPosix) != 0) options.noPOSIX();
  if ((setting & kPlus) != 0) options.setCommandLongPrefix(plus);
  register_options(options);
  options.processCommandArgs(argc, argv.data(), (setting & kFewArguments) != 0 ? 1 : 0);
  if ((setting & kTwice) != 0) options.processCommandArgs();

  require(is_flag_value(options.getValue('h')) && is_flag_value(options.getValue("quick")),
          "a flag is set or not");
  require(options.getValue("msgport") == nullptr, "an option of the file is not taken from the command line");
  require(options.getValue("verbose") == options.getValue('v') || (setting & kNoPosix) != 0,
          "name and letter stand for the same");
  require(options.getArgc() < argc, "the name of the program is no argument");
  for (int i = 0; i < options.getArgc(); ++i) require(options.getArgv(i) != nullptr, "what is kept is there");
  require(options.getArgv(options.getArgc()) == nullptr, "there are no more arguments than are kept");
  return 0;
}
