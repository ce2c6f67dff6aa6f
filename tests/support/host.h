// The test side of the host boundary: the shipped library loaded with
// dlopen as a host loads it, temporary folders, and isolated child runs.
//
// Trace in a test: TempDir dir; auto r = run_isolated(trace_env(dir), [] { ...load and call... });
// then trace_log(dir) is every line the child wrote (level 4 unless told).
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bvsapssf_api.h"

namespace bv::test {

#define BV_EXPORTS(X)                                                                                        \
  X(SsfVersion) X(SsfQueryProperties) X(SsfEncode) X(SsfDecode) X(SsfSign) X(SsfVerify) X(SsfEnvelope)        \
  X(SsfDevelope) X(SsfAddSign) X(SsfDigest) X(SsfDELSsfOctetstring) X(SsfNEWSigRcpSsfInfo) X(SsfDELSigRcpSsfInfo) \
  X(SsfINSSigRcpSsfInfo) X(SsfDELSigRcpSsfInfoList) X(SsfPRISigRcpSsfInfo) X(SsfPRISigRcpSsfInfoList) X(DllMain)

// The eighteen exports, resolved from build/libbvsapssf.so.
struct SsfApi {
#define BV_EXPORT_MEMBER(name) decltype(&::name) name;
  BV_EXPORTS(BV_EXPORT_MEMBER)
#undef BV_EXPORT_MEMBER
  // Loads the library once per process and resolves every export; a
  // missing one fails the test that asked.
  static const SsfApi& get();
};

// A folder under /tmp removed with everything in it at scope exit.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const std::string& content);  // creates parent folders
std::string read_file(const std::string& path);

struct ChildResult {
  int exit_code = -1;
  std::string stderr_text;  // what the child wrote to standard error
};

// Forks into a session without a controlling terminal (nothing prompts),
// applies `env` (an empty value unsets), runs `fn` and exits.  The
// library is loaded only inside the child, so its load-time work sees `env`.
// A failed gtest assertion in `fn` makes the exit code 1.
ChildResult run_isolated(const std::map<std::string, std::string>& env, const std::function<void()>& fn);

// One exchange at a terminal: once the screen shows `expect` (after what
// the last answer brought), type `send`.
struct Exchange {
  std::string expect, send;
};

struct PtyRun {
  int exit_code = -1;
  std::string screen;  // everything the child wrote to its terminal
};

// Runs `fn` as run_isolated does, in a child whose controlling terminal is
// a new pseudo-terminal, plays `script` on it and returns the screen.
PtyRun run_on_pty(const std::vector<Exchange>& script, const std::function<void()>& fn);

// The environment for run_isolated under which the library traces: a common
// folder <dir>/common whose Brelvantec/registry.reg sets libbvsapssf.so to
// `level` with the log file "trace.log" and `process_flags`, a local folder
// <dir>/local, and no BV_SSF_* variables.  Add or override entries as needed.
std::map<std::string, std::string> trace_env(const TempDir& dir, int level = 4, int process_flags = 0);
// What the child wrote to that log file ("" if nothing).
std::string trace_log(const TempDir& dir);
// The text of a registry.reg with the key SOFTWARE\Brelvantec\Trace and
// the given lines ("\"name\"=\"value\"" or "\"name\"=dword:00000003").
std::string trace_registry_text(const std::vector<std::string>& value_lines);

// The messages of a log file's text: the time stamp and "<module>: " cut
// off each line, "\r\n" turned back into "\n" (a platform text keeps its
// own "\r").
std::vector<std::string> log_messages(const std::string& log, const std::string& module = "libbvsapssf.so");

// Runs `fn` in a child under trace_env(level) and hands back the library's
// log; when `fn` fails, the log is printed with the failure.  The library
// must not be loaded in this process yet, or the child would inherit a
// library that has read its settings already.
ChildResult run_traced(const std::function<void()>& fn, std::string* log = nullptr, int level = 4);

// The trace of the library's core linked into this test program (not of the
// loaded .so): while it lives, every line up to `level` of this program's
// own trace module goes to a log file of its own.
class CoreTrace {
 public:
  explicit CoreTrace(uint32_t level = 4);
  ~CoreTrace();
  CoreTrace(const CoreTrace&) = delete;
  CoreTrace& operator=(const CoreTrace&) = delete;

  const std::string& path() const { return path_; }
  // The log file as written: time stamps and "\r\n".
  std::string raw() const;
  // The messages only: time stamp and module name cut off each line, one
  // "\r\n" turned back into "\n".
  std::vector<std::string> messages() const;
  // All messages in one text, for a failing assertion to show.
  std::string dump() const;
  // Starts the log afresh.
  void clear();

 private:
  TempDir dir_;
  std::string path_;
};

// Loads the library and makes one call with a start and a success banner
// at level 2; the library prints its settings at level 3 while loading.
void query_formats();
inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Bytes as lower-case hex text (`separator`, unless '\0', between the pairs),
// and hex text (digit pairs, nothing else) as bytes.
std::string hex_of(const std::string& bytes, char separator = '\0');
std::string bytes_of_hex(const std::string& hex);

// A path or argument in single quotes, for a shell command.
inline std::string quoted(const std::string& text) { return "'" + text + "'"; }

// Runs a shell command and returns its standard output; exit code in *status.
std::string run_command(const std::string& command, int* status = nullptr);
// The same; a non-zero exit fails the calling test.
std::string run_checked(const std::string& command);

// A shell command's exit status and its two output streams apart.
struct Streams {
  int status = -1;
  std::string out, err;
};
Streams run_streams(const std::string& command);

}  // namespace bv::test
