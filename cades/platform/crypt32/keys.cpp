// The key link: a certificate file's private key is the PKCS #8 file of the
// same stem with ".key" beside it, plain or encrypted under the PIN.  What
// the link names, how it reads as key provider information, and the key
// file itself are kept here alone.
#include "crypt32/keys.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "advapi32/provider_internal.h"
#include "crypt32/cert.h"
#include "kernel32/files.h"
#include "kernel32/kernel32.h"

namespace bv::platform {
namespace {

struct KeyAlgorithm {
  const char* oid;
  DWORD provider_type;
};
constexpr KeyAlgorithm kKeyAlgorithms[] = {
    {"1.2.643.2.2.19", PROV_GOST_2001_DH},
    {"1.2.643.7.1.1.1.1", PROV_GOST_2012_256},
    {"1.2.643.7.1.1.1.2", PROV_GOST_2012_512},
};

}  // namespace

DWORD provider_type_for_key(const std::string& key_oid) {
  for (const KeyAlgorithm& known : kKeyAlgorithms)
    if (key_oid == known.oid) return known.provider_type;
  return 0;
}

std::string key_file_for(const std::string& certificate_file) {
  return certificate_file.substr(0, certificate_file.rfind('.')) + ".key";
}

bool key_file_prov_info(const std::string& key_file, const std::string& key_oid, KeyProvInfo& out) {
  if (key_file.empty()) return false;
  out = KeyProvInfo{};
  out.container = utf16_of(key_file);
  out.dwProvType = provider_type_for_key(key_oid);
  if (const char* name = provider_name(out.dwProvType)) {
    out.provider = utf16_of(name);
    out.has_provider = true;
  }
  // GOST keys here serve signing and key agreement alike.
  out.dwKeySpec = AT_KEYEXCHANGE;
  return true;
}

void wipe_key_prov_info(KeyProvInfo& info) {
  for (auto& param : info.params) std::fill(param.data.begin(), param.data.end(), 0);
}

namespace {
// A library context with no provider in it: converting a PKCS #8 structure
// there finds no decoder at once and takes the engine's own key methods,
// where the default context would first build every provider's decoders
// (most of the cost of opening a key without a PIN).
OSSL_LIB_CTX* context_without_decoders() {
  static OSSL_LIB_CTX* const context = [] {
    OSSL_LIB_CTX* made = OSSL_LIB_CTX_new();
    if (made != nullptr && OSSL_PROVIDER_load(made, "null") == nullptr) {
      OSSL_LIB_CTX_free(made);
      made = nullptr;
    }
    return made;
  }();
  return context;
}

// The DER inside a PEM key file, and whether its label says it is encrypted;
// empty for anything that is not one PEM block.
std::string der_of_pem(const std::string& text, bool* encrypted) {
  bv::ossl::UniquePtr<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* data = nullptr;
  long length = 0;
  std::string der;
  if (bio && PEM_read_bio(bio.get(), &name, &header, &data, &length) == 1) {
    *encrypted = std::strcmp(name, PEM_STRING_PKCS8) == 0;
    if (*encrypted || std::strcmp(name, PEM_STRING_PKCS8INF) == 0)
      der.assign(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
  }
  if (data != nullptr) OPENSSL_clear_free(data, static_cast<size_t>(length));
  OPENSSL_free(name);
  OPENSSL_free(header);
  return der;
}
}  // namespace

EVP_PKEY* key_of(const PKCS8_PRIV_KEY_INFO* info) {
  if (info == nullptr) return nullptr;
  OSSL_LIB_CTX* context = context_without_decoders();
  return context != nullptr ? EVP_PKCS82PKEY_ex(info, context, nullptr) : EVP_PKCS82PKEY(info);
}

// One key derivation at most: the PKCS #8 structure is read here, decrypted
// once and converted, without OpenSSL's decoders (which decrypt a second
// time when they find no decoder for an engine's key).
KeyFileResult read_key_file(const std::string& path, const std::string* pin, bv::ossl::UniquePtr<EVP_PKEY>& key) {
  bv::ossl::gost_engine();  // GOST keys decode through the engine's methods
  key.reset();
  std::string bytes = read_whole_file(path);  // wiped below once read
  if (bytes.empty()) return KeyFileResult::kUnreadable;
  bool pem_encrypted = false;
  std::string der = bytes.find("-----BEGIN") != std::string::npos ? der_of_pem(bytes, &pem_encrypted) : bytes;
  KeyFileResult result = KeyFileResult::kUnreadable;
  const unsigned char* cursor = reinterpret_cast<const unsigned char*>(der.data());
  bv::ossl::UniquePtr<X509_SIG> encrypted(
      der.empty() ? nullptr : d2i_X509_SIG(nullptr, &cursor, static_cast<long>(der.size())));
  if (encrypted) {
    if (pin == nullptr) {
      result = KeyFileResult::kNeedsPin;
    } else {
      bv::ossl::UniquePtr<PKCS8_PRIV_KEY_INFO> info(
          PKCS8_decrypt(encrypted.get(), pin->data(), static_cast<int>(pin->size())));
      key.reset(key_of(info.get()));
      result = key ? KeyFileResult::kOpened : KeyFileResult::kWrongPin;
    }
  } else if (!der.empty() && !pem_encrypted) {
    cursor = reinterpret_cast<const unsigned char*>(der.data());
    bv::ossl::UniquePtr<PKCS8_PRIV_KEY_INFO> info(
        d2i_PKCS8_PRIV_KEY_INFO(nullptr, &cursor, static_cast<long>(der.size())));
    key.reset(key_of(info.get()));
    result = key ? KeyFileResult::kOpened : KeyFileResult::kUnreadable;
  }
  OPENSSL_cleanse(der.data(), der.size());
  OPENSSL_cleanse(bytes.data(), bytes.size());
  ERR_clear_error();
  return result;
}

bool write_key_file(const std::string& path, EVP_PKEY* key, const std::string& pin) {
  bv::ossl::UniquePtr<BIO> memory(BIO_new(BIO_s_mem()));
  if (!memory) return bv::ossl::fail(NTE_NO_MEMORY);
  const EVP_CIPHER* cipher = pin.empty() ? nullptr : EVP_aes_256_cbc();
  if (PEM_write_bio_PKCS8PrivateKey(memory.get(), key, cipher, pin.empty() ? nullptr : const_cast<char*>(pin.data()),
                                    static_cast<int>(pin.size()), nullptr, nullptr) != 1) {
    return bv::ossl::fail(NTE_BAD_KEY);
  }
  char* data = nullptr;
  const long length = BIO_get_mem_data(memory.get(), &data);
  const int error = replace_file(path, std::string_view(data, static_cast<size_t>(length)), 0600);
  if (error != 0) return bv::ossl::fail(error == EACCES ? ERROR_ACCESS_DENIED : CRYPT_E_FILE_ERROR);
  return true;
}

namespace {
// The EC_KEY of a GOST key (the engine's keys are of the legacy kind, whose
// EC_KEY can be reached); null for any other key.
const EC_KEY* gost_ec_key(EVP_PKEY* key) {
  if (key == nullptr) return nullptr;
  const int id = EVP_PKEY_get_base_id(key);
  if (id != NID_id_GostR3410_2001 && id != NID_id_GostR3410_2012_256 && id != NID_id_GostR3410_2012_512)
    return nullptr;
  const auto* ec = static_cast<const EC_KEY*>(EVP_PKEY_get0(key));
  ERR_clear_error();
  return ec;
}
}  // namespace

size_t private_scalar(EVP_PKEY* key, unsigned char* out, size_t capacity) {
  const EC_KEY* ec = gost_ec_key(key);
  const BIGNUM* scalar = ec != nullptr ? EC_KEY_get0_private_key(ec) : nullptr;
  if (scalar == nullptr || static_cast<size_t>(BN_num_bytes(scalar)) > capacity) return 0;
  return static_cast<size_t>(BN_bn2bin(scalar, out));
}

size_t public_point(EVP_PKEY* key, unsigned char* out, size_t capacity) {
  const EC_KEY* ec = gost_ec_key(key);
  const EC_POINT* point = ec != nullptr ? EC_KEY_get0_public_key(ec) : nullptr;
  const size_t length =
      point != nullptr
          ? EC_POINT_point2oct(EC_KEY_get0_group(ec), point, POINT_CONVERSION_UNCOMPRESSED, out, capacity, nullptr)
          : 0;
  ERR_clear_error();
  return length;
}

EVP_PKEY* key_from_scalar(EVP_PKEY* public_key, const unsigned char* scalar, size_t length) {
  const EC_KEY* public_ec = gost_ec_key(public_key);
  if (public_ec == nullptr) return nullptr;
  // The engine's parameter copy gives the new key its EC_KEY and group.
  bv::ossl::UniquePtr<EVP_PKEY> key(EVP_PKEY_new());
  bv::ossl::UniquePtr<BIGNUM> private_value(BN_secure_new());
  EC_KEY* ec = nullptr;
  const bool made = key && private_value && EVP_PKEY_copy_parameters(key.get(), public_key) == 1 &&
                    (ec = static_cast<EC_KEY*>(EVP_PKEY_get0(key.get()))) != nullptr &&
                    BN_bin2bn(scalar, static_cast<int>(length), private_value.get()) != nullptr &&
                    EC_KEY_set_private_key(ec, private_value.get()) == 1 &&
                    EC_KEY_set_public_key(ec, EC_KEY_get0_public_key(public_ec)) == 1;
  if (private_value) BN_clear(private_value.get());
  ERR_clear_error();
  return made ? key.release() : nullptr;
}

bool key_matches_certificate(EVP_PKEY* key, X509* certificate) {
  if (key == nullptr || certificate == nullptr) return false;
  EVP_PKEY* public_key = X509_get0_pubkey(certificate);
  const bool same = public_key != nullptr && EVP_PKEY_eq(public_key, key) == 1;
  ERR_clear_error();
  return same;
}

}  // namespace bv::platform
