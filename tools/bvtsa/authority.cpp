#include "authority.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "certificate_factory.h"
#include "cli.h"
#include "crypt32/keys.h"
#include "kernel32/files.h"

namespace bvtsa {
namespace {

using bv::ossl::UniquePtr;

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what + ": " + bv::ossl::take_error_text());
}

std::vector<UniquePtr<X509>> certificates_in(const std::string& path) {
  bv::cli::require_readable(path);
  const std::string bytes = bv::platform::read_whole_file(path);
  if (bytes.empty()) throw std::runtime_error("cannot read " + path);
  auto certificates = bv::pki::certificates_of(bytes);
  if (certificates.empty()) throw std::runtime_error("no certificate in " + path);
  return certificates;
}

UniquePtr<EVP_PKEY> key_in(const AuthoritySettings& settings) {
  UniquePtr<EVP_PKEY> key;
  bv::cli::require_readable(settings.key_file);
  switch (bv::platform::read_key_file(settings.key_file, settings.pin, key)) {
    case bv::platform::KeyFileResult::kOpened:
      return key;
    case bv::platform::KeyFileResult::kNeedsPin:
      throw std::runtime_error(settings.key_file + " is encrypted: give --pin");
    case bv::platform::KeyFileResult::kWrongPin:
      throw std::runtime_error("wrong --pin for " + settings.key_file);
    default:
      throw std::runtime_error("no key in " + settings.key_file);
  }
}

// Status names and failure bits as RFC 3161 calls them.
std::string status_text(TS_RESP* response) {
  const TS_STATUS_INFO* info = TS_RESP_get_status_info(response);
  static const char* const kStatuses[] = {"granted", "grantedWithMods", "rejection", "waiting",
                                          "revocationWarning", "revocationNotification"};
  const long status = ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(info));
  std::string text = status >= 0 && status < 6 ? kStatuses[status] : "status" + std::to_string(status);
  static const struct {
    int bit;
    const char* name;
  } kFailures[] = {{TS_INFO_BAD_ALG, "badAlg"},
                   {TS_INFO_BAD_REQUEST, "badRequest"},
                   {TS_INFO_BAD_DATA_FORMAT, "badDataFormat"},
                   {TS_INFO_TIME_NOT_AVAILABLE, "timeNotAvailable"},
                   {TS_INFO_UNACCEPTED_POLICY, "unacceptedPolicy"},
                   {TS_INFO_UNACCEPTED_EXTENSION, "unacceptedExtension"},
                   {TS_INFO_ADD_INFO_NOT_AVAILABLE, "addInfoNotAvailable"},
                   {TS_INFO_SYSTEM_FAILURE, "systemFailure"}};
  if (const ASN1_BIT_STRING* failures = TS_STATUS_INFO_get0_failure_info(info)) {
    for (const auto& failure : kFailures)
      if (ASN1_BIT_STRING_get_bit(failures, failure.bit)) text += std::string(":") + failure.name;
  }
  return text;
}

std::string hex_of(const ASN1_INTEGER* number) {
  UniquePtr<BIGNUM> value(ASN1_INTEGER_to_BN(number, nullptr));
  char* hex = value ? BN_bn2hex(value.get()) : nullptr;
  const std::string text = hex != nullptr ? hex : "?";
  OPENSSL_free(hex);
  return text;
}

}  // namespace

bool read_serial_file(const std::string& path, UniquePtr<BIGNUM>& serial) {
  serial.reset(BN_new());
  if (!serial) return false;
  const std::string bytes = bv::platform::read_whole_file(path);
  if (bytes.empty()) return access(path.c_str(), F_OK) != 0;  // no file yet: nothing issued
  std::string digits = bytes;
  while (!digits.empty() && std::isspace(static_cast<unsigned char>(digits.back()))) digits.pop_back();
  const bool hex = !digits.empty() && digits.size() <= 40 &&
                   std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isxdigit(c); });
  BIGNUM* parsed = serial.get();
  return hex && BN_hex2bn(&parsed, digits.c_str()) == static_cast<int>(digits.size());
}

TimeStampAuthority::TimeStampAuthority(const AuthoritySettings& settings) : serial_file_(settings.serial_file) {
  check(bv::ossl::gost_engine() != nullptr, "the GOST engine");
  certificate_ = std::move(certificates_in(settings.certificate_file).front());
  key_ = key_in(settings);
  if (!bv::platform::key_matches_certificate(key_.get(), certificate_.get()))
    throw std::runtime_error(settings.key_file + " is not the key of " + settings.certificate_file);
  chain_.reset(sk_X509_new_null());
  if (!settings.chain_file.empty()) {
    for (auto& certificate : certificates_in(settings.chain_file)) {
      check(chain_ && sk_X509_push(chain_.get(), certificate.get()) > 0, "chain");
      certificate.release();
    }
  }
  UniquePtr<BIGNUM> serial;
  if (!read_serial_file(serial_file_, serial))
    throw std::runtime_error(serial_file_ + " holds no hexadecimal serial number");
  UniquePtr<ASN1_OBJECT> policy(OBJ_txt2obj(settings.policy.c_str(), 1));
  if (!policy) throw std::runtime_error("bad policy OID " + settings.policy);

  context_.reset(TS_RESP_CTX_new());
  check(context_ != nullptr, "time stamp context");
  // Refuses a certificate without the critical time stamping usage.
  check(TS_RESP_CTX_set_signer_cert(context_.get(), certificate_.get()) == 1, settings.certificate_file);
  check(TS_RESP_CTX_set_signer_key(context_.get(), key_.get()) == 1, "signer key");
  // The key's own GOST hash signs, and names the certificate in
  // signing-certificate-v2.
  const EVP_MD* digest = bv::pki::digest_for_key(key_.get());
  check(digest != nullptr && TS_RESP_CTX_set_signer_digest(context_.get(), digest) == 1 &&
            TS_RESP_CTX_set_ess_cert_id_digest(context_.get(), digest) == 1,
        "signer digest");
  check(TS_RESP_CTX_set_certs(context_.get(), chain_.get()) == 1, "chain");
  check(TS_RESP_CTX_set_def_policy(context_.get(), policy.get()) == 1, "policy");
  for (int nid : {NID_id_GostR3411_2012_256, NID_id_GostR3411_2012_512, NID_id_GostR3411_94, NID_sha1, NID_sha256}) {
    const EVP_MD* accepted = bv::ossl::digest_by_nid(nid);
    check(accepted != nullptr && TS_RESP_CTX_add_md(context_.get(), accepted) == 1, OBJ_nid2sn(nid));
  }
  TS_RESP_CTX_add_flags(context_.get(), TS_TSA_NAME);
  TS_RESP_CTX_set_serial_cb(context_.get(), next_serial, this);
  ERR_clear_error();
}

// Issued numbers are written down before the token leaves, so a restart
// never issues one twice.
ASN1_INTEGER* TimeStampAuthority::next_serial(TS_RESP_CTX* context, void* authority) {
  const std::string& path = static_cast<TimeStampAuthority*>(authority)->serial_file_;
  UniquePtr<BIGNUM> serial;
  char* hex = nullptr;
  ASN1_INTEGER* number = nullptr;
  if (read_serial_file(path, serial) && BN_add_word(serial.get(), 1) == 1 && (hex = BN_bn2hex(serial.get())) &&
      bv::platform::replace_file(path, std::string(hex) + "\n", 0644) == 0)
    number = BN_to_ASN1_INTEGER(serial.get(), nullptr);
  OPENSSL_free(hex);
  if (number == nullptr) {
    TS_RESP_CTX_set_status_info(context, TS_STATUS_REJECTION, "serial number file unusable");
    TS_RESP_CTX_add_failure_info(context, TS_INFO_ADD_INFO_NOT_AVAILABLE);
  }
  return number;
}

bool TimeStampAuthority::reply(const std::string& request_der, Reply& out) {
  UniquePtr<BIO> request(BIO_new_mem_buf(request_der.data(), static_cast<int>(request_der.size())));
  UniquePtr<TS_RESP> response(request ? TS_RESP_create_response(context_.get(), request.get()) : nullptr);
  unsigned char* der = nullptr;
  const int length = response ? i2d_TS_RESP(response.get(), &der) : -1;
  ERR_clear_error();
  if (length <= 0) return false;
  out.der.assign(reinterpret_cast<char*>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  out.status = status_text(response.get());
  const TS_TST_INFO* token = TS_RESP_get_tst_info(response.get());
  out.serial = token != nullptr ? hex_of(TS_TST_INFO_get_serial(token)) : "-";
  return true;
}

}  // namespace bvtsa
