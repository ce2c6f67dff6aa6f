// Asking the user without a window system: the controlling terminal when the
// process has one in the foreground, else a helper program the administrator
// names in the environment, else the answer is "cancelled".
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "wintypes.h"

namespace bv::platform {

// The process's controlling terminal (/dev/tty), opened only while the
// process is in its foreground group, so that a background job never stops
// on SIGTTIN.  One terminal conversation runs at a time in the process: the
// object holds the process's terminal lock while it lives.
class Terminal {
 public:
  // Null when there is no usable terminal.
  static std::optional<Terminal> open();
  ~Terminal();
  Terminal(Terminal&& other) noexcept;
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  Terminal& operator=(Terminal&&) = delete;

  void write(const std::string& text);
  // Writes `prompt` and reads one line with its own small editor (erase,
  // kill, Enter).  Echo is off when `secret`.  False when the user cancels
  // (Ctrl-C, Escape, end of file) or the terminal goes away.
  bool read_line(const std::string& prompt, bool secret, std::string& line);

 private:
  Terminal(int fd, std::unique_lock<std::mutex> lock) : lock_(std::move(lock)), fd_(fd) {}
  std::unique_lock<std::mutex> lock_;
  int fd_ = -1;
};

// Runs `program` (looked up on PATH) with the one argument `argument`,
// writes `input` to its standard input and collects its standard output.
// True when it ran and exited with status 0; otherwise the last error says
// why (ERROR_FILE_NOT_FOUND when it can't be started, ERROR_CANCELLED when
// it refused).  A program that closes its input early is no problem.
bool run_helper_program(const std::string& program, const std::string& argument, const std::string& input,
                        std::string& output);

// Asks for a PIN: on the terminal with echo off, else through the program
// named by BV_PLATFORM_ASKPASS (the prompt as its argument, the PIN as the
// first line of its output).  False with SCARD_W_CANCELLED_BY_USER when the
// user cancels or nobody can be asked; ERROR_FILE_NOT_FOUND when the helper
// program can't be started.  An empty answer is a PIN of length 0.
bool ask_pin(const std::string& prompt, std::string& pin);

}  // namespace bv::platform
