#include "identity/lookup.h"

#include <cstring>
#include <string>
#include <vector>

#include "bvsapssf.h"
#include "frame.h"
#include "identity/chain_policy.h"
#include "identity/identity.h"
#include "identity/selection.h"
#include "kernel32/kernel32.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "ssfxxmain";

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr DWORD kFindAny = 0;             // CERT_FIND_ANY
constexpr DWORD kFindSha1Hash = 0x10000;  // CERT_FIND_SHA1_HASH
constexpr DWORD kOidNameStr = 2;          // CERT_OID_NAME_STR
constexpr size_t kUsualSubjectLength = 512;

constexpr DWORD kLocalMachine = 0x20000;   // CERT_SYSTEM_STORE_LOCAL_MACHINE
constexpr DWORD kCurrentUser = 0x10000;    // CERT_SYSTEM_STORE_CURRENT_USER
constexpr DWORD kOpenExisting = 0x4000;    // CERT_STORE_OPEN_EXISTING_FLAG
constexpr DWORD kDeferClose = 0x4;         // CERT_STORE_DEFER_CLOSE_UNTIL_LAST_FREE_FLAG

bool all_digits(const char* text, size_t count) {
  for (size_t i = 0; i < count; ++i)
    if (!isdigit_l(static_cast<unsigned char>(text[i]), bv::platform::ansi_locale())) return false;
  return true;
}

}  // namespace

bv::platform::CertStore open_profile_store(const char* name, int32_t nameL, ProfileStoreUse use) {
  std::string store_name;
  if (nameL > 0)
    store_name.assign(name, static_cast<size_t>(nameL));
  else
    store_name = use == ProfileStoreUse::Envelope || use == ProfileStoreUse::Verify ? "Addressbook" : "My";

  // The whole name is copied, then read as a terminated text.
  const char* rest = store_name.c_str();
  DWORD location = kCurrentUser;
  if (rest[0] == 'm') {
    location = kLocalMachine;
    rest += 1;
  } else if (rest[0] == 'u') {
    rest += 1;
  } else if (std::strncmp(rest, "<TIME>", 6) == 0) {
    rest += 6;
  } else if (std::strlen(rest) > 14 && all_digits(rest, 14)) {
    rest += 14;
  }

  const int wide_length = MultiByteToWideChar(CP_ACP, 0, rest, -1, nullptr, 0);
  std::vector<WCHAR> wide(static_cast<size_t>(wide_length > 0 ? wide_length : 0) + 1, 0);
  if (wide_length > 0) MultiByteToWideChar(CP_ACP, 0, rest, -1, wide.data(), wide_length);

  DWORD flags = location | kOpenExisting;
  if (use == ProfileStoreUse::Sign) flags |= kDeferClose;
  return bv::platform::CertStore(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, flags, wide.data()));
}

bool IdentityMatches::read(const char* strSigRcpId, int32_t strSigRcpIdL, CRYPT_HASH_BLOB* hash) {
  wanted_.clear();
  if (is_hash_id(strSigRcpId, strSigRcpIdL)) {
    find_type_ = kFindSha1Hash;
    find_para_ = hash;
    return parse_CertHashID(strSigRcpId, strSigRcpIdL, hash);
  }
  find_type_ = kFindAny;
  find_para_ = nullptr;
  return parse_dn_string(strSigRcpId, strSigRcpIdL, wanted_) == 0;
}

bool IdentityMatches::next(HCERTSTORE store, const char* trace_function, SsfInfo* info,
                           bv::platform::CertContext& cert) {
  for (;;) {
    cert.reset(CertFindCertificateInStore(store, kEncoding, 0, find_type_, find_para_, cert.release()));
    if (!cert) return false;
    if (find_type_ != kFindAny) return true;
    // Rendered into the kept buffer; only a subject that may not have fitted
    // is measured and rendered again.
    if (subject_.empty()) subject_.resize(kUsualSubjectLength);
    CERT_NAME_BLOB* name = &cert.get()->pCertInfo->Subject;
    DWORD subject_length = CertNameToStrA(kEncoding, name, kOidNameStr, subject_.data(), static_cast<DWORD>(subject_.size()));
    if (subject_length >= subject_.size()) {
      subject_length = CertNameToStrA(kEncoding, name, kOidNameStr, nullptr, 0);
      subject_.assign(subject_length > 0 ? subject_length : 1, '\0');
      CertNameToStrA(kEncoding, name, kOidNameStr, subject_.data(), subject_length);
    }
    RdnList have;
    if (parse_dn_string(subject_.data(), static_cast<int32_t>(subject_length), have) != 0) {
      BV_TRACE(TRACE_NORMAL, "#error#: Invalid certificate DN\n");
      info->Result = SSF_RES_NOT_OK;
      continue;
    }
    if (dn_contains_all(wanted_, have)) return true;
  }
}

SearchStep walk_to_signer(HCERTSTORE store, IdentityMatches& matches, const char* trace_function, SsfInfo* info,
                          CMSG_SIGNER_ENCODE_INFO* encode, SignerCertList& certs, SignerWalk walk) {
  bv::platform::CertContext cert;
  while (matches.next(store, trace_function, info, cert)) {
    if (config.VerifyCertOnSign != 0) {
      DWORD status = 0;
      const int32_t verified = VerifyCertificate(cert.get(), config.VerifyCertFlagsOnSelect, &status);
      if (!certificate_status_acceptable(verified, status)) {
        if (walk == SignerWalk::Sign)
          BV_TRACE(TRACE_DETAIL, "#trace# Signer's certificate Not verified. Check result = 0x%x\n", status);
        else
          BV_TRACE(TRACE_DETAIL,
                   "#trace# One of Signer's certificate found, but it isn't valid. Skipping... Check result = 0x%x\n",
                   status);
        continue;
      }
    }
    BV_TRACE(TRACE_DETAIL, "#trace# One of Signer's certificate found. Trying to acquire private key.\n");
    const SearchStep step = acquire_signer_key(trace_function, cert.get(), info, encode, certs,
                                               walk == SignerWalk::Sign ? KeyLines::Trace : KeyLines::Info);
    if (step == SearchStep::Found) cert.release();  // `certs` holds it now
    if (step != SearchStep::NotFound) return step;
  }
  return SearchStep::NotFound;
}

SearchStep search_signer_certificate(const char* trace_function, SsfInfo* info, int index,
                               CMSG_SIGNER_ENCODE_INFO* encode, SignerSearch& search) {
  info->Result = SSF_RES_UNKNOWN;
  if (bv::frame::field_length(info->strSigRcpId, info->strSigRcpIdL) <= 0) {
    BV_TRACE(TRACE_NORMAL, "#error#: strSigRcpIdL <= 0\n");
    info->Result = SSF_RES_UNKNOWN;
    ++search.failures;
    return SearchStep::NotFound;
  }
  int32_t blanks = 0;
  while (blanks < info->strSigRcpIdL && info->strSigRcpId[blanks] == ' ') ++blanks;
  if (blanks == info->strSigRcpIdL) {
    BV_TRACE(TRACE_NORMAL, "#error#: Empty strSigRcpId\n");
    info->Result = SSF_RES_UNKNOWN;
    ++search.failures;
    return SearchStep::NotFound;
  }

  encode->cbSize = sizeof(CMSG_SIGNER_ENCODE_INFO);

  const int32_t profileL = bv::frame::field_length(info->Profile, info->ProfileL);
  if (profileL > 0) {
    const std::string profile(info->Profile, static_cast<size_t>(profileL));
    BV_TRACE(TRACE_DETAIL, "#trace# Signer %d Store = %s.\n", index, profile.c_str());
  }
  const bv::platform::CertStore store = open_profile_store(info->Profile, profileL, ProfileStoreUse::Sign);
  if (!store) {
    BV_TRACE(TRACE_NORMAL, "#error#: Invalid store in user's profile\n");
    info->Result = SSF_RES_INVALID_PROFILE;
    ++search.failures;
    return SearchStep::NotFound;
  }

  select_certificate_from_list_if_needed(store.get(), &info->strSigRcpId, &info->strSigRcpIdL);
  const std::string identity(info->strSigRcpId, static_cast<size_t>(info->strSigRcpIdL));
  BV_TRACE(TRACE_NORMAL, "#info#: Searched userID (%s)\n", identity.c_str());

  IdentityMatches matches;
  if (!matches.read(info->strSigRcpId, info->strSigRcpIdL, &search.hash)) {
    BV_TRACE(TRACE_NORMAL, "#error#: Invalid user's ID (%s)\n", identity.c_str());
    info->Result = SSF_RES_UNKNOWN;
    ++search.failures;
    return SearchStep::NotFound;
  }

  BV_TRACE(TRACE_DETAIL, "#trace# Search Signer's certificate.\n");
  const SearchStep step =
      walk_to_signer(store.get(), matches, trace_function, info, encode, search.certs, SignerWalk::Sign);

  if (step == SearchStep::Found) {
    info->Result = SSF_RES_OK;
  } else if (step == SearchStep::NotFound) {
    ++search.failures;
    BV_TRACE(TRACE_NORMAL, "#error# Signer's (%d) Certificate with supplied pin code NOT FOUND.\n", index);
  }
  return step;
}
