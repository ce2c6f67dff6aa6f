// Passwords and PINs as an administrator gives them, the way openssl takes
// pass-phrases: pass:TEXT, env:VAR, file:PATH, fd:N, stdin, or asked on the
// terminal with echo off when none is given.  A secret is never printed and
// is wiped when it goes.
#pragma once

#include <optional>
#include <string>

namespace bvstore {

// A secret's text in storage that never moves (it is reserved once and never
// grows past it), overwritten when the object goes.
class Secret {
 public:
  static constexpr size_t kMaxLength = 1023;
  Secret();
  ~Secret();
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  const std::string& text() const { return text_; }
  bool empty() const { return text_.empty(); }
  // Appends one character; false past kMaxLength.
  bool append(char c);
  void drop_last();
  void wipe();

 private:
  std::string text_;
};

// Where an option's secret comes from: its source as given, if any.
struct SecretOption {
  const char* option;  // "--pin", for the messages
  std::optional<std::string> source;
};

// Whether standard input is a terminal to ask at.
bool can_prompt();

// Fills `secret` from the option's source or, without one, by asking on the
// terminal (twice when `confirm`, for a new secret).  False when there is no
// source and no terminal.  A source that cannot be read throws Failure with
// code 2.  A source without a known prefix is the text itself, as before.
bool obtain_secret(const SecretOption& option, const std::string& prompt, bool confirm, Secret& secret);

// Asks a yes-or-no question on the terminal; no when there is none.
bool confirmed(const std::string& question);

}  // namespace bvstore
