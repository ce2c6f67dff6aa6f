// Signer and recipient records and their lists: the six exports a host uses
// to build, print and release them.  They trace nothing and report only
// through their return codes.  A null pointer where a function would write
// or read is refused with its code for a missing record or list (52 for the
// new record's place).
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bvsapssf_api.h"
#include "frame.h"

namespace {

// The printed name of a record's Result.
const char* result_name(int32_t result) {
  switch (result) {
    case SSF_RES_OK: return "OK\n";
    case SSF_RES_INVALID_NAMESPACE: return "INVALID_NAMESPACE\n";
    case SSF_RES_UNKNOWN: return "UNKNOWN\n";
    case SSF_RES_UNKNOWN_PROFILE: return "UNKNOWN_PROFILE\n";
    case SSF_RES_INVALID_PROFILE: return "INVALID_PROFILE\n";
    case SSF_RES_INVALID_PASSWORD: return "INVALID_PASSWORD\n";
    case SSF_RES_NOCERTIFICATE: return "NOCERTIFICATE\n";
    case SSF_RES_NOT_OK: return "NOT_OK\n";
    case SSF_RES_UNDEFINED: return "UNDEFINED\n";
    default: return "UNKNOWN RESULT ???\n";
  }
}

// A block of exactly `length` bytes, no terminator; null for length 0.
char* copy_bytes(char* block, const char* source, int32_t length) {
  if (block != nullptr) std::memcpy(block, source, static_cast<size_t>(length));
  return block;
}

// Appends with sprintf semantics at `*used`, never past `size`.
void append(char* block, size_t size, size_t* used, const char* format, ...) __attribute__((format(printf, 4, 5)));
void append(char* block, size_t size, size_t* used, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int written = std::vsnprintf(block + *used, size - *used, format, args);
  va_end(args);
  if (written > 0) *used += std::min(static_cast<size_t>(written), size - *used - 1);
}

// The blank wipe of the password and the release of every block: the one
// place a record ends.
void delete_record(SsfInfo* info) {
  std::free(info->strSigRcpId);
  std::free(info->Reserved);
  std::free(info->Profile);
  // A hand-made record may carry a negative length: nothing to wipe then.
  if (info->Password != nullptr && info->PasswordL > 0)
    std::memset(info->Password, ' ', static_cast<size_t>(info->PasswordL));
  std::free(info->Password);
  std::free(info);
}

constexpr char kListHeader[] = "SIGNER/RECIPIENT SECURITY INFORMATION LIST :\n\n";
constexpr size_t kListHeaderSize = 49;
constexpr size_t kEntryFrameSize = 53;
constexpr size_t kRecordBaseSize = 94;
constexpr size_t kFieldFrameSize = 25;

// The text of one record; the list print calls it directly rather than
// through the export, which a host's own symbol of that name could shadow.
SSF_RC print_record(const SsfInfo* info, char** text, uint32_t* textL) {
  if (info == nullptr) return SSF_REC_NULL_INFO;

  // 94 bytes for the frame and the longest result name, 25 more per field
  // beside the field's own bytes.
  const int32_t idL = bv::frame::field_length(info->strSigRcpId, info->strSigRcpIdL);
  const int32_t reservedL = bv::frame::field_length(info->Reserved, info->ReservedL);
  const int32_t profileL = bv::frame::field_length(info->Profile, info->ProfileL);
  size_t size = kRecordBaseSize;
  if (idL > 0) size += kFieldFrameSize + static_cast<size_t>(idL);
  if (reservedL > 0) size += kFieldFrameSize + static_cast<size_t>(reservedL);
  if (profileL > 0) size += kFieldFrameSize + static_cast<size_t>(profileL);
  char* block = static_cast<char*>(std::malloc(size));
  if (block == nullptr) return SSF_REC_NOMEMORY;

  // %.*s stops at a NUL inside the bytes; the number stays the full length.
  size_t used = 0;
  block[0] = '\0';
  append(block, size, &used, "Signer/Recipient Security Information :\n");
  if (idL > 0) append(block, size, &used, "Id        : %.*s (%d)\n", idL, info->strSigRcpId, idL);
  if (reservedL > 0) append(block, size, &used, "Reserved  : %.*s (%d)\n", reservedL, info->Reserved, reservedL);
  if (profileL > 0) append(block, size, &used, "Profile   : %.*s (%d)\n", profileL, info->Profile, profileL);
  append(block, size, &used, "\n\nSigner/Recipient Result : ");
  append(block, size, &used, "%s", result_name(info->Result));
  append(block, size, &used, "\n\n");

  *text = block;
  *textL = static_cast<uint32_t>(used);
  return SSF_OK;
}

}  // namespace

extern "C" {

SSF_RC SsfNEWSigRcpSsfInfo(const char* strSigRcpId, int32_t strSigRcpIdL, const char* Reserved, int32_t ReservedL,
                           const char* Profile, int32_t ProfileL, const char* Password, int32_t PasswordL,
                           int32_t Result, SsfInfo** newInfo) {
  return bv::frame::whole_export(SSF_REC_NOMEMORY, [&]() -> SSF_RC {
    // Nowhere to put the record: refused before anything else.
    if (newInfo == nullptr) return SSF_REC_INVALID_LENGTH;

    // 1. Lengths first; the pointers are only looked at where a positive
    // length would make us read through a null one.
    if (strSigRcpIdL <= 0 || ReservedL < 0 || ProfileL < 0 || PasswordL < 0 || strSigRcpId == nullptr ||
        (ReservedL > 0 && Reserved == nullptr) || (ProfileL > 0 && Profile == nullptr) ||
        (PasswordL > 0 && Password == nullptr)) {
      *newInfo = nullptr;
      return SSF_REC_INVALID_LENGTH;
    }

    // 2. The record.
    auto* info = static_cast<SsfInfo*>(std::malloc(sizeof(SsfInfo)));
    if (info == nullptr) {
      *newInfo = nullptr;
      return SSF_REC_NOMEMORY;
    }

    // 3. All four blocks are asked for before any is looked at.
    char* id = static_cast<char*>(std::malloc(static_cast<size_t>(strSigRcpIdL)));
    char* reserved = ReservedL > 0 ? static_cast<char*>(std::malloc(static_cast<size_t>(ReservedL))) : nullptr;
    char* profile = ProfileL > 0 ? static_cast<char*>(std::malloc(static_cast<size_t>(ProfileL))) : nullptr;
    char* password = PasswordL > 0 ? static_cast<char*>(std::malloc(static_cast<size_t>(PasswordL))) : nullptr;

    // 4. One failure releases everything obtained.
    if (id == nullptr || (ReservedL > 0 && reserved == nullptr) || (ProfileL > 0 && profile == nullptr) ||
        (PasswordL > 0 && password == nullptr)) {
      std::free(id);
      std::free(reserved);
      std::free(profile);
      std::free(password);
      std::free(info);
      *newInfo = nullptr;
      return SSF_REC_NOMEMORY;
    }

    // 5. A deep copy: nothing of the caller's is kept.
    info->strSigRcpId = copy_bytes(id, strSigRcpId, strSigRcpIdL);
    info->strSigRcpIdL = strSigRcpIdL;
    info->Reserved = copy_bytes(reserved, Reserved, ReservedL);
    info->ReservedL = ReservedL;
    info->Profile = copy_bytes(profile, Profile, ProfileL);
    info->ProfileL = ProfileL;
    info->Password = copy_bytes(password, Password, PasswordL);
    info->PasswordL = PasswordL;
    info->Result = Result;
    *newInfo = info;
    return SSF_OK;
  });
}

SSF_RC SsfDELSigRcpSsfInfo(SsfInfo** info) {
  return bv::frame::whole_export(SSF_REC_NOMEMORY, [&]() -> SSF_RC {
    if (info == nullptr || *info == nullptr) return SSF_REC_NULL_INFO;
    delete_record(*info);
    *info = nullptr;
    return SSF_OK;
  });
}

SSF_RC SsfINSSigRcpSsfInfo(SsfInfo* info, SsfInfoNode** list) {
  return bv::frame::whole_export(SSF_REC_NOMEMORY, [&]() -> SSF_RC {
    if (info == nullptr) return SSF_REC_NULL_INFO;
    if (list == nullptr) return SSF_REC_NULL_LIST;
    auto* node = static_cast<SsfInfoNode*>(std::malloc(sizeof(SsfInfoNode)));
    if (node == nullptr) return SSF_REC_NOMEMORY;
    node->next = nullptr;
    node->info = info;
    // Hung on the tail, so the list keeps the order of insertion.
    if (*list == nullptr) {
      *list = node;
      return SSF_OK;
    }
    SsfInfoNode* last = *list;
    while (last->next != nullptr) last = last->next;
    last->next = node;
    return SSF_OK;
  });
}

SSF_RC SsfDELSigRcpSsfInfoList(SsfInfoNode** list) {
  return bv::frame::whole_export(SSF_REC_NOMEMORY, [&]() -> SSF_RC {
    if (list == nullptr || *list == nullptr) return SSF_REC_NULL_LIST;
    SsfInfoNode* node = *list;
    while (node != nullptr) {
      SsfInfoNode* next = node->next;
      if (node->info != nullptr) {
        delete_record(node->info);
        node->info = nullptr;
      }
      std::free(node);
      node = next;
    }
    *list = nullptr;
    return SSF_OK;
  });
}

SSF_RC SsfPRISigRcpSsfInfo(SsfInfo* info, char** text, uint32_t* textL) {
  return bv::frame::whole_export(SSF_REC_NOMEMORY, [&]() -> SSF_RC {
    if (text == nullptr || textL == nullptr) return SSF_REC_NULL_INFO;
    return print_record(info, text, textL);
  });
}

SSF_RC SsfPRISigRcpSsfInfoList(SsfInfoNode* list, char** text, uint32_t* textL) {
  return bv::frame::whole_export(SSF_REC_NOMEMORY, [&]() -> SSF_RC {
    if (list == nullptr || text == nullptr || textL == nullptr) return SSF_REC_NULL_LIST;

    size_t size = kListHeaderSize;
    char* block = static_cast<char*>(std::malloc(size));
    if (block == nullptr) return SSF_REC_NOMEMORY;
    size_t used = 0;
    block[0] = '\0';
    append(block, size, &used, "%s", kListHeader);

    int count = 0;
    for (SsfInfoNode* node = list; node != nullptr; node = node->next) {
      ++count;
      // A node without a record ends the whole print with its code.
      char* entry = nullptr;
      uint32_t entryL = 0;
      const SSF_RC rc = print_record(node->info, &entry, &entryL);
      if (rc != SSF_OK) {
        std::free(block);
        return rc;
      }

      // The block grows by the entry and its 53-byte frame.
      size += kEntryFrameSize + entryL;
      char* grown = static_cast<char*>(std::malloc(size));
      if (grown == nullptr) {
        std::free(block);
        std::free(entry);
        return SSF_REC_NOMEMORY;
      }
      std::memcpy(grown, block, used + 1);
      std::free(block);
      block = grown;

      append(block, size, &used, "=============\n");
      append(block, size, &used, "Signer/Recipient : %d\n", count);
      append(block, size, &used, "=============\n");
      append(block, size, &used, "%s", entry);
      std::free(entry);
    }

    *text = block;
    *textL = static_cast<uint32_t>(used);
    return SSF_OK;
  });
}

}  // extern "C"
