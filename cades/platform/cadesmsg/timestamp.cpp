#include "cadesmsg/timestamp.h"

#include <openssl/rand.h>

#include <cstdlib>

#include "http/http.h"
#include "kernel32/kernel32.h"
#include "kernel32/profile.h"
#include "shell32/shell32.h"

namespace bv::cades {

namespace {

using bv::ossl::fail;

std::string ini_default(int folder) {
  char path[MAX_PATH];
  if (SHGetFolderPathA(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path) != S_OK) return {};
  if (!PathAppendA(path, "Brelvantec\\cades.ini")) return {};
  char value[2048];
  if (GetPrivateProfileStringA("cades", "DefaultTSP", "", value, sizeof value, path) == 0) return {};
  return value;
}

bool has_critical_time_stamping_usage(X509* cert) {
  const int index = X509_get_ext_by_NID(cert, NID_ext_key_usage, -1);
  return index >= 0 && X509_EXTENSION_get_critical(X509_get_ext(cert, index)) == 1 &&
         (X509_get_extension_flags(cert) & EXFLAG_XKUSAGE) != 0 &&
         (X509_get_extended_key_usage(cert) & XKU_TIMESTAMP) != 0;
}

}  // namespace

std::string default_time_stamp_service() {
  std::string service;
  if (const char* value = std::getenv("BV_CADES_DEFAULT_TSP")) service = value;
  for (int folder : {CSIDL_LOCAL_APPDATA, CSIDL_COMMON_APPDATA})
    if (std::string value = ini_default(folder); !value.empty()) service = value;
  return service;
}

bool token_authority(const std::string& token, TimeStamp& out) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(token.data());
  UniquePtr<PKCS7> p7(d2i_PKCS7(nullptr, &cursor, static_cast<long>(token.size())));
  if (!p7 || !PKCS7_type_is_signed(p7.get())) return fail(TRUST_E_TIME_STAMP);
  STACK_OF(X509)* certs = p7->d.sign->cert;
  out.certificates.clear();
  for (int i = 0; i < sk_X509_num(certs); ++i) {
    X509_up_ref(sk_X509_value(certs, i));
    out.certificates.emplace_back(sk_X509_value(certs, i));
  }
  UniquePtr<STACK_OF(X509)> signers(PKCS7_get0_signers(p7.get(), nullptr, 0));
  if (!signers || sk_X509_num(signers.get()) != 1) return fail(TRUST_E_TIME_STAMP);
  X509* authority = sk_X509_value(signers.get(), 0);
  X509_up_ref(authority);
  out.authority.reset(authority);
  return true;
}

bool request_time_stamp(const std::string& url, const EVP_MD* md, std::string_view data,
                        const std::function<bool(TimeStamp&)>& prove_authority, TimeStamp& out) {
  if (url.empty()) return fail(ERROR_INTERNET_INVALID_URL);
  const std::string hash = digest_of(md, data);
  if (hash.empty()) return fail(NTE_BAD_ALGID);

  // The request: the imprint, a fresh nonce, the authority's certificate.
  UniquePtr<TS_REQ> request(TS_REQ_new());
  UniquePtr<TS_MSG_IMPRINT> imprint(TS_MSG_IMPRINT_new());
  UniquePtr<X509_ALGOR> algorithm(X509_ALGOR_new());
  unsigned char nonce_bytes[8];
  if (!request || !imprint || !algorithm || RAND_bytes(nonce_bytes, sizeof nonce_bytes) != 1)
    return fail(static_cast<DWORD>(E_OUTOFMEMORY));
  nonce_bytes[0] &= 0x7f;  // a positive INTEGER
  UniquePtr<BIGNUM> nonce_number(BN_bin2bn(nonce_bytes, sizeof nonce_bytes, nullptr));
  UniquePtr<ASN1_STRING> nonce(nonce_number ? BN_to_ASN1_INTEGER(nonce_number.get(), nullptr) : nullptr);
  X509_ALGOR_set_md(algorithm.get(), md);
  if (!nonce || !TS_REQ_set_version(request.get(), 1) || !TS_MSG_IMPRINT_set_algo(imprint.get(), algorithm.get()) ||
      !TS_MSG_IMPRINT_set_msg(imprint.get(), reinterpret_cast<unsigned char*>(const_cast<char*>(hash.data())),
                              static_cast<int>(hash.size())) ||
      !TS_REQ_set_msg_imprint(request.get(), imprint.get()) || !TS_REQ_set_nonce(request.get(), nonce.get()) ||
      !TS_REQ_set_cert_req(request.get(), 1))
    return fail(static_cast<DWORD>(E_OUTOFMEMORY));

  bv::platform::http::Request http_request;
  http_request.url = url;
  http_request.content_type = "application/timestamp-query";
  http_request.body = der_of(request.get(), i2d_TS_REQ);
  http_request.timeout = bv::platform::revocation::default_timeout();
  http_request.allow_https = true;
  http_request.max_response = 1u << 20;
  bv::platform::http::Body body;
  if (!bv::platform::http::fetch(http_request, body)) return false;
  return read_time_stamp_response(body->bytes(), request.get(), prove_authority, out);
}

bool read_time_stamp_response(std::string_view body, TS_REQ* request,
                              const std::function<bool(TimeStamp&)>& prove_authority, TimeStamp& out) {
  const std::string_view hash = bv::ossl::bytes_of(TS_MSG_IMPRINT_get_msg(TS_REQ_get_msg_imprint(request)));
  const ASN1_INTEGER* nonce = TS_REQ_get_nonce(request);
  // The answer, checked before anything of it is used.
  const auto* cursor = reinterpret_cast<const unsigned char*>(body.data());
  UniquePtr<TS_RESP> response(d2i_TS_RESP(nullptr, &cursor, static_cast<long>(body.size())));
  if (!response) return fail(ERROR_HTTP_INVALID_SERVER_RESPONSE);
  const long status = ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(TS_RESP_get_status_info(response.get())));
  if (status != TS_STATUS_GRANTED && status != TS_STATUS_GRANTED_WITH_MODS) return fail(static_cast<DWORD>(E_ACCESSDENIED));
  PKCS7* token = TS_RESP_get_token(response.get());
  TS_TST_INFO* info = TS_RESP_get_tst_info(response.get());
  if (token == nullptr || info == nullptr) return fail(ERROR_HTTP_INVALID_SERVER_RESPONSE);
  const ASN1_OCTET_STRING* stamped = TS_MSG_IMPRINT_get_msg(TS_TST_INFO_get_msg_imprint(info));
  const ASN1_INTEGER* stamped_nonce = TS_TST_INFO_get_nonce(info);
  if (stamped == nullptr || std::string_view(reinterpret_cast<const char*>(ASN1_STRING_get0_data(stamped)),
                                             static_cast<size_t>(ASN1_STRING_length(stamped))) != hash ||
      stamped_nonce == nullptr || nonce == nullptr || ASN1_INTEGER_cmp(stamped_nonce, nonce) != 0)
    return fail(TRUST_E_TIME_STAMP);

  out.token = der_of(token, i2d_PKCS7);
  if (out.token.empty() || !token_authority(out.token, out)) return fail(TRUST_E_TIME_STAMP);
  if (!has_critical_time_stamping_usage(out.authority.get())) return fail(CERT_E_WRONG_USAGE);

  // The authority's standing comes from the chain engine, whose signature
  // checks are remembered across calls; OpenSSL then checks the token's
  // signature (and its signing certificate attribute) against the authority
  // alone, and the imprint and nonce once more by its own rules.
  if (!prove_authority(out)) return false;
  UniquePtr<TS_VERIFY_CTX> verify(TS_REQ_to_TS_VERIFY_CTX(request, nullptr));
  UniquePtr<X509_STORE> authority(X509_STORE_new());
  if (!verify || !authority || !X509_STORE_add_cert(authority.get(), out.authority.get()))
    return fail(static_cast<DWORD>(E_OUTOFMEMORY));
  X509_STORE_set_flags(authority.get(), X509_V_FLAG_PARTIAL_CHAIN);
  TS_VERIFY_CTX_set_store(verify.get(), authority.release());
  TS_VERIFY_CTX_add_flags(verify.get(), TS_VFY_SIGNATURE);
  if (TS_RESP_verify_response(verify.get(), response.get()) != 1) return fail(TRUST_E_TIME_STAMP);
  ERR_clear_error();
  return true;
}

}  // namespace bv::cades
