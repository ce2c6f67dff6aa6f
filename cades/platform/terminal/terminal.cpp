#include "terminal/terminal.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kernel32/kernel32.h"
#include "wincrypt_types.h"

extern char** environ;

namespace bv::platform {
namespace {

constexpr size_t kMaxLine = 1024;
constexpr size_t kMaxHelperOutput = 64 * 1024;

// Two threads prompting on one terminal would interleave their questions.
std::mutex g_terminal_mutex;

// A file descriptor closed at scope exit.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// The terminal's settings, put back whatever way the read ends.
class RawMode {
 public:
  RawMode(int fd) : fd_(fd) {
    if (tcgetattr(fd_, &saved_) != 0) return;
    termios raw = saved_;
    // Our own editor reads byte by byte; Ctrl-C arrives as a byte instead of
    // a signal so that the settings are always restored.
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
    raw.c_iflag &= ~static_cast<tcflag_t>(IXON);
    raw.c_iflag |= ICRNL;
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    active_ = tcsetattr(fd_, TCSAFLUSH, &raw) == 0;
  }
  ~RawMode() {
    if (active_) tcsetattr(fd_, TCSAFLUSH, &saved_);
  }
  RawMode(const RawMode&) = delete;
  RawMode& operator=(const RawMode&) = delete;
  bool active() const { return active_; }
  cc_t control(int index) const { return saved_.c_cc[index]; }

 private:
  int fd_;
  termios saved_{};
  bool active_ = false;
};

void write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

void wipe(std::string& text) {
  if (!text.empty()) OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

}  // namespace

std::optional<Terminal> Terminal::open() {
  std::unique_lock lock(g_terminal_mutex);
  const int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  // A process outside the terminal's foreground group would be stopped by
  // the first read; for it there is no terminal to ask.
  if (tcgetpgrp(fd) != getpgrp()) {
    ::close(fd);
    return std::nullopt;
  }
  return Terminal(fd, std::move(lock));
}

Terminal::~Terminal() {
  if (fd_ >= 0) ::close(fd_);
}

Terminal::Terminal(Terminal&& other) noexcept : lock_(std::move(other.lock_)), fd_(other.fd_) { other.fd_ = -1; }

void Terminal::write(const std::string& text) { write_all(fd_, text.data(), text.size()); }

bool Terminal::read_line(const std::string& prompt, bool secret, std::string& line) {
  line.clear();
  line.reserve(kMaxLine);  // no reallocation leaves a copy of a PIN behind
  RawMode mode(fd_);
  if (!mode.active()) return false;
  write(prompt);
  const cc_t erase = mode.control(VERASE);
  const cc_t kill = mode.control(VKILL);
  const cc_t interrupt = mode.control(VINTR);
  const cc_t end_of_file = mode.control(VEOF);
  for (;;) {
    unsigned char c = 0;
    const ssize_t n = ::read(fd_, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      write("\n");
      return false;
    }
    if (c == '\n' || c == '\r') {
      write("\n");
      return true;
    }
    if (c == interrupt || c == 0x1B || (c == end_of_file && line.empty())) {
      write("\n");
      wipe(line);
      return false;
    }
    if (c == erase || c == 0x7F || c == '\b') {
      if (!line.empty()) {
        line.back() = 0;
        line.pop_back();
        if (!secret) write("\b \b");
      }
      continue;
    }
    if (c == kill) {
      if (!secret)
        for (size_t i = 0; i < line.size(); ++i) write("\b \b");
      OPENSSL_cleanse(line.data(), line.size());
      line.clear();
      continue;
    }
    if (c < 0x20 || line.size() + 1 >= kMaxLine) continue;
    line.push_back(static_cast<char>(c));
    if (!secret) write_all(fd_, reinterpret_cast<const char*>(&c), 1);
  }
}

bool run_helper_program(const std::string& program, const std::string& argument, const std::string& input,
                        std::string& output) {
  output.clear();
  output.reserve(4096);
  // The input goes through a socket so that a program that exits without
  // reading gives EPIPE on send with MSG_NOSIGNAL, never SIGPIPE in the host.
  int input_pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input_pair) != 0) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  Fd input_ours(input_pair[0]), input_theirs(input_pair[1]);
  int output_pipe[2];
  if (pipe2(output_pipe, O_CLOEXEC) != 0) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  Fd output_ours(output_pipe[0]), output_theirs(output_pipe[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input_theirs.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output_theirs.get(), STDOUT_FILENO);
  std::string program_copy = program, argument_copy = argument;
  char* argv[] = {program_copy.data(), argument_copy.data(), nullptr};
  pid_t pid = -1;
  const int spawn_error = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawn_error != 0) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return false;
  }
  input_theirs.reset();
  output_theirs.reset();

  size_t written = 0;
  if (input.empty()) shutdown(input_ours.get(), SHUT_WR);
  bool output_open = true;
  bool input_open = !input.empty();
  while (output_open) {
    pollfd fds[2] = {{output_ours.get(), POLLIN, 0}, {input_ours.get(), POLLOUT, 0}};
    const int ready = poll(fds, input_open ? 2 : 1, -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (input_open && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
      const ssize_t n = send(input_ours.get(), input.data() + written, input.size() - written, MSG_NOSIGNAL);
      if (n > 0) written += static_cast<size_t>(n);
      if (n < 0 && errno != EINTR && errno != EAGAIN) written = input.size();
      if (written == input.size()) {
        shutdown(input_ours.get(), SHUT_WR);
        input_open = false;
      }
    }
    if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      char chunk[1024];
      const ssize_t n = ::read(output_ours.get(), chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        output_open = false;
      } else if (output.size() + static_cast<size_t>(n) <= kMaxHelperOutput) {
        output.append(chunk, static_cast<size_t>(n));
      }
      OPENSSL_cleanse(chunk, sizeof chunk);
    }
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    wipe(output);
    SetLastError(ERROR_CANCELLED);
    return false;
  }
  return true;
}

bool ask_pin(const std::string& prompt, std::string& pin) {
  wipe(pin);
  if (auto terminal = Terminal::open()) {
    if (terminal->read_line(prompt, /*secret=*/true, pin)) return true;
    SetLastError(SCARD_W_CANCELLED_BY_USER);
    return false;
  }
  const char* askpass = std::getenv("BV_PLATFORM_ASKPASS");
  if (askpass == nullptr || *askpass == '\0') {
    SetLastError(SCARD_W_CANCELLED_BY_USER);
    return false;
  }
  std::string output;
  if (!run_helper_program(askpass, prompt, "", output)) {
    if (GetLastError() == ERROR_CANCELLED) SetLastError(SCARD_W_CANCELLED_BY_USER);
    return false;
  }
  // The PIN is the first line; the line end is not part of it.
  size_t end = output.find('\n');
  if (end == std::string::npos) end = output.size();
  if (end > 0 && output[end - 1] == '\r') --end;
  pin.reserve(end);
  pin.assign(output, 0, end);
  wipe(output);
  return true;
}

}  // namespace bv::platform
