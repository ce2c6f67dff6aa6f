// The table in POSIX shared memory.  The first module of a process creates
// it, later ones join; an outside tool maps it to read and change levels.
#include "trace/table.h"

#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kernel32/kernel32.h"

namespace bv::trace {
namespace {
constexpr uint32_t kMagic = 0x42565452;  // "BVTR"
constexpr uint32_t kLayoutVersion = 1;
constexpr const char* kNamePrefix = "AtlDebugAllocator_FileMappingNameStatic3";

// A record is claimed by the increment of its count and becomes visible to
// readers only when `ready` is set, after it has been written.
struct ModuleSlot {
  std::atomic<uint32_t> ready;
  ModuleRecord record;
};

struct CategorySlot {
  std::atomic<uint32_t> ready;
  CategoryRecord record;
};

struct Table {
  std::atomic<uint32_t> magic;  // set last, when the header is initialised
  uint32_t layout_version;
  // Tells a table of this process from one a dead process with the same
  // pid left behind.
  uint64_t creator_start_time;
  std::atomic<int32_t> users;
  std::atomic<int32_t> module_count;
  std::atomic<int32_t> category_count;
  ProcessSettings process;
  ModuleSlot modules[kMaxModules];
  CategorySlot categories[kMaxCategories];
};
static_assert(std::atomic<int32_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free,
              "records are claimed across processes without locks");

size_t mapping_size() {
  const long page = sysconf(_SC_PAGESIZE);
  const size_t unit = page > 0 ? static_cast<size_t>(page) : 4096;
  return (sizeof(Table) + unit - 1) / unit * unit;
}

Table* g_table = nullptr;
bool g_owned = false;  // attached as a module (not as an outside tool)
// A forked child inherits the mapping but is another process: it leaves the
// parent's count alone.
pid_t g_owner_pid = 0;

// Field 22 of /proc/<pid>/stat: when the process started, in clock ticks.
uint64_t process_start_time(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 1));
  std::string field;
  for (int i = 3; i <= 22 && (fields >> field); ++i)
    if (i == 22) return std::strtoull(field.c_str(), nullptr, 10);
  return 0;
}

Table* map_table(int fd) {
  void* view = mmap(nullptr, mapping_size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return view == MAP_FAILED ? nullptr : static_cast<Table*>(view);
}

void unmap(Table* table) {
  if (table != nullptr) munmap(table, mapping_size());
}

Table* create_table(const std::string& name) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  Table* table = ftruncate(fd, static_cast<off_t>(mapping_size())) == 0 ? map_table(fd) : nullptr;
  close(fd);
  if (table == nullptr) {
    shm_unlink(name.c_str());
    return nullptr;
  }
  // ftruncate gave zeroed memory: counts 0, records empty.
  table->layout_version = kLayoutVersion;
  table->creator_start_time = process_start_time(getpid());
  table->process = ProcessSettings{};
  table->magic.store(kMagic, std::memory_order_release);
  return table;
}

// Maps an existing table; null when it is not a complete table.
Table* open_table(const std::string& name) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) return nullptr;
  struct stat info{};
  Table* table = fstat(fd, &info) == 0 && static_cast<size_t>(info.st_size) >= mapping_size() ? map_table(fd) : nullptr;
  close(fd);
  if (table != nullptr && (table->magic.load(std::memory_order_acquire) != kMagic ||
                           table->layout_version != kLayoutVersion)) {
    unmap(table);
    return nullptr;
  }
  return table;
}

// Where shared memory cannot be had (no /dev/shm, no rights), the modules of
// this copy of the library still trace, from a table no other process sees.
Table* private_table() {
  static Table table;
  if (table.magic.load() != kMagic) {
    table.layout_version = kLayoutVersion;
    table.process = ProcessSettings{};
    table.magic.store(kMagic);
  }
  return &table;
}

void copy_name(char* dst, size_t size, const char* src) {
  std::strncpy(dst, src != nullptr ? src : "", size - 1);
  dst[size - 1] = '\0';
}

int claimed(const std::atomic<int32_t>& count, int limit) { return std::min<int>(count.load(), limit); }

ModuleSlot* module_slot(int module) {
  if (g_table == nullptr || module < 0 || module >= claimed(g_table->module_count, kMaxModules)) return nullptr;
  ModuleSlot& slot = g_table->modules[module];
  return slot.ready.load(std::memory_order_acquire) != 0 ? &slot : nullptr;
}

CategorySlot* category_slot(int category) {
  if (g_table == nullptr || category < 0 || category >= claimed(g_table->category_count, kMaxCategories))
    return nullptr;
  CategorySlot& slot = g_table->categories[category];
  return slot.ready.load(std::memory_order_acquire) != 0 ? &slot : nullptr;
}

// Leaves the table when this copy of the library goes away, by unload or
// by the end of the process.
struct DetachAtExit {
  ~DetachAtExit() { detach(); }
} g_detach_at_exit;

}  // namespace

std::string table_name(pid_t pid) {
  char name[96];
  std::snprintf(name, sizeof name, "/%s_%0x", kNamePrefix, static_cast<unsigned>(pid));
  return name;
}

bool attach() {
  if (g_table != nullptr && g_owned && g_owner_pid == getpid()) return true;
  detach();
  const std::string name = table_name(getpid());
  Table* table = nullptr;
  for (int attempt = 0; attempt < 2 && table == nullptr; ++attempt) {
    table = create_table(name);
    if (table != nullptr) {
      remove_stale_tables();
      break;
    }
    if (errno != EEXIST) break;
    table = open_table(name);
    // Left behind by an earlier process with this pid: replace it.
    if (table == nullptr || table->creator_start_time != process_start_time(getpid())) {
      unmap(table);
      table = nullptr;
      shm_unlink(name.c_str());
    }
  }
  if (table == nullptr) table = private_table();
  table->users.fetch_add(1);
  g_table = table;
  g_owned = true;
  g_owner_pid = getpid();
  return true;
}

bool open_process_table(pid_t pid) {
  Table* table = open_table(table_name(pid));
  if (table == nullptr) return false;
  detach();
  g_table = table;
  g_owned = false;
  return true;
}

void detach() {
  if (g_table == nullptr) return;
  if (g_table == private_table()) {
    g_table->users.fetch_sub(1);
    g_table = nullptr;
    return;
  }
  if (g_owned && g_owner_pid == getpid() && g_table->users.fetch_sub(1) == 1)
    shm_unlink(table_name(getpid()).c_str());
  unmap(g_table);
  g_table = nullptr;
  g_owned = false;
}

void remove_stale_tables() {
  DIR* dir = opendir("/dev/shm");
  if (dir == nullptr) return;
  const std::string prefix = std::string(kNamePrefix) + "_";
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    char* end = nullptr;
    const unsigned long pid = std::strtoul(name.c_str() + prefix.size(), &end, 16);
    if (end == nullptr || *end != '\0' || pid == 0) continue;
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) shm_unlink(("/" + name).c_str());
  }
  closedir(dir);
}

int register_module(const char* file_name, const char* path) {
  if (g_table == nullptr) return kNoId;
  const int id = g_table->module_count.fetch_add(1);
  if (id >= kMaxModules) return kNoId;
  ModuleSlot& slot = g_table->modules[id];
  ModuleRecord& m = slot.record;
  copy_name(m.name, sizeof m.name, file_name);
  copy_name(m.path, sizeof m.path, path);
  m.level = 0;
  m.status = kStatusInherit;
  m.has_report_hook = false;
  slot.ready.store(1, std::memory_order_release);
  announce();
  return id;
}

int register_category(int module, const char* name) {
  if (g_table == nullptr) return kNoId;
  const int id = g_table->category_count.fetch_add(1);
  if (id >= kMaxCategories) return kNoId;
  CategorySlot& slot = g_table->categories[id];
  CategoryRecord& c = slot.record;
  copy_name(c.name, sizeof c.name, name);
  c.module = module;
  c.level = 0;
  c.status = kStatusInherit;
  slot.ready.store(1, std::memory_order_release);
  announce();
  return id;
}

int find_module(const char* file_name, bool ignore_case) {
  if (g_table == nullptr || file_name == nullptr) return kNoId;
  for (int id = module_count() - 1; id >= 0; --id) {
    const ModuleSlot* slot = module_slot(id);
    if (slot == nullptr) continue;
    const char* name = slot->record.name;
    // Case as the library's code page has it, whatever the host's locale says.
    const int order =
        ignore_case ? strcasecmp_l(name, file_name, bv::platform::ansi_locale()) : std::strcmp(name, file_name);
    if (order == 0) return id;
  }
  return kNoId;
}

bool set_module(int module, uint32_t level, uint32_t status) {
  ModuleSlot* slot = module_slot(module);
  if (slot == nullptr) return false;
  slot->record.level = level;
  slot->record.status = status;
  return true;
}

bool set_category(int category, uint32_t level, uint32_t status) {
  CategorySlot* slot = category_slot(category);
  if (slot == nullptr) return false;
  slot->record.level = level;
  slot->record.status = status;
  return true;
}

bool read_module(int module, ModuleRecord& out) {
  const ModuleSlot* slot = module_slot(module);
  if (slot == nullptr) return false;
  out = slot->record;
  return true;
}

bool read_category(int category, CategoryRecord& out) {
  const CategorySlot* slot = category_slot(category);
  if (slot == nullptr) return false;
  out = slot->record;
  return true;
}

int module_count() { return g_table == nullptr ? 0 : claimed(g_table->module_count, kMaxModules); }

int category_count() { return g_table == nullptr ? 0 : claimed(g_table->category_count, kMaxCategories); }

ProcessSettings read_process() { return g_table != nullptr ? g_table->process : ProcessSettings{}; }

void write_process(const ProcessSettings& settings) {
  if (g_table != nullptr) g_table->process = settings;
}

void announce() {
  sem_t* event = sem_open(kAnnounceSemaphore, 0);
  if (event == SEM_FAILED) return;
  sem_post(event);
  sem_close(event);
}

}  // namespace bv::trace
