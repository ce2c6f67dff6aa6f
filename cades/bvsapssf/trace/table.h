// The per-process table of trace modules and categories and the process
// settings, with the operations the filter and the settings loader need.
// It lives in POSIX shared memory named "/AtlDebugAllocator_FileMappingNameStatic3_<pid in hex>"
// so that every module of the process shares it and an outside tool
// (bvtrace) can change levels while the process runs.  Records are claimed
// with atomic increments; reads are plain.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace bv::trace {

constexpr uint32_t kStatusInherit = 0;
constexpr uint32_t kStatusEnabled = 1;
constexpr uint32_t kStatusDisabled = 2;
constexpr int kNoId = -1;
// What the table holds.
constexpr int kMaxModules = 64;
constexpr int kMaxCategories = 256;

struct ProcessSettings {
  uint32_t level = 0;
  bool enabled = true;
  bool func_and_category_names = false;
  bool file_name_and_line_no = false;
};

struct ModuleRecord {
  char name[64];    // file name, at most 63 characters
  char path[260];   // whole path of the module
  uint32_t level;
  uint32_t status;
  bool has_report_hook;
};

struct CategoryRecord {
  char name[64];
  int module;
  uint32_t level;
  uint32_t status;
};

// Attach: opens the table of this process, creating it if this module is
// the first.  False if it can be neither opened nor created.
bool attach();
int register_module(const char* file_name, const char* path);
int register_category(int module, const char* name);
// Searches from the last module to the first.
int find_module(const char* file_name, bool ignore_case);
bool set_module(int module, uint32_t level, uint32_t status);
bool set_category(int category, uint32_t level, uint32_t status);
bool read_module(int module, ModuleRecord& out);
bool read_category(int category, CategoryRecord& out);
ProcessSettings read_process();
void write_process(const ProcessSettings& settings);
// Wakes an outside trace tool if it waits for processes; absence is no error.
void announce();

// The table's name for a process, "/AtlDebugAllocator_FileMappingNameStatic3_" and the pid in hex.
std::string table_name(pid_t pid);
// The semaphore an outside tool creates to learn that a process registered
// a module or loaded its settings; Announce posts it when it exists.
constexpr const char* kAnnounceSemaphore = "/AtlTraceModuleManager_ProcessAddedStatic3";

// For an outside tool: maps the table of another process (never creates it)
// and makes it the one the operations above work on.  False if the process
// has none.
bool open_process_table(pid_t pid);
// Leaves the table; the last module of the process to leave removes its
// name.  Runs by itself when the module is unloaded or the process exits.
void detach();
// Removes the names of tables whose processes are gone (ended without
// running their exit code, or crashed).
void remove_stale_tables();

int module_count();

// Calls `fn(id, record)` for every category of `module`.
template <typename Fn>
void for_each_category(int module, Fn fn);

int category_count();

}  // namespace bv::trace

template <typename Fn>
void bv::trace::for_each_category(int module, Fn fn) {
  const int count = category_count();
  for (int id = 0; id < count; ++id) {
    CategoryRecord record{};
    if (read_category(id, record) && record.module == module) fn(id, record);
  }
}
