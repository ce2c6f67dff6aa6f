// SsfSign ("PKCS7", GOST 2012-256) against OpenSSL's own CMS_sign with the
// same key and certificate, the cost of finding the signer by hash and by DN
// in a store of 1,000 certificates, and "CADES" against "PKCS7" with our
// time stamp server (bvtsa) on loopback.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bvsapssf_api.h"
#include "bench_pki.h"
#include "crypt32/key_cache.h"
#include "crypt32/revocation.h"
#include "crypt32/store.h"
#include "openssl/ossl.h"

namespace {

using bv::ossl::UniquePtr;

// System stores of the current user: "Small" with the signer alone, "Plain"
// the same with its key not under a PIN, and "Large" with 999 other
// certificates in front of the signer.
struct World {
  std::string folder;
  UniquePtr<EVP_PKEY> signer_key;
  UniquePtr<X509> signer;
  std::string signer_hash;

  World() {
    char pattern[] = "/tmp/bvsapssf-bench-XXXXXX";
    folder = mkdtemp(pattern);
    const std::string stores = folder + "/local/Brelvantec/Certificates/";
    for (const char* store : {"Root", "Small", "Plain", "Large"}) std::filesystem::create_directories(stores + store);
    setenv("BV_PLATFORM_LOCAL_APPDATA", (folder + "/local").c_str(), 1);
    setenv("BV_PLATFORM_COMMON_APPDATA", (folder + "/common").c_str(), 1);

    UniquePtr<EVP_PKEY> root_key = make_key();
    UniquePtr<X509> root = make_certificate("Bench Root", 1, root_key.get(), nullptr, root_key.get());
    write_der(stores + "Root/root.cer", root.get());
    UniquePtr<X509_CRL> crl(X509_CRL_new());
    X509_CRL_set_version(crl.get(), 1);
    X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(root.get()));
    UniquePtr<ASN1_STRING> now(ASN1_TIME_adj(nullptr, time(nullptr), -1, 0));
    UniquePtr<ASN1_STRING> next(ASN1_TIME_adj(nullptr, time(nullptr), 30, 0));
    X509_CRL_set1_lastUpdate(crl.get(), now.get());
    X509_CRL_set1_nextUpdate(crl.get(), next.get());
    X509_CRL_sign(crl.get(), root_key.get(), bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256));
    {
      UniquePtr<BIO> out(BIO_new_file((stores + "Root/root.crl").c_str(), "wb"));
      i2d_X509_CRL_bio(out.get(), crl.get());
    }

    signer_key = make_key();
    signer = make_certificate("Bench Signer", 2, signer_key.get(), root.get(), root_key.get());
    signer_hash = sha1_hex(signer.get());
    write_der(stores + "Small/signer.cer", signer.get());
    write_key(stores + "Small/signer.key", signer_key.get());
    write_der(stores + "Plain/signer.cer", signer.get());
    write_key(stores + "Plain/signer.key", signer_key.get(), false);

    UniquePtr<EVP_PKEY> filler_key = make_key();
    char stem[32];
    for (int i = 0; i < 999; ++i) {
      UniquePtr<X509> filler =
          make_certificate("Filler " + std::to_string(i), 1000 + i, filler_key.get(), root.get(), root_key.get());
      std::snprintf(stem, sizeof stem, "a%04d", i);
      write_der(stores + "Large/" + stem + ".cer", filler.get());
    }
    write_der(stores + "Large/z-signer.cer", signer.get());
    write_key(stores + "Large/z-signer.key", signer_key.get());

    // A time stamp authority under the same root, for bvtsa.
    UniquePtr<EVP_PKEY> tsa_key = make_key();
    UniquePtr<X509> tsa =
        make_certificate("Bench TSA", 3, tsa_key.get(), root.get(), root_key.get(), "critical,timeStamping");
    UniquePtr<BIO> tsa_out(BIO_new_file((folder + "/tsa.pem").c_str(), "wb"));
    PEM_write_bio_X509(tsa_out.get(), tsa.get());
    write_key(folder + "/tsa.key", tsa_key.get(), false);
  }
  ~World() { std::filesystem::remove_all(folder); }

  static World& get() {
    static World world;
    return world;
  }
};

// bvtsa for as long as the benchmarks run.
struct TimeStampService {
  static Bvtsa& get() {
    const std::string folder = World::get().folder;
    static Bvtsa service(BV_BENCH_TOOLS_DIR "/bvtsa", {"--cert", folder + "/tsa.pem", "--key", folder + "/tsa.key",
                                                       "--serial-file", folder + "/tsa.serial", "--log", "/dev/null"});
    return service;
  }
};

// Drops what a process keeps between calls: keys, store folders, revocation
// answers and with them chain verdicts.
void forget_everything_kept() {
  bv::platform::key_cache::forget_all();
  bv::platform::forget_cached_stores();
  bv::platform::revocation::clear_cache();
}

void sign_through_library(benchmark::State& state, const char* store, const std::string& id,
                          const char* format = "PKCS7", bool first_call = false) {
  World& world = World::get();
  const std::string data(static_cast<size_t>(state.range(0)), 'x');
  SsfInfo info{};
  info.strSigRcpId = static_cast<char*>(std::malloc(id.size()));
  std::copy(id.begin(), id.end(), info.strSigRcpId);
  info.strSigRcpIdL = static_cast<int32_t>(id.size());
  info.Profile = const_cast<char*>(store);
  info.ProfileL = static_cast<int32_t>(std::strlen(store));
  info.Password = const_cast<char*>(kPin);
  info.PasswordL = static_cast<int32_t>(std::strlen(kPin));
  SsfInfoNode node{nullptr, &info};
  for (auto _ : state) {
    if (first_call) {
      state.PauseTiming();
      forget_everything_kept();
      state.ResumeTiming();
    }
    unsigned char* out = nullptr;
    uint32_t out_length = 0;
    const SSF_RC rc = SsfSign(format, static_cast<int32_t>(std::strlen(format)), nullptr, 0, 0, 0, reinterpret_cast<const unsigned char*>(data.data()),
                              static_cast<int32_t>(data.size()), &node, &out, &out_length);
    if (rc != SSF_OK) {
      state.SkipWithError("SsfSign failed");
      break;
    }
    SsfDELSsfOctetstring(&out, &out_length);
  }
  std::free(info.strSigRcpId);
  (void)world;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_OpenSSL_CMS_sign(benchmark::State& state) {
  World& world = World::get();
  const std::string data(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    UniquePtr<BIO> in(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    UniquePtr<CMS_ContentInfo> cms(CMS_sign(world.signer.get(), world.signer_key.get(), nullptr, in.get(),
                                            CMS_BINARY | CMS_NOATTR | CMS_NOCERTS));
    unsigned char* der = nullptr;
    const int length = i2d_CMS_ContentInfo(cms.get(), &der);
    benchmark::DoNotOptimize(length);
    OPENSSL_free(der);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_SsfSign_SmallStore_ByHash(benchmark::State& state) {
  sign_through_library(state, "Small", World::get().signer_hash);
}
// The first call of a process: nothing kept yet.
void BM_SsfSign_SmallStore_FirstCall(benchmark::State& state) {
  sign_through_library(state, "Small", World::get().signer_hash, "PKCS7", true);
}

// One key derivation of the PIN, as the key file asks for it: what a first
// call cannot avoid.
void BM_OpenSSL_KeyFileDecrypt(benchmark::State& state) {
  World& world = World::get();
  UniquePtr<BIO> in(BIO_new_file((world.folder + "/local/Brelvantec/Certificates/Small/signer.key").c_str(), "rb"));
  UniquePtr<X509_SIG> encrypted(PEM_read_bio_PKCS8(in.get(), nullptr, nullptr, nullptr));
  if (!encrypted) {
    state.SkipWithError("no encrypted key");
    return;
  }
  for (auto _ : state) {
    UniquePtr<PKCS8_PRIV_KEY_INFO> info(PKCS8_decrypt(encrypted.get(), kPin, static_cast<int>(std::strlen(kPin))));
    benchmark::DoNotOptimize(info.get());
  }
}

void BM_SsfSign_SmallStore_PlainKey(benchmark::State& state) {
  sign_through_library(state, "Plain", World::get().signer_hash);
}
void BM_SsfSign_LargeStore_ByHash(benchmark::State& state) {
  sign_through_library(state, "Large", World::get().signer_hash);
}
void BM_SsfSign_LargeStore_ByDN(benchmark::State& state) {
  sign_through_library(state, "Large", "CN=Bench Signer, O=Bench");
}

// A message of `size` bytes signed once by the library (certificates in).
std::string signed_message(const char* format, size_t size) {
  World& world = World::get();
  const std::string data(size, 'x');
  SsfInfo info{};
  std::string id = world.signer_hash;
  info.strSigRcpId = id.data();
  info.strSigRcpIdL = static_cast<int32_t>(id.size());
  info.Profile = const_cast<char*>("Plain");
  info.ProfileL = 5;
  SsfInfoNode node{nullptr, &info};
  unsigned char* out = nullptr;
  uint32_t out_length = 0;
  if (SsfSign(format, static_cast<int32_t>(std::strlen(format)), nullptr, 0, 1, 0,
              reinterpret_cast<const unsigned char*>(data.data()), static_cast<int32_t>(data.size()), &node, &out,
              &out_length) != SSF_OK)
    std::abort();
  std::string message(reinterpret_cast<char*>(out), out_length);
  SsfDELSsfOctetstring(&out, &out_length);
  return message;
}

void verify_through_library(benchmark::State& state, const char* format, const std::string& message) {
  for (auto _ : state) {
    SsfInfoNode* list = nullptr;
    unsigned char* out = nullptr;
    uint32_t out_length = 0;
    const SSF_RC rc = SsfVerify(format, static_cast<int32_t>(std::strlen(format)), 0,
                                reinterpret_cast<const unsigned char*>(message.data()),
                                static_cast<int32_t>(message.size()), nullptr, 0, nullptr, 0, nullptr, 0, &list, &out,
                                &out_length);
    if (rc != SSF_OK) {
      state.SkipWithError("SsfVerify failed");
      break;
    }
    SsfDELSsfOctetstring(&out, &out_length);
    SsfDELSigRcpSsfInfoList(&list);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_SsfVerify_PKCS7(benchmark::State& state) {
  const std::string message = signed_message("PKCS7", static_cast<size_t>(state.range(0)));
  verify_through_library(state, "PKCS7", message);
}

void BM_SsfVerify_Cades_Offline(benchmark::State& state) {
  TimeStampService::get();
  const std::string message = signed_message("CADES", static_cast<size_t>(state.range(0)));
  verify_through_library(state, "CADES", message);
}

// The same message through CMS_verify with the root as the only trust.
void BM_OpenSSL_CMS_verify(benchmark::State& state) {
  World& world = World::get();
  const std::string message = signed_message("PKCS7", static_cast<size_t>(state.range(0)));
  UniquePtr<X509_STORE> store(X509_STORE_new());
  const std::string root_file = world.folder + "/local/Brelvantec/Certificates/Root/root.cer";
  UniquePtr<BIO> root_in(BIO_new_file(root_file.c_str(), "rb"));
  UniquePtr<X509> root(d2i_X509_bio(root_in.get(), nullptr));
  X509_STORE_add_cert(store.get(), root.get());
  for (auto _ : state) {
    UniquePtr<BIO> in(BIO_new_mem_buf(message.data(), static_cast<int>(message.size())));
    UniquePtr<CMS_ContentInfo> cms(d2i_CMS_bio(in.get(), nullptr));
    UniquePtr<BIO> out(BIO_new(BIO_s_mem()));
    if (CMS_verify(cms.get(), nullptr, store.get(), nullptr, out.get(), CMS_BINARY) != 1) {
      state.SkipWithError("CMS_verify failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_SsfSign_Cades_PlainKey(benchmark::State& state) {
  TimeStampService::get();
  sign_through_library(state, "Plain", World::get().signer_hash, "CADES");
}

BENCHMARK(BM_OpenSSL_CMS_sign)->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfSign_SmallStore_ByHash)->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfSign_SmallStore_PlainKey)->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfSign_SmallStore_FirstCall)->Arg(1024)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenSSL_KeyFileDecrypt)->Unit(benchmark::kMicrosecond);
// Throughput of one and two threads signing at once (signatures per second
// of wall time): the key cache and the stores are shared between them.
BENCHMARK(BM_OpenSSL_CMS_sign)->Name("Throughput/CMS_sign")->Arg(1024)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_SsfSign_SmallStore_ByHash)->Name("Throughput/SsfSign_PIN")->Arg(1024)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_SsfSign_LargeStore_ByHash)->Arg(1024)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfSign_LargeStore_ByDN)->Arg(1024)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfSign_Cades_PlainKey)->Arg(1024)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenSSL_CMS_verify)->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfVerify_PKCS7)->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfVerify_Cades_Offline)->Arg(1024)->Unit(benchmark::kMicrosecond);

}  // namespace
