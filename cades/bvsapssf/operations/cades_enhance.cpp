#include "operations/cades_enhance.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "cadesmsg/cadesmsg.h"
#include "crypt32/msg.h"
#include "kernel32/kernel32.h"

void TspConnection::point(CadesSignPara& para, const char* tsp) {
  if (tsp == nullptr) return;
  connection_.dwSize = sizeof connection_;
  const size_t length = std::strlen(tsp) + 1;
  if (length <= 0x3FFFFFFF) {
    address_.assign(length, 0);
    MultiByteToWideChar(CP_THREAD_ACP, 0, tsp, static_cast<int>(length), address_.data(), static_cast<int>(length));
    connection_.wszUri = address_.data();
  }
  para.pTspConnectionPara = &connection_;
}

DWORD cades_enhance_message(unsigned char** data, uint32_t* dataLen, const char* tsp) {
  // 1, 2. Decode the message as it stands.
  bv::platform::MessageHandle message(
      CryptMsgOpenToDecode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0, 0, nullptr, nullptr));
  if (!message) return GetLastError();
  if (!CryptMsgUpdate(message.get(), *data, *dataLen, TRUE)) return GetLastError();

  // 3, 4. The request: X Long Type 1, with the server named if there is one.
  CadesSignPara sign_para{};
  sign_para.dwSize = sizeof sign_para;
  sign_para.dwCadesType = CADES_X_LONG_TYPE_1;
  TspConnection connection;
  connection.point(sign_para, tsp);

  // 5. Every signature.  A failure that leaves no error behind counts as
  // done, with the message as it stood.
  if (!CadesMsgEnhanceSignatureAll(message.get(), &sign_para)) {
    const DWORD error = GetLastError();
    if (error != 0) return error;
  }

  // 6, 7. The new message into a new block, which replaces the old one only
  // once it is whole.
  DWORD length = 0;
  if (!CryptMsgGetParam(message.get(), CMSG_ENCODED_MESSAGE, 0, nullptr, &length)) return GetLastError();
  auto* block = static_cast<unsigned char*>(std::malloc(length != 0 ? length : 1));
  if (block == nullptr) return static_cast<DWORD>(E_OUTOFMEMORY);
  if (!CryptMsgGetParam(message.get(), CMSG_ENCODED_MESSAGE, 0, block, &length)) {
    const DWORD error = GetLastError();
    std::free(block);
    return error;
  }
  std::free(*data);
  *data = block;
  *dataLen = length;
  return 0;
}
