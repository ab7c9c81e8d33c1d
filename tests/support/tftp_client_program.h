#ifndef SUPPORT_TFTP_CLIENT_PROGRAM_H
#define SUPPORT_TFTP_CLIENT_PROGRAM_H

#include <ostream>
#include <string>

#include "support/program.h"

// A TFTP client of the distribution and one way to call it. Among its words, SERVER, NAME, LOCAL and URL
// stand for the server's address, the file's name there, the name to store it by, and tftp://SERVER/NAME.
struct TftpClientProgram {
  const char* title;    // part of a test's name
  const char* package;  // Debian's
  Program::Words words;

  Program::Words reads(const std::string& server, const std::string& name, const std::string& local) const {
    Program::Words result;
    for (const std::string& word : words) {
      if (word == "URL") {
        result.push_back("tftp://" + server + "/" + name);
      } else {
        result.push_back(word == "SERVER" ? server : word == "NAME" ? name : word == "LOCAL" ? local : word);
      }
    }
    return result;
  }
};

inline void PrintTo(const TftpClientProgram& client, std::ostream* stream) {
  for (const std::string& word : client.words) *stream << word << " ";
}

// With these options between its name and what it is to read.
inline TftpClientProgram curl(const char* title, const Program::Words& options = {}) {
  Program::Words words = {"curl", "--silent", "--show-error"};
  words.insert(words.end(), options.begin(), options.end());
  words.insert(words.end(), {"URL", "-o", "LOCAL"});
  return {title, "curl", words};
}

inline TftpClientProgram tftp_hpa(const char* title, const Program::Words& options = {}) {
  Program::Words words = {"tftp"};
  words.insert(words.end(), options.begin(), options.end());
  words.insert(words.end(), {"SERVER", "-c", "get", "NAME", "LOCAL"});
  return {title, "tftp-hpa", words};
}

inline TftpClientProgram atftp(const char* title, const Program::Words& options = {}) {
  Program::Words words = {"atftp"};
  for (const std::string& option : options) words.insert(words.end(), {"--option", option});
  words.insert(words.end(), {"-g", "-r", "NAME", "-l", "LOCAL", "SERVER"});
  return {title, "atftp", words};
}

inline TftpClientProgram busybox_tftp(const char* title, const Program::Words& options = {}) {
  Program::Words words = {"busybox", "tftp"};
  words.insert(words.end(), options.begin(), options.end());
  words.insert(words.end(), {"-g", "-r", "NAME", "-l", "LOCAL", "SERVER"});
  return {title, "busybox", words};
}

#define NEEDS_CLIENT(client) NEEDS_PROGRAM((client).words.front(), (client).package)

#endif
