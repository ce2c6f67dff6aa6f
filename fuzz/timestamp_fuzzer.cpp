// What a time stamp service sends, as the HTTP client hands it over, read
// against one fixed request (kDetachedContent hashed with GOST R 34.11-2012
// 256 and a fixed nonce, as make_corpus asked it), the world's authority
// the only one accepted.  Mutations are signed again (resign.h).
#include "cadesmsg/timestamp.h"
#include "resign.h"
#include "world.h"

using namespace bv::fuzz;

namespace {
UniquePtr<TS_REQ> g_request;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  world();
  g_request = fixed_time_stamp_request();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  bv::cades::TimeStamp stamp;
  bv::cades::read_time_stamp_response(
      body, g_request.get(), [](bv::cades::TimeStamp& got) { return X509_cmp(got.authority.get(), world().tsa.get()) == 0; },
      stamp);
  return 0;
}

#ifdef BV_LIBFUZZER
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned int seed) {
  return mutate_and_resign(data, size, max_size, seed, resigned_time_stamp);
}
#endif
