#ifndef ZIRN_RUN_TMUX_TERMINAL_H
#define ZIRN_RUN_TMUX_TERMINAL_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "stage/process.h"
#include "stage/wait_until.h"
#include "support/program.h"
#include "support/scratch_directory.h"

// A terminal with a shell in it, played by a tmux of its own in the working directory.
class TmuxTerminal {
 public:
  static bool is_possible() { return std::system("command -v tmux > /dev/null") == 0; }

  TmuxTerminal(int columns, int lines) {
    calls({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(lines),
           "env -u TMUX PS1='$ ' sh"});
    shows("$");
  }
  ~TmuxTerminal() { calls({"kill-server"}); }
  TmuxTerminal(const TmuxTerminal&) = delete;
  TmuxTerminal& operator=(const TmuxTerminal&) = delete;

  // As tmux names keys: "Up", "PPage", "C-c".
  void presses(const std::vector<std::string>& keys) {
    for (const std::string& key : keys) calls({"send-keys", key});
  }
  void types(const std::string& text) { calls({"send-keys", "-l", text}); }
  void runs(const std::string& command) {
    types(command);
    presses({"Enter"});
  }
  void turns_the_wheel(bool up) { types(std::string("\x1b[M") + (up ? '`' : 'a') + "!!"); }
  void is_resized(int columns, int lines) {
    calls({"resize-window", "-x", std::to_string(columns), "-y", std::to_string(lines)});
  }
  // Lines without the blanks at their ends; with colours: and their escape sequences.
  std::string screen(bool with_colours = false) const {
    std::vector<std::string> arguments = {"capture-pane", "-p"};
    if (with_colours) arguments.emplace_back("-e");
    return calls(arguments);
  }
  // Waits for the text. False: it does not come.
  bool shows(const std::string& text) const {
    return wait_until([&] { return screen().find(text) != std::string::npos; });
  }
  bool no_longer_shows(const std::string& text) const {
    return wait_until([&] { return screen().find(text) == std::string::npos; });
  }

 private:
  static std::string calls(const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {"env", "LC_ALL=C.UTF-8", "HOME=.", "tmux",
                                      "-S",  "terminal",       "-f",     "/dev/null"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    Process tmux(words, [] { append_errors_to("tmux-errors"); });
    tmux.close_input();
    tmux.wait_for_end();
    return tmux.read_text();
  }
};

#endif
