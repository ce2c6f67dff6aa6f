// What a revocation source sends, as the HTTP client hands it over: the
// body read as an OCSP responder's answer about the world's signer (to a
// request without a nonce, so a stored answer fits), and as a distribution
// point's CRL of the world's root.  Mutations are signed again (resign.h).
#include "crypt32/revocation.h"
#include "resign.h"
#include "world.h"

using namespace bv::fuzz;
namespace revocation = bv::platform::revocation;

namespace {
UniquePtr<OCSP_REQUEST> g_request;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_request.reset(OCSP_REQUEST_new());
  OCSP_CERTID* id = OCSP_cert_to_id(nullptr, world().signer.get(), world().root.get());
  if (!g_request || id == nullptr || OCSP_request_add0_id(g_request.get(), id) == nullptr) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  X509* signer = world().signer.get();
  X509* root = world().root.get();
  revocation::read_ocsp_body(body, g_request.get(), signer, root);
  revocation::read_crl_body(body, signer, root);
  revocation::read_crl_body(body, root, root);
  return 0;
}

#ifdef BV_LIBFUZZER
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned int seed) {
  return mutate_and_resign(data, size, max_size, seed, [](std::string_view body) {
    std::string again = resigned_ocsp(body);
    return again.empty() ? resigned_crl(body) : again;
  });
}
#endif
