// Signer and recipient records through the loaded library: creation, the
// blank wipe of the password, lists and their printed form.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host.h"

namespace bv::test {

// Watches one block on its way back to the heap: the password of a record
// must be blanks by the time the library frees it.  Every free of this
// program, the library's included, passes through here.
namespace wipe_watch {
void* watched = nullptr;  // read and written with atomic builtins only
size_t watched_length = 0;
char seen[256];
bool seen_any = false;
}  // namespace wipe_watch

// Runs before the sanitizers' runtime is set up, so it is not instrumented
// and uses builtins only.
extern "C" __attribute__((no_sanitize("address", "undefined"))) void free(void* block) {
  using FreeFn = void (*)(void*);
  static FreeFn next = nullptr;
  static bool resolving = false;
  if (block != nullptr && block == __atomic_load_n(&wipe_watch::watched, __ATOMIC_SEQ_CST)) {
    __builtin_memcpy(wipe_watch::seen, block, wipe_watch::watched_length);
    __atomic_store_n(&wipe_watch::seen_any, true, __ATOMIC_SEQ_CST);
    __atomic_store_n(&wipe_watch::watched, nullptr, __ATOMIC_SEQ_CST);
  }
  FreeFn forward = __atomic_load_n(&next, __ATOMIC_ACQUIRE);
  if (forward == nullptr) {
    if (__atomic_exchange_n(&resolving, true, __ATOMIC_SEQ_CST)) return;  // a free inside the lookup itself
    forward = reinterpret_cast<FreeFn>(dlsym(RTLD_NEXT, "free"));
    __atomic_store_n(&next, forward, __ATOMIC_RELEASE);
  }
  forward(block);
}

namespace {

const SsfApi& api() { return SsfApi::get(); }

SsfInfo* make(const std::string& id, const std::string& profile = "", const std::string& password = "",
              int32_t result = 0, const std::string& reserved = "") {
  SsfInfo* info = nullptr;
  EXPECT_EQ(api().SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), reserved.data(),
                                      static_cast<int32_t>(reserved.size()), profile.data(),
                                      static_cast<int32_t>(profile.size()), password.data(),
                                      static_cast<int32_t>(password.size()), result, &info),
            SSF_OK);
  return info;
}

std::string print(SsfInfo* info) {
  char* text = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(api().SsfPRISigRcpSsfInfo(info, &text, &length), SSF_OK);
  // The block is terminated behind its length.
  EXPECT_EQ(text[length], '\0');
  std::string printed(text, length);
  api().SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&text), &length);
  return printed;
}

struct NewCase {
  const char* name;
  const char* id;
  int32_t idL;
  const char* reserved;
  int32_t reservedL;
  const char* profile;
  int32_t profileL;
  const char* password;
  int32_t passwordL;
  SSF_RC rc;
};

TEST(NewRecord, LengthsDecideBeforeAnythingElse) {
  const NewCase cases[] = {
      {"id only", "id", 2, nullptr, 0, nullptr, 0, nullptr, 0, SSF_OK},
      {"all four fields", "id", 2, "r", 1, "My", 2, "1234", 4, SSF_OK},
      {"lengths 0 with pointers leave the fields null", "id", 2, "r", 0, "p", 0, "pw", 0, SSF_OK},
      {"empty id", "id", 0, nullptr, 0, nullptr, 0, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative id length", "id", -2, nullptr, 0, nullptr, 0, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative reserved length with a good id", "id", 2, "r", -1, nullptr, 0, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative profile length", "id", 2, nullptr, 0, "p", -1, nullptr, 0, SSF_REC_INVALID_LENGTH},
      {"negative password length", "id", 2, nullptr, 0, nullptr, 0, "p", -1, SSF_REC_INVALID_LENGTH},
      {"bytes promised and no pointer", "id", 2, nullptr, 0, nullptr, 3, nullptr, 0, SSF_REC_INVALID_LENGTH},
  };
  for (const NewCase& c : cases) {
    SCOPED_TRACE(c.name);
    SsfInfo* info = reinterpret_cast<SsfInfo*>(0x1);
    ASSERT_EQ(api().SsfNEWSigRcpSsfInfo(c.id, c.idL, c.reserved, c.reservedL, c.profile, c.profileL, c.password,
                                        c.passwordL, 27, &info),
              c.rc);
    if (c.rc != SSF_OK) {
      EXPECT_EQ(info, nullptr);
      continue;
    }
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(std::string(info->strSigRcpId, info->strSigRcpIdL), std::string(c.id, c.idL));
    EXPECT_NE(info->strSigRcpId, c.id);  // a copy, not the caller's bytes
    EXPECT_EQ(info->Reserved == nullptr, c.reservedL == 0);
    EXPECT_EQ(info->Profile == nullptr, c.profileL == 0);
    EXPECT_EQ(info->Password == nullptr, c.passwordL == 0);
    if (c.passwordL > 0) {
      EXPECT_EQ(std::string(info->Password, info->PasswordL), std::string(c.password, c.passwordL));
    }
    EXPECT_EQ(info->Result, 27);
    EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&info), SSF_OK);
  }
}

TEST(DeleteRecord, WipesThePasswordWithBlanksAndNullsThePointer) {
  const std::string pin = "s3cr3t-PIN-0042";
  for (const bool as_list : {false, true}) {
    SCOPED_TRACE(as_list ? "SsfDELSigRcpSsfInfoList" : "SsfDELSigRcpSsfInfo");
    SsfInfo* info = make("CN=Signer", "My", pin);
    wipe_watch::seen_any = false;
    wipe_watch::watched_length = pin.size();
    __atomic_store_n(&wipe_watch::watched, static_cast<void*>(info->Password), __ATOMIC_SEQ_CST);
    if (as_list) {
      SsfInfoNode* list = nullptr;
      ASSERT_EQ(api().SsfINSSigRcpSsfInfo(info, &list), SSF_OK);
      EXPECT_EQ(api().SsfDELSigRcpSsfInfoList(&list), SSF_OK);
      EXPECT_EQ(list, nullptr);
      EXPECT_EQ(api().SsfDELSigRcpSsfInfoList(&list), SSF_REC_NULL_LIST);
    } else {
      EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&info), SSF_OK);
      EXPECT_EQ(info, nullptr);
      EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&info), SSF_REC_NULL_INFO);
    }
    ASSERT_TRUE(__atomic_load_n(&wipe_watch::seen_any, __ATOMIC_SEQ_CST));
    EXPECT_EQ(std::string(wipe_watch::seen, pin.size()), std::string(pin.size(), ' '));
  }
}

TEST(PrintRecord, ExactTextByteForByte) {
  const std::string head = "Signer/Recipient Security Information :\nId        : ";
  const struct {
    const char* what;
    SsfInfo* info;
    std::string printed;
  } cases[] = {
      {"every field", make("CN=Ivanov", "uMy", "1234", 26, "rsv"),
       head + "CN=Ivanov (9)\nReserved  : rsv (3)\nProfile   : uMy (3)\n\n\nSigner/Recipient Result : NOCERTIFICATE\n\n\n"},
      // Only an id: no Reserved and no Profile line; the password never shows.
      {"id only", make("abc", "", "pin-never-shown"), head + "abc (3)\n\n\nSigner/Recipient Result : OK\n\n\n"},
      // An embedded NUL ends the bytes printed; the number stays the length.
      {"embedded NUL", make(std::string("ab\0cd", 5)), head + "ab (5)\n\n\nSigner/Recipient Result : OK\n\n\n"},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(print(c.info), c.printed);
    api().SsfDELSigRcpSsfInfo(&c.info);
  }
  EXPECT_EQ(api().SsfPRISigRcpSsfInfo(nullptr, nullptr, nullptr), SSF_REC_NULL_INFO);
}

TEST(PrintList, KeepsTheOrderOfInsertionAndNumbersFromOne) {
  SsfInfoNode* list = nullptr;
  for (const char* id : {"A", "B", "C"}) ASSERT_EQ(api().SsfINSSigRcpSsfInfo(make(id), &list), SSF_OK);
  char* text = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(api().SsfPRISigRcpSsfInfoList(list, &text, &length), SSF_OK);
  const std::string printed(text, length);
  EXPECT_EQ(text[length], '\0');
  std::string expected = "SIGNER/RECIPIENT SECURITY INFORMATION LIST :\n\n";
  int count = 0;
  for (const char* id : {"A", "B", "C"})
    expected += "=============\nSigner/Recipient : " + std::to_string(++count) + "\n=============\n" +
                "Signer/Recipient Security Information :\nId        : " + id +
                " (1)\n\n\nSigner/Recipient Result : OK\n\n\n";
  EXPECT_EQ(printed, expected);
  api().SsfDELSsfOctetstring(reinterpret_cast<unsigned char**>(&text), &length);
  EXPECT_EQ(api().SsfDELSigRcpSsfInfoList(&list), SSF_OK);
}

TEST(PrintList, ANodeWithoutARecordEndsThePrintButNotTheDelete) {
  SsfInfoNode* list = nullptr;
  ASSERT_EQ(api().SsfINSSigRcpSsfInfo(make("A"), &list), SSF_OK);
  ASSERT_EQ(api().SsfINSSigRcpSsfInfo(make("B"), &list), SSF_OK);
  SsfInfo* second = list->next->info;
  list->next->info = nullptr;
  char sentinel = 0;
  char* text = &sentinel;
  uint32_t length = 5;
  EXPECT_EQ(api().SsfPRISigRcpSsfInfoList(list, &text, &length), SSF_REC_NULL_INFO);
  EXPECT_EQ(text, &sentinel);
  EXPECT_EQ(length, 5u);
  EXPECT_EQ(api().SsfDELSigRcpSsfInfoList(&list), SSF_OK);
  EXPECT_EQ(api().SsfDELSigRcpSsfInfo(&second), SSF_OK);

  EXPECT_EQ(api().SsfPRISigRcpSsfInfoList(nullptr, &text, &length), SSF_REC_NULL_LIST);
  EXPECT_EQ(api().SsfINSSigRcpSsfInfo(nullptr, &list), SSF_REC_NULL_INFO);
  EXPECT_EQ(list, nullptr);
}

TEST(HostTool, RecordsCommandPrintsTheList) {
  int status = -1;
  const std::string out =
      run_command("BVSSF_LIBRARY='" BV_LIBRARY_PATH "' '" BV_TOOLS_DIR "/bvssf' records A:uMy B", &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("Signer/Recipient : 2\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Profile   : uMy (3)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("SSF_OK"), std::string::npos) << out;
}

}  // namespace

}  // namespace bv::test
