// The world every fuzzer runs in, made once per process: a temporary folder
// with the stores of the fixed test PKI in fuzz/world (a GOST root with its
// CRL in Root, a signer whose key opens with PIN 1111 in the current user's
// My and in Addressbook, a time stamping authority), and the library's
// settings read again under it.  No certificate names a URL, so nothing
// goes to the network; a source that did reach for one would give up after
// 200 ms.  Also the small input helpers the fuzzers share.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/pem.h>

#include "bvsapssf.h"
#include "bvsapssf_api.h"
#include "certificate_factory.h"
#include "crypt32/store.h"

namespace bv::fuzz {

namespace fs = std::filesystem;
using bv::ossl::UniquePtr;

inline std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

inline void write_file(const fs::path& path, std::string_view bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// GOST keys, and the GOST public keys of certificates, decode only once the
// engine is loaded.
inline UniquePtr<X509> certificate_from(const fs::path& pem) {
  bv::ossl::gost_engine();
  auto all = bv::pki::certificates_of(read_file(pem));
  if (all.empty()) throw std::runtime_error("no certificate in " + pem.string());
  return std::move(all.front());
}

inline UniquePtr<EVP_PKEY> key_from(const fs::path& pem, const char* pin = nullptr) {
  bv::ossl::gost_engine();
  const std::string text = read_file(pem);
  UniquePtr<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  UniquePtr<EVP_PKEY> key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, const_cast<char*>(pin)));
  if (!key) throw std::runtime_error("no key in " + pem.string());
  return key;
}

// Where the fixed PKI lives (fuzz/world): make_corpus writes it once, every
// fuzzer and every corpus file uses the same.
inline fs::path pki_folder() { return fs::path(BV_FUZZ_DIR) / "world"; }

constexpr const char* kSignerPin = "1111";
constexpr std::string_view kDetachedContent = "data to be signed";

struct World {
  fs::path dir, local, common;
  UniquePtr<X509> root, signer, tsa;
  UniquePtr<EVP_PKEY> root_key, tsa_key;
  std::string signer_hash;  // SHA-1 of the signer's certificate, upper-case hex
  fs::path my() const { return local / "Brelvantec/Certificates/My"; }

  World() {
    char folder[] = "/tmp/bv-fuzz-XXXXXX";
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("no temporary folder");
    dir = folder;
    local = dir / "local";
    common = dir / "common";
    const fs::path pki = pki_folder();
    root = certificate_from(pki / "root.pem");
    signer = certificate_from(pki / "signer.pem");
    tsa = certificate_from(pki / "tsa.pem");
    root_key = key_from(pki / "root.key");
    tsa_key = key_from(pki / "tsa.key");
    signer_hash = bv::pki::certificate_hash(signer.get());
    const fs::path certificates = local / "Brelvantec/Certificates";
    write_file(certificates / "Root/root.cer", bv::pki::der_of(root.get()));
    write_file(certificates / "Root/root.crl",
               bv::pki::der_of(bv::pki::issue_crl(root.get(), root_key.get(), {}, -3600, 3650 * bv::pki::kDay).get()));
    write_file(certificates / "My/01-signer.cer", bv::pki::der_of(signer.get()));
    write_file(certificates / "My/01-signer.key", read_file(pki / "signer.key"));
    write_file(certificates / "Addressbook/signer.cer", bv::pki::der_of(signer.get()));
    fs::create_directories(common / "Brelvantec");
    setenv("BV_PLATFORM_LOCAL_APPDATA", local.c_str(), 1);
    setenv("BV_PLATFORM_COMMON_APPDATA", common.c_str(), 1);
    setenv("BV_PLATFORM_URL_TIMEOUT_MS", "200", 1);
    for (const char* name : {"BV_PLATFORM_ASKPASS", "BV_PLATFORM_SELECT", "BV_CADES_DEFAULT_TSP", "BV_SSF_ADD_TSP",
                             "BV_SSF_USERID", "BV_SSF_ASK_PIN_WHEN_EMPTY", "BV_SSF_VERIFYCERTFLAGS_ONSIGN"})
      unsetenv(name);
    // No controlling terminal: a PIN prompt would wait for a human.
    setsid();
    bv::platform::forget_cached_stores();
    config = Config();
  }
  ~World() {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;
};

inline World& world() {
  static World instance;
  return instance;
}

// A fuzzer's input cut into at most `count` pieces at each "\n--\n", the
// last piece taking the rest: several strings or files from one input.
inline std::vector<std::string> pieces(const uint8_t* data, size_t size, size_t count) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> out;
  constexpr std::string_view kCut = "\n--\n";
  while (out.size() + 1 < count) {
    const size_t at = rest.find(kCut);
    if (at == std::string_view::npos) break;
    out.emplace_back(rest.substr(0, at));
    rest.remove_prefix(at + kCut.size());
  }
  out.emplace_back(rest);
  return out;
}

// The time stamp request the timestamp fuzzer reads its answers against
// and make_corpus had answered: kDetachedContent hashed with GOST R
// 34.11-2012 256, a fixed nonce, the certificate asked for.
inline UniquePtr<TS_REQ> fixed_time_stamp_request() {
  const EVP_MD* md = bv::ossl::digest_by_nid(NID_id_GostR3411_2012_256);
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int hash_length = 0;
  UniquePtr<TS_REQ> request(TS_REQ_new());
  UniquePtr<TS_MSG_IMPRINT> imprint(TS_MSG_IMPRINT_new());
  UniquePtr<X509_ALGOR> algorithm(X509_ALGOR_new());
  UniquePtr<ASN1_STRING> nonce(ASN1_INTEGER_new());
  if (md == nullptr || !request || !imprint || !algorithm || !nonce ||
      EVP_Digest(kDetachedContent.data(), kDetachedContent.size(), hash, &hash_length, md, nullptr) != 1)
    std::abort();
  X509_ALGOR_set_md(algorithm.get(), md);
  ASN1_INTEGER_set(nonce.get(), 0x0123456789ABCDEL);
  if (!TS_REQ_set_version(request.get(), 1) || !TS_MSG_IMPRINT_set_algo(imprint.get(), algorithm.get()) ||
      !TS_MSG_IMPRINT_set_msg(imprint.get(), hash, static_cast<int>(hash_length)) ||
      !TS_REQ_set_msg_imprint(request.get(), imprint.get()) || !TS_REQ_set_nonce(request.get(), nonce.get()) ||
      !TS_REQ_set_cert_req(request.get(), 1))
    std::abort();
  return request;
}

// A host's record list, handed back as a host hands it back.
class Records {
 public:
  Records() = default;
  Records(const Records&) = delete;
  Records& operator=(const Records&) = delete;
  ~Records() { SsfDELSigRcpSsfInfoList(&list_); }

  SsfInfo* add(std::string_view id, std::string_view profile = {}, std::string_view pin = kSignerPin) {
    SsfInfo* info = nullptr;
    if (SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), nullptr, 0, profile.data(),
                            static_cast<int32_t>(profile.size()), pin.data(), static_cast<int32_t>(pin.size()),
                            SSF_RES_UNDEFINED, &info) != SSF_OK)
      return nullptr;
    SsfINSSigRcpSsfInfo(info, &list_);
    return info;
  }
  SsfInfoNode* list() const { return list_; }
  SsfInfoNode** address() { return &list_; }

 private:
  SsfInfoNode* list_ = nullptr;
};

// An output block of the library, released as a host releases it.
struct Output {
  unsigned char* data = nullptr;
  uint32_t length = 0;
  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output() {
    if (data != nullptr) SsfDELSsfOctetstring(&data, &length);
  }
  std::string bytes() const { return data == nullptr ? std::string() : std::string(reinterpret_cast<char*>(data), length); }
};

inline const unsigned char* bytes_of(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }
inline int32_t length_of(std::string_view text) { return static_cast<int32_t>(text.size()); }

}  // namespace bv::fuzz
