// What SsfDigest adds to the hash itself: each algorithm and size measured
// as a bare EVP_Digest of the same bytes, then through SsfDigest under
// RAW_GOST, and as an attached and a detached CMS digested message.  Trace
// is off, as it is by default.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <cstdint>
#include <string>

#include "bvsapssf_api.h"
#include "openssl/ossl.h"

namespace {

struct Algorithm {
  const char* name;
  int nid;
};
constexpr Algorithm kAlgorithms[] = {
    {"GOST2012-256", NID_id_GostR3411_2012_256}, {"GOST2012-512", NID_id_GostR3411_2012_512},
    {"GOST3411", NID_id_GostR3411_94},           {"SHA1", NID_sha1},
    {"MD5", NID_md5},
};

// 64 MiB of fixed pseudo-random bytes; each case hashes a prefix.
const std::string& sample() {
  static const std::string data = [] {
    std::string bytes(size_t{64} << 20, '\0');
    uint32_t x = 2463534242u;
    for (char& c : bytes) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      c = static_cast<char>(x);
    }
    return bytes;
  }();
  return data;
}

void evp_digest(benchmark::State& state, int nid) {
  const std::string& data = sample();
  const size_t size = static_cast<size_t>(state.range(0));
  const EVP_MD* md = bv::ossl::digest_by_nid(nid);
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  for (auto _ : state) {
    if (EVP_Digest(data.data(), size, out, &length, md, nullptr) != 1) state.SkipWithError("EVP_Digest failed");
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void ssf_digest(benchmark::State& state, const char* format, bool detached, const char* hash) {
  const std::string& data = sample();
  const int32_t size = static_cast<int32_t>(state.range(0));
  const int32_t format_length = static_cast<int32_t>(std::char_traits<char>::length(format));
  const int32_t hash_length = static_cast<int32_t>(std::char_traits<char>::length(hash));
  for (auto _ : state) {
    unsigned char* out = nullptr;
    uint32_t out_length = 0;
    if (SsfDigest(format, format_length, detached ? 1 : 0, reinterpret_cast<const unsigned char*>(data.data()), size,
                  hash, hash_length, &out, &out_length) != SSF_OK) {
      state.SkipWithError("SsfDigest failed");
      break;
    }
    SsfDELSsfOctetstring(&out, &out_length);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(1 << 10)->Arg(64 << 10)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMicrosecond);
}

const bool registered = [] {
  for (const Algorithm& a : kAlgorithms) {
    const std::string name = a.name;
    benchmark::RegisterBenchmark(("EVP_Digest/" + name).c_str(), evp_digest, a.nid)->Apply(sizes);
    benchmark::RegisterBenchmark(("SsfDigest_RAW/" + name).c_str(), ssf_digest, "RAW_GOST", false, a.name)
        ->Apply(sizes);
    benchmark::RegisterBenchmark(("SsfDigest_CMS_attached/" + name).c_str(), ssf_digest, "PKCS7", false, a.name)
        ->Apply(sizes);
    benchmark::RegisterBenchmark(("SsfDigest_CMS_detached/" + name).c_str(), ssf_digest, "PKCS7", true, a.name)
        ->Apply(sizes);
  }
  return true;
}();

}  // namespace
