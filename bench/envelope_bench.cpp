// SsfEnvelope and SsfDevelope (GOST 28147-89, one GOST 2012-256 recipient)
// against OpenSSL's CMS_encrypt and CMS_decrypt with the same certificate,
// key and cipher, from 1 KiB to 64 MiB.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "bench_pki.h"
#include "bvsapssf_api.h"

namespace {

// The recipient's certificate with its key (not under a PIN) in the current
// user's store "Recipient".
struct RecipientWorld {
  std::string folder;
  UniquePtr<EVP_PKEY> key;
  UniquePtr<X509> cert;
  std::string hash;

  RecipientWorld() {
    char pattern[] = "/tmp/bvsapssf-bench-XXXXXX";
    folder = mkdtemp(pattern);
    const std::string store = folder + "/local/Brelvantec/Certificates/Recipient/";
    std::filesystem::create_directories(store);
    setenv("BV_PLATFORM_LOCAL_APPDATA", (folder + "/local").c_str(), 1);
    setenv("BV_PLATFORM_COMMON_APPDATA", (folder + "/common").c_str(), 1);
    key = make_key();
    cert = make_certificate("Bench Recipient", 7, key.get(), nullptr, key.get());
    hash = sha1_hex(cert.get());
    write_der(store + "recipient.cer", cert.get());
    write_key(store + "recipient.key", key.get(), false);
  }
  ~RecipientWorld() { std::filesystem::remove_all(folder); }

  static RecipientWorld& get() {
    static RecipientWorld world;
    return world;
  }
};

std::string content_of_size(benchmark::State& state) { return std::string(static_cast<size_t>(state.range(0)), 'x'); }

SsfInfo recipient_record(std::string& id) {
  SsfInfo info{};
  info.strSigRcpId = id.data();
  info.strSigRcpIdL = static_cast<int32_t>(id.size());
  info.Profile = const_cast<char*>("Recipient");
  info.ProfileL = 9;
  return info;
}

// One message made by the library, as the decrypting benchmarks read.
std::string enveloped_by_library(const std::string& data) {
  std::string id = RecipientWorld::get().hash;
  SsfInfo info = recipient_record(id);
  SsfInfoNode node{nullptr, &info};
  unsigned char* out = nullptr;
  uint32_t out_length = 0;
  if (SsfEnvelope("PKCS7", 5, "GOST28147", 9, reinterpret_cast<const unsigned char*>(data.data()),
                  static_cast<int32_t>(data.size()), "Recipient", 9, nullptr, 0, &node, &out, &out_length) != SSF_OK)
    std::abort();
  std::string message(reinterpret_cast<char*>(out), out_length);
  SsfDELSsfOctetstring(&out, &out_length);
  return message;
}

void BM_SsfEnvelope(benchmark::State& state) {
  const std::string data = content_of_size(state);
  std::string id = RecipientWorld::get().hash;
  SsfInfo info = recipient_record(id);
  SsfInfoNode node{nullptr, &info};
  for (auto _ : state) {
    unsigned char* out = nullptr;
    uint32_t out_length = 0;
    if (SsfEnvelope("PKCS7", 5, "GOST28147", 9, reinterpret_cast<const unsigned char*>(data.data()),
                    static_cast<int32_t>(data.size()), "Recipient", 9, nullptr, 0, &node, &out,
                    &out_length) != SSF_OK) {
      state.SkipWithError("SsfEnvelope failed");
      break;
    }
    SsfDELSsfOctetstring(&out, &out_length);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// The engine is not OpenSSL's default here, so the key transport is told
// the content cipher, as the library's encoder does.
void BM_OpenSSL_CMS_encrypt(benchmark::State& state) {
  RecipientWorld& world = RecipientWorld::get();
  const std::string data = content_of_size(state);
  const EVP_CIPHER* cipher = bv::ossl::cipher_by_nid(NID_id_Gost28147_89);
  for (auto _ : state) {
    UniquePtr<BIO> in(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    UniquePtr<CMS_ContentInfo> cms(CMS_encrypt(nullptr, nullptr, cipher, CMS_BINARY | CMS_PARTIAL));
    CMS_RecipientInfo* recipient = CMS_add1_recipient_cert(cms.get(), world.cert.get(), CMS_BINARY | CMS_KEY_PARAM);
    EVP_PKEY_CTX* key_context = recipient != nullptr ? CMS_RecipientInfo_get0_pkey_ctx(recipient) : nullptr;
    unsigned char* der = nullptr;
    const int length =
        key_context != nullptr &&
                EVP_PKEY_CTX_ctrl(key_context, -1, -1, EVP_PKEY_CTRL_CIPHER, NID_id_Gost28147_89, nullptr) > 0 &&
                CMS_final(cms.get(), in.get(), nullptr, CMS_BINARY) == 1
            ? i2d_CMS_ContentInfo(cms.get(), &der)
            : -1;
    OPENSSL_free(der);
    if (length <= 0) {
      state.SkipWithError("CMS_encrypt failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_SsfDevelope(benchmark::State& state) {
  const std::string message = enveloped_by_library(content_of_size(state));
  std::string id = RecipientWorld::get().hash;
  SsfInfo info = recipient_record(id);
  for (auto _ : state) {
    unsigned char* out = nullptr;
    uint32_t out_length = 0;
    if (SsfDevelope("PKCS7", 5, reinterpret_cast<const unsigned char*>(message.data()),
                    static_cast<int32_t>(message.size()), &info, &out, &out_length) != SSF_OK) {
      state.SkipWithError("SsfDevelope failed");
      break;
    }
    SsfDELSsfOctetstring(&out, &out_length);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// The same message: parsed, the key transported back, the content decrypted.
void BM_OpenSSL_CMS_decrypt(benchmark::State& state) {
  RecipientWorld& world = RecipientWorld::get();
  const std::string message = enveloped_by_library(content_of_size(state));
  for (auto _ : state) {
    UniquePtr<BIO> in(BIO_new_mem_buf(message.data(), static_cast<int>(message.size())));
    UniquePtr<CMS_ContentInfo> cms(d2i_CMS_bio(in.get(), nullptr));
    UniquePtr<BIO> out(BIO_new(BIO_s_mem()));
    if (!cms || CMS_decrypt(cms.get(), world.key.get(), world.cert.get(), nullptr, out.get(), CMS_BINARY) != 1) {
      state.SkipWithError("CMS_decrypt failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(BM_OpenSSL_CMS_encrypt)->Arg(1024)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfEnvelope)->Arg(1024)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenSSL_CMS_decrypt)->Arg(1024)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SsfDevelope)->Arg(1024)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMicrosecond);

}  // namespace
