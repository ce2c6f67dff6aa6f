#include "trace/settings.h"

namespace bv::trace {
bool load_settings() { return true; }
}  // namespace bv::trace
