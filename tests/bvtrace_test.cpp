// bvtrace changes the trace of a running process: the host's next line obeys.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "host.h"
#include "trace/table.h"

namespace bv::test {

namespace {

const std::string kTool = BV_TOOLS_DIR "/bvtrace";

// `command` with "PID" replaced by the calling process's id.
int run_tool(std::string command, std::string* output = nullptr) {
  const size_t at = command.find("PID");
  if (at != std::string::npos) command.replace(at, 3, std::to_string(getpid()));
  int status = -1;
  const std::string text = run_command(kTool + " " + command + " 2>&1", &status);
  if (output != nullptr) *output = text;
  return status;
}

}  // namespace

TEST(Bvtrace, TheNextLineObeys) {
  struct Case {
    const char* name;
    int level;  // the module's setting at load
    const char* command;
    bool before;  // a banner before the command
    bool after;   // a banner after it
    const char* after_pattern;
  } const cases[] = {
      {"raise the module", 1, "set PID libbvsapssf.so 4 1", false, true, "libbvsapssf.so: ****************#start#"},
      {"the module's name without case", 1, "set PID LIBBVSAPSSF.SO 2 enabled", false, true, "#start#"},
      {"enable the category", 1, "set PID BVTraceGeneral 2 1", false, true, "#start#"},
      {"disable the category", 4, "set PID BVTraceGeneral 0 disabled", true, false, ""},
      {"both line parts", 4, "flags PID 3", true, true, "libbvsapssf.so: {"},
      {"the process level for an inheriting module", 1, "set PID libbvsapssf.so 0 0", false, false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const auto child = run_isolated(trace_env(dir, c.level), [&] {
      query_formats();
      const size_t before = trace_log(dir).size();
      std::string output;
      ASSERT_EQ(run_tool(c.command, &output), 0) << output;
      query_formats();
      const std::string log = trace_log(dir);
      EXPECT_EQ(contains(log.substr(0, before), "#start#"), c.before) << log;
      const std::string added = log.substr(before);
      EXPECT_EQ(contains(added, "#start#"), c.after) << log;
      EXPECT_TRUE(contains(added, c.after_pattern)) << log;
    });
    EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  }
}

// What `list` shows, and what the tool refuses, with the code it exits with.
TEST(Bvtrace, ListsAndRefuses) {
  TempDir dir;
  const auto child = run_isolated(trace_env(dir, 3, 1), [] {
    SsfApi::get();
    const struct {
      const char* command;
      int status;
      const char* message;
    } cases[] = {
        {"list PID", 0, "flags 1 (category names on, file and line off)"},
        {"list PID", 0, "module libbvsapssf.so: level 3, status 1 enabled"},
        {"list PID", 0, "category BVTraceGeneral: level 0, status 0 inherit"},
        {"list PID", 0, "category BVTraceSnapin: level 0, status 0 inherit"},
        {"set PID NoSuchName 4 1", 3, "has no module or category NoSuchName"},
        {"set PID libbvsapssf.so 4 7", 1, "usage"},
        {"flags PID 4", 1, "usage"},
        {"set 1 libbvsapssf.so 4 1", 2, "has no trace table"},
        {"list notapid", 2, "not a process id"},
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(c.command);
      std::string output;
      EXPECT_EQ(run_tool(c.command, &output), c.status) << output;
      EXPECT_TRUE(contains(output, c.message)) << output;
    }
  });
  EXPECT_EQ(child.exit_code, 0);
}

// A tool that waits learns of a process that loads the library.
TEST(Bvtrace, WaitsForAProcessToAnnounceItself) {
  sem_unlink(bv::trace::kAnnounceSemaphore);
  FILE* waiting = popen((kTool + " wait 20").c_str(), "r");
  ASSERT_NE(waiting, nullptr);
  // The tool creates the semaphore before it waits.
  for (int i = 0; i < 200; ++i) {
    sem_t* event = sem_open(bv::trace::kAnnounceSemaphore, 0);
    if (event != SEM_FAILED) {
      sem_close(event);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  TempDir dir;
  EXPECT_EQ(run_isolated(trace_env(dir, 1), [] { SsfApi::get(); }).exit_code, 0);
  char line[64] = {};
  const bool read = std::fgets(line, sizeof line, waiting) != nullptr;
  EXPECT_EQ(pclose(waiting), 0);
  ASSERT_TRUE(read);
  EXPECT_STREQ(line, "announced\n");
}

}  // namespace bv::test
