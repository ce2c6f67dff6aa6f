// Certificate, CRL and key files in store folders, then the lookups that
// read them: a signer by the hash of the first file (its key file read,
// once with the chain checked and once without), and a recipient by DN,
// which renders every subject of the store.  The pieces of the input are
// Fuzz/a.cer, Fuzz/b.pem, CA/c.crl (the chain engine's CRLs) and Fuzz/a.key.
#include <openssl/sha.h>

#include "world.h"

using namespace bv::fuzz;

namespace {

void replace_file(const fs::path& path, const std::string& bytes) {
  if (bytes.empty())
    fs::remove(path);
  else
    write_file(path, bytes);
}

std::string upper_hex_sha1(const std::string& bytes) {
  unsigned char digest[20];
  SHA1(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  for (unsigned char byte : digest) hex += {kDigits[byte >> 4], kDigits[byte & 15]};
  return hex;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every signing reads the key file, as the first signing of a process does.
  setenv("BV_PLATFORM_KEY_CACHE_SECONDS", "0", 1);
  world();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> files = pieces(data, size, 4);
  const fs::path certificates = world().local / "Brelvantec/Certificates";
  const std::string names[] = {"Fuzz/a.cer", "Fuzz/b.pem", "CA/c.crl", "Fuzz/a.key"};
  for (size_t i = 0; i < 4; ++i) replace_file(certificates / names[i], i < files.size() ? files[i] : std::string());
  fs::create_directories(certificates / "Fuzz");
  bv::platform::forget_cached_stores();

  const std::string by_hash = upper_hex_sha1(files[0]);
  for (int32_t verify_chain : {1, 0}) {
    config.VerifyCertOnSign = verify_chain;
    Records signer;
    signer.add(by_hash, "Fuzz");
    Output out;
    SsfSign("PKCS7", 5, nullptr, 0, 0, 0, bytes_of(kDetachedContent), length_of(kDetachedContent), signer.list(),
            &out.data, &out.length);
  }
  Records recipient;
  recipient.add("CN=Fuzz Signer, O=Fuzz Bank", "Fuzz");
  Output out;
  SsfEnvelope("PKCS7", 5, "GOST28147", 9, bytes_of(kDetachedContent), length_of(kDetachedContent), nullptr, 0, nullptr, 0,
              recipient.list(), &out.data, &out.length);
  return 0;
}
