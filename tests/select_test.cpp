// The PIN prompt and the certificate chooser, driven as a user drives them:
// through a pseudo-terminal that is the child's controlling terminal, and
// through the helper programs named in the environment.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "cryptui/terminal.h"
#include "host.h"
#include "kernel32/kernel32.h"
#include "wincrypt_types.h"

namespace {

using bv::test::TempDir;

// One exchange on the terminal: wait until the output holds `expect`, then
// type `send`.
struct Exchange {
  std::string expect;
  std::string send;
};

struct PtyRun {
  int exit_code = -1;
  std::string screen;  // everything the child wrote to its terminal
};

// Runs `fn` in a child whose controlling terminal is a new pseudo-terminal,
// plays `script` on it and returns what appeared on the screen.
PtyRun run_on_pty(const std::vector<Exchange>& script, const std::function<void()>& fn,
                  const std::map<std::string, std::string>& env = {}) {
  PtyRun run;
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
    ADD_FAILURE() << "no pseudo-terminal";
    return run;
  }
  const std::string slave_name = ptsname(master);
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    close(master);
    setsid();
    const int slave = open(slave_name.c_str(), O_RDWR);  // becomes the controlling terminal
    if (slave < 0) _exit(3);
    for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
    fn();
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  auto read_until = [&](const std::string& expect) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (run.screen.find(expect) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
      pollfd p{master, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char chunk[4096];
      const ssize_t n = read(master, chunk, sizeof chunk);
      if (n <= 0) break;
      run.screen.append(chunk, static_cast<size_t>(n));
    }
    return run.screen.find(expect) != std::string::npos;
  };
  for (const Exchange& step : script) {
    if (!read_until(step.expect)) {
      ADD_FAILURE() << "never saw \"" << step.expect << "\" on the screen:\n" << run.screen;
      kill(pid, SIGKILL);
      break;
    }
    if (write(master, step.send.data(), step.send.size()) < 0) ADD_FAILURE() << "write to terminal";
  }
  int status = 0;
  waitpid(pid, &status, 0);
  read_until("\x01never");  // drain what is left
  close(master);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

std::string write_script(const TempDir& dir, const std::string& name, const std::string& body) {
  const std::string path = dir / name;
  bv::test::write_file(path, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
  return path;
}

// ---------------------------------------------------------------- PIN prompt

TEST(AskPin, OnTheTerminalWithEchoOffAndLineEditing) {
  struct Case {
    const char* typed;
    bool answered;
    const char* pin;
  };
  const Case cases[] = {
      {"12345678\r", true, "12345678"},
      {"12x\x7f" "34\r", true, "1234"},     // erase
      {"bad\x15good\r", true, "good"},      // kill the line
      {"\r", true, ""},                     // an empty PIN is an answer
      {"12\x03", false, ""},                // Ctrl-C
      {"\x1b", false, ""},                  // Escape
      {"\x04", false, ""},                  // end of file on an empty line
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.typed);
    const PtyRun run = run_on_pty({{"PIN for test key:", c.typed}}, [&] {
      std::string pin = "old";
      const bool answered = bv::platform::ask_pin("PIN for test key: ", pin);
      EXPECT_EQ(answered, c.answered);
      if (answered) {
        EXPECT_EQ(pin, c.pin);
      } else {
        EXPECT_EQ(GetLastError(), SCARD_W_CANCELLED_BY_USER);
      }
    });
    EXPECT_EQ(run.exit_code, 0) << run.screen;
    // Nothing typed may show on the screen.
    EXPECT_EQ(run.screen.find("1234"), std::string::npos) << run.screen;
    EXPECT_EQ(run.screen.find("good"), std::string::npos) << run.screen;
  }
}

TEST(AskPin, TerminalComesBeforeTheHelperProgram) {
  TempDir dir;
  const std::string helper = write_script(dir, "askpass", "echo from-helper\n");
  const PtyRun run = run_on_pty({{"PIN:", "typed\r"}}, [] {
    std::string pin;
    ASSERT_TRUE(bv::platform::ask_pin("PIN: ", pin));
    EXPECT_EQ(pin, "typed");
  }, {{"BV_PLATFORM_ASKPASS", helper}});
  EXPECT_EQ(run.exit_code, 0) << run.screen;
}

TEST(AskPin, WithoutTerminalThroughTheHelperProgram) {
  TempDir dir;
  const std::string prompt_file = dir / "prompt";
  struct Case {
    std::string name;
    std::string body;  // of the helper script; empty: BV_PLATFORM_ASKPASS unset
    bool answered;
    std::string pin;
    DWORD error;
  };
  const std::vector<Case> cases = {
      {"first line only", "printf 'secret\\nmore\\n'\n", true, "secret", 0},
      {"CRLF line end", "printf 'secret\\r\\n'\n", true, "secret", 0},
      {"no line end", "printf 'secret'\n", true, "secret", 0},
      {"blanks are kept", "printf ' a b \\n'\n", true, " a b ", 0},
      {"refused", "echo ignored; exit 1\n", false, "", SCARD_W_CANCELLED_BY_USER},
      {"killed", "kill -9 $$\n", false, "", SCARD_W_CANCELLED_BY_USER},
      {"no helper", "", false, "", SCARD_W_CANCELLED_BY_USER},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string helper =
        c.body.empty() ? "" : write_script(dir, "askpass", "printf '%s' \"$1\" > '" + prompt_file + "'\n" + c.body);
    const auto child = bv::test::run_isolated({{"BV_PLATFORM_ASKPASS", helper}}, [&] {
      setsid();  // no controlling terminal
      std::string pin;
      const bool answered = bv::platform::ask_pin("PIN for \"key\": ", pin);
      EXPECT_EQ(answered, c.answered);
      if (answered) {
        EXPECT_EQ(pin, c.pin);
      } else {
        EXPECT_EQ(GetLastError(), c.error);
      }
    });
    EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
    if (!c.body.empty()) EXPECT_EQ(bv::test::read_file(prompt_file), "PIN for \"key\": ");
  }
}

TEST(AskPin, MissingHelperProgramIsReported) {
  const auto child = bv::test::run_isolated({{"BV_PLATFORM_ASKPASS", "/nonexistent/askpass"}}, [] {
    setsid();
    std::string pin;
    EXPECT_FALSE(bv::platform::ask_pin("PIN: ", pin));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
}

TEST(HelperProgram, ProgramThatIgnoresItsInputDoesNotKillTheHost) {
  // A large input the program never reads: the host must neither block
  // nor die of SIGPIPE.
  const std::string input(4 * 1024 * 1024, 'x');
  std::string output;
  EXPECT_TRUE(bv::platform::run_helper_program("/bin/echo", "done", input, output));
  EXPECT_EQ(output, "done\n");
}

}  // namespace
