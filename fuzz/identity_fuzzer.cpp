// Identity strings (hash and DN forms, quotes, escapes, code page 1251
// bytes) as the records of SsfSign, SsfEnvelope and SsfDevelope: one record
// per piece of the input, up to four in a list.
#include "world.h"

using namespace bv::fuzz;

namespace {
std::string g_envelope;  // to the world's signer, for SsfDevelope to open
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Records recipient;
  recipient.add(world().signer_hash);
  Output out;
  SsfEnvelope("PKCS7", 5, "GOST28147", 9, bytes_of(kDetachedContent), length_of(kDetachedContent), nullptr, 0, nullptr, 0,
              recipient.list(), &out.data, &out.length);
  g_envelope = out.bytes();
  if (g_envelope.empty()) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> ids = pieces(data, size, 4);
  Records records;
  std::vector<SsfInfo*> infos;
  for (const std::string& id : ids) infos.push_back(records.add(id));
  {
    Output out;
    SsfSign("PKCS7", 5, nullptr, 0, 1, 0, bytes_of(kDetachedContent), length_of(kDetachedContent), records.list(),
            &out.data, &out.length);
  }
  {
    Output out;
    SsfEnvelope("PKCS7", 5, "GOST28147", 9, bytes_of(kDetachedContent), length_of(kDetachedContent), nullptr, 0, nullptr,
                0, records.list(), &out.data, &out.length);
  }
  for (SsfInfo* info : infos) {
    if (info == nullptr) continue;
    Output out;
    SsfDevelope("PKCS7", 5, bytes_of(g_envelope), length_of(g_envelope), info, &out.data, &out.length);
  }
  return 0;
}
