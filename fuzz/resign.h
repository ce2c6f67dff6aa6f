// Re-signing for the fuzzers of signed answers (OCSP, CRL, time stamp).  A
// byte changed inside a signed part breaks the signature, and the readers
// then stop at its check: the fuzzer would never see what lies behind it.
// So the mutator signs a mutated answer again with the world's key that
// signed its seed, whenever the answer still decodes, and leaves one in
// four as mutated so the broken-signature paths stay fuzzed too.  Replays
// read the files as they are: a finding is the bytes that were read.
#pragma once

#include <openssl/ocsp.h>
#include <openssl/pkcs7.h>
#include <openssl/ts.h>

#include <cstring>

#include "world.h"

namespace bv::fuzz {

// An OCSP response whose basic response is signed again by the root, its
// produced-at time and certificates kept.  Empty if `body` is none.
inline std::string resigned_ocsp(std::string_view body) {
  const auto* in = reinterpret_cast<const unsigned char*>(body.data());
  UniquePtr<OCSP_RESPONSE> response(d2i_OCSP_RESPONSE(nullptr, &in, static_cast<long>(body.size())));
  if (!response) return {};
  UniquePtr<OCSP_BASICRESP> basic(OCSP_response_get1_basic(response.get()));
  EVP_PKEY* key = world().root_key.get();
  if (!basic || OCSP_basic_sign(basic.get(), world().root.get(), key, bv::pki::digest_for_key(key), nullptr,
                                OCSP_NOCERTS | OCSP_NOTIME) != 1)
    return {};
  UniquePtr<OCSP_RESPONSE> again(OCSP_response_create(OCSP_response_status(response.get()), basic.get()));
  return again ? bv::ossl::der_of(again.get(), i2d_OCSP_RESPONSE) : std::string();
}

// A DER CRL signed again by the root.
inline std::string resigned_crl(std::string_view body) {
  const auto* in = reinterpret_cast<const unsigned char*>(body.data());
  UniquePtr<X509_CRL> crl(d2i_X509_CRL(nullptr, &in, static_cast<long>(body.size())));
  EVP_PKEY* key = world().root_key.get();
  if (!crl || X509_CRL_sign(crl.get(), key, bv::pki::digest_for_key(key)) <= 0) return {};
  return bv::ossl::der_of(crl.get(), i2d_X509_CRL);
}

// A time stamp response whose first signer signs again, by the authority's
// key, the token's TSTInfo as it now stands: the message digest attribute
// made anew, every other signed attribute kept.
inline std::string resigned_time_stamp(std::string_view body) {
  const auto* in = reinterpret_cast<const unsigned char*>(body.data());
  UniquePtr<TS_RESP> response(d2i_TS_RESP(nullptr, &in, static_cast<long>(body.size())));
  PKCS7* token = response ? TS_RESP_get_token(response.get()) : nullptr;
  if (token == nullptr || !PKCS7_type_is_signed(token) || token->d.sign == nullptr) return {};
  PKCS7* inner = token->d.sign->contents;
  PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(token->d.sign->signer_info, 0);
  if (inner == nullptr || PKCS7_type_is_data(inner) || inner->d.other == nullptr ||
      inner->d.other->type != V_ASN1_OCTET_STRING || signer == nullptr || signer->digest_alg == nullptr)
    return {};
  const ASN1_OCTET_STRING* tst_info = inner->d.other->value.octet_string;
  const EVP_MD* md = bv::ossl::digest_by_nid(OBJ_obj2nid(signer->digest_alg->algorithm));
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int hash_length = 0;
  if (md == nullptr || EVP_Digest(ASN1_STRING_get0_data(tst_info), static_cast<size_t>(ASN1_STRING_length(tst_info)),
                                  hash, &hash_length, md, nullptr) != 1 ||
      PKCS7_add1_attrib_digest(signer, hash, static_cast<int>(hash_length)) != 1)
    return {};
  EVP_PKEY_up_ref(world().tsa_key.get());
  EVP_PKEY_free(signer->pkey);
  signer->pkey = world().tsa_key.get();
  if (PKCS7_SIGNER_INFO_sign(signer) != 1) return {};
  return bv::ossl::der_of(response.get(), i2d_TS_RESP);
}

}  // namespace bv::fuzz

#ifdef BV_LIBFUZZER
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace bv::fuzz {
// The body of LLVMFuzzerCustomMutator for a fuzzer of signed answers.
template <typename Resign>
size_t mutate_and_resign(uint8_t* data, size_t size, size_t max_size, unsigned int seed, Resign resign) {
  size = LLVMFuzzerMutate(data, size, max_size);
  if (seed % 4 == 0) return size;
  const std::string again = resign(std::string_view(reinterpret_cast<const char*>(data), size));
  if (again.empty() || again.size() > max_size) return size;
  std::memcpy(data, again.data(), again.size());
  ERR_clear_error();
  return again.size();
}
}  // namespace bv::fuzz
#endif
