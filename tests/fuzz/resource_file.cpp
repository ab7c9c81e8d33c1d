#include <cstdint>
#include <cstring>

#include "anyoption/anyoption.h"
#include "fuzz/confined_files.h"
#include "fuzz/script.h"

// A resource file with any contents.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  ConfinedFiles::write("resources", bytes, size);
  // A NUL ends a value, with the blanks before it.
  const bool has_nul = size > 0 && std::memchr(bytes, '\0', size) != nullptr;
  const ConfinedFiles files;
  AnyOption options;
  options.setVerbose();
  options.setFlag("verbose", 'v');
  options.setCommandOption("ipaddr", 'o');
  options.setOption("port", 'n');
  options.setFileOption("msgport");
  options.setFileFlag('w');
  options.processFile("resources");

  const char* const flag = options.getValue('v');
  require(flag == nullptr || std::strcmp(flag, "true") == 0, "a flag is set or not");
  require(options.getValue("ipaddr") == nullptr, "an option of the command line is not taken from the file");
  for (const char* const value : {options.getValue("port"), options.getValue("msgport")}) {
    if (value == nullptr) continue;
    const std::size_t length = std::strlen(value);
    require(length < size, "a value is no longer than the file");
    require(value[0] != ' ', "a value has no blanks before it");
    require(has_nul || length == 0 || value[length - 1] != ' ', "a value has no blanks behind it");
  }
  return 0;
}
