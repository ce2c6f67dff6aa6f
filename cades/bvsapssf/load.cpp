// Everything that runs between the host's load of the library and its first
// call, in one translation unit so that the order of the steps is the order
// of the definitions below.
#include <string>

#include "atl.h"
#include "kernel32/module.h"
#include "shell32/shell32.h"
#include "bvsapssf.h"
#include "bvsapssf_api.h"
#include "frame.h"
#include "kernel32/kernel32.h"
#include "trace/output.h"
#include "trace/settings.h"
#include "trace/table.h"
#include "trace/trace.h"

namespace {

std::string this_module_path() {
  char path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameA(bv::platform::this_module(), path, MAX_PATH);
  return length > 0 && length < MAX_PATH ? path : "libbvsapssf.so";
}

struct TraceModule {
  TraceModule() {
    // Without a trace table the library loads with tracing off: an exception
    // from a static initialiser would end the host inside its dlopen, and
    // registration below answers kNoId without a table.
    bv::trace::attach();
    path = this_module_path();
    file_name = PathFindFileNameA(path.c_str());
    id = bv::trace::register_module(file_name.c_str(), path.c_str());
    bv::trace::set_module_identity(id);
  }
  std::string path;
  std::string file_name;
  int id = bv::trace::kNoId;
};

struct TraceCategory {
  TraceCategory(const TraceModule& module, const char* name, uint32_t& id) {
    id = static_cast<uint32_t>(bv::trace::register_category(module.id, name));
  }
};

// 2. the trace table and this module's entry
TraceModule g_trace_module;
// 3. the two categories
TraceCategory g_general(g_trace_module, "BVTraceGeneral", BVTraceGeneral);
TraceCategory g_snapin(g_trace_module, "BVTraceSnapin", BVTraceSnapin);
}  // namespace

// 4. the settings object
Config config;

namespace {
// 5. the trace settings; the flag is kept and read by nobody
bool g_trace_settings_loaded = bv::trace::load_settings();

// 6. what DllMain does on DLL_PROCESS_ATTACH; there is no loader callback
// here, so the last initialiser does it.
struct ProcessAttach {
  ProcessAttach() { DllMain(nullptr, 1, nullptr); }
} g_process_attach;
}  // namespace

extern "C" int DllMain(void* /*module*/, uint32_t reason, void* /*reserved*/) {
  return bv::frame::whole_export(1, [&] {
    if (reason == 1) {
      // The code page 1251 rules hold inside the library through its own
      // locale object, made here at the latest; the host's locale stays
      // the host's.
      bv::platform::ansi_locale();
      config.print_Config();
    }
    return 1;
  });
}
