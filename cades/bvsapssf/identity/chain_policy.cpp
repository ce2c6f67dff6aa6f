#include "identity/chain_policy.h"

#include "bvsapssf.h"
#include "crypt32/chain.h"
#include "kernel32/kernel32.h"
#include "reporter.h"
#include "trace/trace.h"

namespace {
constexpr const char* trace_file = "bvsapssf";
}  // namespace

int32_t VerifyCertificate(PCCERT_CONTEXT cert, DWORD flags, DWORD* status) {
  constexpr const char* trace_function = "VerifyCertificate";
  CERT_CHAIN_PARA chain_para{};
  chain_para.cbSize = sizeof(CERT_CHAIN_PARA);
  chain_para.RequestedUsage.dwType = 0;
  chain_para.RequestedUsage.Usage.cUsageIdentifier = 0;
  chain_para.RequestedUsage.Usage.rgpszUsageIdentifier = nullptr;

  PCCERT_CHAIN_CONTEXT chain = nullptr;
  if (CertGetCertificateChain(nullptr, cert, nullptr, nullptr, &chain_para, flags, nullptr, &chain)) {
    *status = chain->TrustStatus.dwErrorStatus;
    CertFreeCertificateChain(chain);
    return 0;
  }
  const DWORD error = GetLastError();
  // A failed call leaves no chain behind; its status prints as 0 rather than
  // being read through a null pointer.
  const DWORD chain_status = chain != nullptr ? chain->TrustStatus.dwErrorStatus : 0;
  BV_TRACE(TRACE_NORMAL, "CertGetCertificateChain failed. Err = 0x%x, Chain->TrustStatus.dwErrorStatus = 0x%x",
           error, chain_status);
  *status = CERT_TRUST_REVOCATION_STATUS_UNKNOWN;
  // The error number goes in where a message code belongs, as it always has.
  return ReportError(trace_file, __LINE__, static_cast<int32_t>(error));
}

bool certificate_status_acceptable(int32_t verify_result, DWORD status) {
  return verify_result == 0 && (status == 0 || (status & config.AcceptableCertStatus) != 0);
}
