#include "host.h"

#include <cctype>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "kernel32/hex.h"
#include "trace/output.h"
#include "trace/table.h"
#include "trace/trace.h"

namespace bv::test {

const SsfApi& SsfApi::get() {
  static const SsfApi api = [] {
    void* handle = dlopen(BV_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) throw std::runtime_error(std::string("dlopen: ") + dlerror());
    auto resolve = [handle](const char* name) {
      void* symbol = dlsym(handle, name);
      if (symbol == nullptr) throw std::runtime_error(std::string("missing export ") + name);
      return symbol;
    };
    SsfApi a{};
#define BV_RESOLVE(name) a.name = reinterpret_cast<decltype(a.name)>(resolve(#name));
    BV_EXPORTS(BV_RESOLVE)
#undef BV_RESOLVE
    return a;
  }();
  return api;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/bvsapssf-test-XXXXXX";
  const char* made = mkdtemp(pattern);
  if (made == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = made;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void write_file(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

namespace {

// The child's side of run_isolated and run_on_pty: whatever `fn` throws
// ends the child here, never unwinding into the rest of the test program.
[[noreturn]] void run_child(const std::map<std::string, std::string>& env, const std::function<void()>& fn) {
  for (const auto& [name, value] : env) {
    if (value.empty())
      unsetenv(name.c_str());
    else
      setenv(name.c_str(), value.c_str(), 1);
  }
  bool failed = true;
  try {
    fn();
    failed = ::testing::Test::HasFailure();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "child threw: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "child threw a non-standard exception\n");
  }
  std::fflush(nullptr);
  // _exit keeps the parent's image (gtest, its atexit handlers) out of the
  // child's end, and with it the leak check exit would run: a test that must
  // see what a call leaves behind asks for the check itself
  // (SignRequest::check_leaks).
  _exit(failed ? 1 : 0);
}

int exit_code_of(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// The PINs and passwords the tests give the library (SigningWorld's, the
// demo PKI's, the wrong ones).
const char* const kSecrets[] = {"1111",     "2222",     "4444",     "5555",     "6666",     "7777",     "9731",
                                "1112",     "8888",
                                "11111111", "22222222", "33333333", "44444444", "55555555", "66666666",
                                "77777777", "88888888", "12121212"};

// A secret standing alone in `text`: not part of a longer number or word
// (a hash or a date may hold "1111" by chance).
bool holds_secret(const std::string& text, const std::string& secret) {
  for (size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + 1)) {
    const bool left = at == 0 || !std::isalnum(static_cast<unsigned char>(text[at - 1]));
    const size_t end = at + secret.size();
    const bool right = end == text.size() || !std::isalnum(static_cast<unsigned char>(text[end]));
    if (left && right) return true;
  }
  return false;
}

// Every library log a child wrote and its standard error, read for the
// tests' secrets: no trace level may print one.
void expect_no_secrets(const std::map<std::string, std::string>& env, const std::string& stderr_text) {
  std::vector<std::pair<std::string, std::string>> texts{{"standard error", stderr_text}};
  for (const char* folder : {"BV_PLATFORM_COMMON_APPDATA", "BV_PLATFORM_LOCAL_APPDATA"}) {
    const auto found = env.find(folder);
    if (found == env.end() || found->second.empty()) continue;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(found->second + "/Brelvantec/LogFiles", ignored))
      texts.emplace_back(entry.path().string(), read_file(entry.path().string()));
  }
  for (const auto& [where, text] : texts)
    for (const char* secret : kSecrets)
      if (holds_secret(text, secret)) ADD_FAILURE() << "the secret " << secret << " is in " << where;
}

}  // namespace

ChildResult run_isolated(const std::map<std::string, std::string>& env, const std::function<void()>& fn) {
  std::fflush(nullptr);
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid == 0) {
    setsid();  // no controlling terminal: nothing the library does may wait for a PIN typed in
    close(pipe_fds[0]);
    dup2(pipe_fds[1], STDERR_FILENO);
    close(pipe_fds[1]);
    run_child(env, fn);
  }
  close(pipe_fds[1]);
  ChildResult result;
  char chunk[4096];
  ssize_t n;
  while ((n = read(pipe_fds[0], chunk, sizeof chunk)) > 0) result.stderr_text.append(chunk, static_cast<size_t>(n));
  close(pipe_fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  // The child ended without running exit code, so a trace table it made is still there.
  shm_unlink(bv::trace::table_name(pid).c_str());
  result.exit_code = exit_code_of(status);
  expect_no_secrets(env, result.stderr_text);
  return result;
}

PtyRun run_on_pty(const std::vector<Exchange>& script, const std::function<void()>& fn) {
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
    if (open(slave_name.c_str(), O_RDWR) < 0) _exit(3);  // becomes the controlling terminal
    run_child({}, fn);
  }
  // Each expectation is looked for in what appeared after the last answer
  // was typed: a prompt shown again must be the new one.
  size_t seen = 0;
  auto read_until = [&](const std::string& expect) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (run.screen.find(expect, seen) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
      pollfd p{master, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char chunk[4096];
      const ssize_t n = read(master, chunk, sizeof chunk);
      if (n <= 0) break;
      run.screen.append(chunk, static_cast<size_t>(n));
    }
    const size_t at = run.screen.find(expect, seen);
    if (at == std::string::npos) return false;
    seen = at + expect.size();
    return true;
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
  run.exit_code = exit_code_of(status);
  return run;
}

std::vector<std::string> log_messages(const std::string& log, const std::string& module) {
  const std::string prefix = module + ": ";
  constexpr size_t kStamp = 22;  // "2026/01/31 12:00:00 : "
  std::vector<std::string> result;
  size_t start = 0;
  while (start < log.size()) {
    size_t end = log.find("\r\n", start);
    end = end == std::string::npos ? log.size() : end + 2;
    std::string line = log.substr(start, end - start);
    if (line.size() >= 2 && line.compare(line.size() - 2, 2, "\r\n") == 0) line.replace(line.size() - 2, 2, "\n");
    if (line.size() >= kStamp && line[4] == '/' && line.compare(19, 3, " : ") == 0) line.erase(0, kStamp);
    if (line.compare(0, prefix.size(), prefix) == 0) line.erase(0, prefix.size());
    result.push_back(line);
    start = end;
  }
  return result;
}

ChildResult run_traced(const std::function<void()>& fn, std::string* log, int level) {
  void* loaded = dlopen(BV_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD);
  if (loaded != nullptr) {
    dlclose(loaded);
    ADD_FAILURE() << "run_traced: the library is loaded in this process already";
  }
  TempDir dir;
  ChildResult result = run_isolated(trace_env(dir, level), fn);
  const std::string text = trace_log(dir);
  if (result.exit_code != 0)
    ADD_FAILURE() << "child failed (" << result.exit_code << "); library trace:\n"
                  << text << "standard error:\n"
                  << result.stderr_text;
  if (log != nullptr) *log = text;
  return result;
}

CoreTrace::CoreTrace(uint32_t level) {
  using namespace bv::trace;
  // A program that does not link the load-time code has no module yet.
  if (module_id() < 0) {
    attach();
    const int id = register_module("bvsapssf_core", "bvsapssf_core");
    set_module_identity(id);
    BVTraceGeneral = static_cast<uint32_t>(register_category(id, "BVTraceGeneral"));
    BVTraceSnapin = static_cast<uint32_t>(register_category(id, "BVTraceSnapin"));
  }
  set_module(module_id(), level, kStatusEnabled);
  set_category(static_cast<int>(BVTraceGeneral), 0, kStatusInherit);
  path_ = dir_ / "trace.log";
  open_log_file(path_.c_str());
}

CoreTrace::~CoreTrace() {
  bv::trace::close_log_file();
  bv::trace::set_module(bv::trace::module_id(), 0, bv::trace::kStatusInherit);
}

std::string CoreTrace::raw() const { return read_file(path_); }

std::vector<std::string> CoreTrace::messages() const {
  bv::trace::ModuleRecord module{};
  bv::trace::read_module(bv::trace::module_id(), module);
  return log_messages(raw(), module.name);
}

std::string CoreTrace::dump() const {
  std::string all = "library trace:\n";
  for (const std::string& line : messages()) all += "  | " + line;
  return all;
}

void CoreTrace::clear() {
  bv::trace::close_log_file();
  std::remove(path_.c_str());
  bv::trace::open_log_file(path_.c_str());
}

void query_formats() {
  const SsfApi& api = SsfApi::get();
  char* value = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(api.SsfQueryProperties("FORMATS", 7, nullptr, 0, &value, &length), SSF_OK);
  api.SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&value), &length);
}

std::string hex_of(const std::string& bytes, char separator) {
  return bv::platform::hex_text(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                                bv::platform::HexLetters::kLower, separator);
}

std::string bytes_of_hex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

std::string run_command(const std::string& command, int* status) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("popen failed");
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, n);
  const int rc = pclose(pipe);
  if (status != nullptr) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return output;
}

std::string run_checked(const std::string& command) {
  int status = -1;
  std::string output = run_command(command, &status);
  EXPECT_EQ(status, 0) << command << "\n" << output;
  return output;
}

Streams run_streams(const std::string& command) {
  TempDir dir;
  Streams result;
  result.out = run_command("(" + command + ") 2>" + quoted(dir / "err"), &result.status);
  result.err = read_file(dir / "err");
  return result;
}

std::string trace_registry_text(const std::vector<std::string>& value_lines) {
  std::string text = "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Brelvantec\\Trace]\r\n";
  for (const std::string& line : value_lines) text += line + "\r\n";
  return text;
}

std::map<std::string, std::string> trace_env(const TempDir& dir, int level, int process_flags) {
  char flags[32];
  std::snprintf(flags, sizeof flags, "dword:%08x", static_cast<unsigned>(process_flags));
  write_file(dir / "common/Brelvantec/registry.reg",
             trace_registry_text({"\"libbvsapssf.so\"=\"" + std::to_string(level) + "\"",
                                  "\"libbvsapssf.so.logfile\"=\"trace.log\"", std::string("\"ProcessFlags\"=") + flags}));
  std::filesystem::create_directories(dir / "local");
  return {{"BV_PLATFORM_COMMON_APPDATA", dir / "common"}, {"BV_PLATFORM_LOCAL_APPDATA", dir / "local"},
          {"BV_SSF_USERID", ""}, {"BV_SSF_VERIFYCERTFLAGS", ""}, {"BV_SSF_VERIFYCERTACCEPTABLESTATUS", ""},
          {"BV_SSF_VERIFYCERTFLAGS_ONSELECT", ""}, {"BV_SSF_ASK_PIN_WHEN_EMPTY", ""},
          {"BV_SSF_VERIFYCERTFLAGS_ONSIGN", ""}, {"BV_SSF_ADD_TSP", ""}};
}

std::string trace_log(const TempDir& dir) { return read_file(dir / "common/Brelvantec/LogFiles/trace.log"); }

}  // namespace bv::test
