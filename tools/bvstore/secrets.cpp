#include "secrets.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "bvstore.h"
#include "kernel32/kernel32.h"
#include "terminal/terminal.h"

namespace bvstore {
namespace {

// Reads one line from `fd` byte by byte, so that the next secret from the
// same descriptor (old and new PIN both from stdin) finds its own line.
void read_line_from(int fd, const std::string& what, Secret& secret) {
  char c;
  for (;;) {
    const ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw file_failure("read", what);
    if (n == 0 || c == '\n') break;
    if (!secret.append(c)) throw Failure{what + ": the secret is too long", bv::cli::kUsageOrFile};
  }
  if (!secret.empty() && secret.text().back() == '\r') secret.drop_last();  // a file written on Windows
}

void take_text(const char* text, const std::string& what, Secret& secret) {
  for (; *text != '\0'; ++text)
    if (!secret.append(*text)) throw Failure{what + ": the secret is too long", bv::cli::kUsageOrFile};
}

void read_from_source(const SecretOption& option, Secret& secret) {
  const std::string& source = *option.source;
  const std::string what = std::string(option.option) + " " + source.substr(0, source.find(':'));
  auto after = [&](const char* prefix) -> std::optional<std::string> {
    const std::string p = prefix;
    if (source.compare(0, p.size(), p) != 0) return std::nullopt;
    return source.substr(p.size());
  };
  if (const auto text = after("pass:")) {
    take_text(text->c_str(), what, secret);
  } else if (const auto variable = after("env:")) {
    const char* value = std::getenv(variable->c_str());
    if (value == nullptr) throw Failure{std::string(option.option) + ": no variable " + *variable, bv::cli::kUsageOrFile};
    take_text(value, what, secret);
  } else if (const auto path = after("file:")) {
    const int fd = ::open(path->c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw file_failure("read", *path);
    const std::unique_ptr<const int, void (*)(const int*)> closer(&fd, [](const int* open_fd) { ::close(*open_fd); });
    read_line_from(fd, *path, secret);
  } else if (const auto number = after("fd:")) {
    char* end = nullptr;
    const long fd = std::strtol(number->c_str(), &end, 10);
    if (number->empty() || *end != '\0' || fd < 0 || fd > 65535)
      throw Failure{std::string(option.option) + ": fd:N takes a descriptor number", bv::cli::kUsageOrFile};
    read_line_from(static_cast<int>(fd), "descriptor " + *number, secret);
  } else if (source == "stdin") {
    read_line_from(STDIN_FILENO, "standard input", secret);
  } else {
    take_text(source.c_str(), what, secret);  // the plain value, as it always was taken
  }
}

bool ask(const std::string& prompt, bool echo_off, Secret& secret) {
  auto terminal = bv::platform::Terminal::open();
  if (!terminal) return false;
  std::string line;  // read_line reserves it once, so no copy is left behind
  const bool answered = terminal->read_line(prompt, echo_off, line);
  bool fits = true;
  for (char c : line) fits = fits && secret.append(c);
  SecureZeroMemory(line.data(), line.capacity());
  if (!answered) throw Failure{"cancelled"};
  if (!fits) throw Failure{"the secret is too long", bv::cli::kUsageOrFile};
  return true;
}

}  // namespace

Secret::Secret() { text_.reserve(kMaxLength + 1); }
Secret::~Secret() { wipe(); }

bool Secret::append(char c) {
  if (text_.size() >= kMaxLength) return false;
  text_.push_back(c);
  return true;
}

void Secret::drop_last() {
  text_.back() = '\0';
  text_.pop_back();
}

void Secret::wipe() {
  SecureZeroMemory(text_.data(), text_.capacity());
  text_.clear();
}

bool can_prompt() { return isatty(STDIN_FILENO) == 1; }

bool obtain_secret(const SecretOption& option, const std::string& prompt, bool confirm, Secret& secret) {
  secret.wipe();
  if (option.source) {
    read_from_source(option, secret);
    return true;
  }
  if (!can_prompt() || !ask(prompt + ": ", true, secret)) return false;
  if (confirm) {
    Secret again;
    if (!ask("Again, to confirm: ", true, again)) return false;
    if (again.text() != secret.text()) throw Failure{"the two entries differ"};
  }
  return true;
}

bool confirmed(const std::string& question) {
  if (!can_prompt()) return false;
  Secret answer;  // not secret, but read the same way
  if (!ask(question + " [y/N] ", false, answer)) return false;
  return answer.text() == "y" || answer.text() == "Y" || answer.text() == "yes";
}

}  // namespace bvstore
