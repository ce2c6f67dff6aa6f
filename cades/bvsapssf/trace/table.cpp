// The table in this process's memory.  Records are claimed with atomic
// increments so that several modules can register concurrently.
#include "trace/table.h"

#include <strings.h>

#include <atomic>
#include <cstring>

namespace bv::trace {
namespace {
constexpr int kMaxModules = 64;
constexpr int kMaxCategories = 256;

struct Table {
  ProcessSettings process;
  std::atomic<int> module_count{0};
  std::atomic<int> category_count{0};
  ModuleRecord modules[kMaxModules];
  CategoryRecord categories[kMaxCategories];
};

Table* g_table = nullptr;

void copy_name(char* dst, size_t size, const char* src) {
  std::strncpy(dst, src != nullptr ? src : "", size - 1);
  dst[size - 1] = '\0';
}
}  // namespace

bool attach() {
  static Table table;
  g_table = &table;
  return true;
}

int register_module(const char* file_name, const char* path) {
  if (g_table == nullptr) return kNoId;
  const int id = g_table->module_count.fetch_add(1);
  if (id >= kMaxModules) return kNoId;
  ModuleRecord& m = g_table->modules[id];
  copy_name(m.name, sizeof m.name, file_name);
  copy_name(m.path, sizeof m.path, path);
  m.level = 0;
  m.status = kStatusInherit;
  m.has_report_hook = false;
  announce();
  return id;
}

int register_category(int module, const char* name) {
  if (g_table == nullptr) return kNoId;
  const int id = g_table->category_count.fetch_add(1);
  if (id >= kMaxCategories) return kNoId;
  CategoryRecord& c = g_table->categories[id];
  copy_name(c.name, sizeof c.name, name);
  c.module = module;
  c.level = 0;
  c.status = kStatusInherit;
  announce();
  return id;
}

int find_module(const char* file_name, bool ignore_case) {
  if (g_table == nullptr) return kNoId;
  for (int id = std::min(g_table->module_count.load(), kMaxModules) - 1; id >= 0; --id) {
    const char* name = g_table->modules[id].name;
    if ((ignore_case ? strcasecmp(name, file_name) : std::strcmp(name, file_name)) == 0) return id;
  }
  return kNoId;
}

bool set_module(int module, uint32_t level, uint32_t status) {
  if (g_table == nullptr || module < 0 || module >= std::min(g_table->module_count.load(), kMaxModules)) return false;
  g_table->modules[module].level = level;
  g_table->modules[module].status = status;
  return true;
}

bool set_category(int category, uint32_t level, uint32_t status) {
  if (g_table == nullptr || category < 0 || category >= category_count()) return false;
  g_table->categories[category].level = level;
  g_table->categories[category].status = status;
  return true;
}

bool read_module(int module, ModuleRecord& out) {
  if (g_table == nullptr || module < 0 || module >= std::min(g_table->module_count.load(), kMaxModules)) return false;
  out = g_table->modules[module];
  return true;
}

bool read_category(int category, CategoryRecord& out) {
  if (g_table == nullptr || category < 0 || category >= category_count()) return false;
  out = g_table->categories[category];
  return true;
}

int category_count() {
  return g_table == nullptr ? 0 : std::min(g_table->category_count.load(), kMaxCategories);
}

ProcessSettings read_process() { return g_table != nullptr ? g_table->process : ProcessSettings{}; }

void write_process(const ProcessSettings& settings) {
  if (g_table != nullptr) g_table->process = settings;
}

void announce() {}

}  // namespace bv::trace
