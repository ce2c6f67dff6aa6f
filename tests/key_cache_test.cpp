// Keys kept between calls of one process: what an entry is found by, and
// that no PIN check, prompt or file change is passed by.  Every scenario runs
// SsfSign several times in a child of its own, on its own copy of the stores.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "certificate_factory.h"
#include "certs.h"
#include "signing.h"

namespace bv::test {
namespace {

struct Signed {
  SSF_RC rc = 99;
  int32_t result = -1;
  std::string message;
};

Signed sign_once(const std::string& id, const std::string& pin, const std::string& data = "data to be signed") {
  const SsfApi& api = SsfApi::get();
  SsfInfo* info = nullptr;
  SsfInfoNode* list = nullptr;
  EXPECT_EQ(api.SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), nullptr, 0, nullptr, 0, pin.data(),
                                    static_cast<int32_t>(pin.size()), 99, &info),
            SSF_OK);
  api.SsfINSSigRcpSsfInfo(info, &list);
  unsigned char* out = nullptr;
  uint32_t length = 0;
  Signed s;
  s.rc = api.SsfSign("PKCS7", 5, nullptr, 0, 1, 0, reinterpret_cast<const unsigned char*>(data.data()),
                     static_cast<int32_t>(data.size()), list, &out, &length);
  s.result = info->Result;
  if (out != nullptr) s.message.assign(reinterpret_cast<char*>(out), length);
  api.SsfDELSsfOctetstring(&out, &length);
  info->PasswordL = static_cast<int32_t>(pin.size());
  api.SsfDELSigRcpSsfInfoList(&list);
  return s;
}

// A copy of the test world's user stores, for a test that changes its files,
// and the environment that points a child at it.
struct OwnStores {
  TempDir dir;
  OwnStores() {
    std::filesystem::copy(SigningWorld::get().local(), dir / "local", std::filesystem::copy_options::recursive);
  }
  std::string my(const std::string& file) const { return dir / ("local/Brelvantec/Certificates/My/" + file); }
  std::map<std::string, std::string> env() const {
    return SigningWorld::get().env({{"BV_PLATFORM_LOCAL_APPDATA", dir / "local"}});
  }
};

// New bytes in the key file that keep its identity: inode, size and
// modification time stay, so only a kept key can still sign.
void scribble_keeping_identity(const std::string& path) {
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  const int fd = open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  const std::string junk(static_cast<size_t>(before.st_size), 'x');
  ASSERT_EQ(pwrite(fd, junk.data(), junk.size(), 0), static_cast<ssize_t>(junk.size()));
  const timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(futimens(fd, times), 0);
  close(fd);
}

// The same junk under a new inode, as a replaced file comes.
void replace_file(const std::string& path) {
  write_file(path + ".new", std::string(200, 'x'));
  std::filesystem::rename(path + ".new", path);
}

TEST(KeyCache, FoundOnlyBySameFileAndPin) {
  const std::string alice = "CN=Alice";
  struct Step {
    std::string pin;
    std::function<void(const std::string& key_file)> before;  // may be null
    SSF_RC rc;
    int32_t result;
  };
  struct Case {
    const char* name;
    const char* seconds;  // BV_PLATFORM_KEY_CACHE_SECONDS; null: the default
    std::vector<Step> steps;
  };
  const auto scribble = [](const std::string& f) { scribble_keeping_identity(f); };
  const auto replace = [](const std::string& f) { replace_file(f); };
  const auto wait_past_one_second = [](const std::string&) { std::this_thread::sleep_for(std::chrono::milliseconds(2100)); };
  const Case cases[] = {
      {"kept for the same file and PIN", nullptr, {{"1111", nullptr, SSF_OK, 0}, {"1111", scribble, SSF_OK, 0}}},
      {"a wrong PIN after the right one", nullptr,
       {{"1111", nullptr, SSF_OK, 0}, {"9731", nullptr, SSF_ERR_SIGNER, 25}, {"1111", nullptr, SSF_OK, 0}}},
      {"the right PIN after a wrong one", nullptr, {{"9731", nullptr, SSF_ERR_SIGNER, 25}, {"1111", nullptr, SSF_OK, 0}}},
      {"no PIN opens no kept key", nullptr, {{"1111", nullptr, SSF_OK, 0}, {"", scribble, SSF_ERR_SIGNER, 24}}},
      {"a replaced file is read again", nullptr, {{"1111", nullptr, SSF_OK, 0}, {"1111", replace, SSF_ERR_SIGNER, 24}}},
      {"cache off", "0", {{"1111", nullptr, SSF_OK, 0}, {"1111", scribble, SSF_ERR_SIGNER, 24}}},
      {"an entry unused too long goes", "1",
       {{"1111", nullptr, SSF_OK, 0}, {"1111", scribble, SSF_OK, 0}, {"1111", wait_past_one_second, SSF_ERR_SIGNER, 24}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const OwnStores stores;
    const std::string key_file = stores.my("01-alice.key");
    auto env = stores.env();
    if (c.seconds != nullptr) env["BV_PLATFORM_KEY_CACHE_SECONDS"] = c.seconds;
    const ChildResult child = run_isolated(env, [&] {
      for (size_t i = 0; i < c.steps.size(); ++i) {
        const Step& step = c.steps[i];
        if (step.before) step.before(key_file);
        const Signed s = sign_once(alice, step.pin);
        EXPECT_EQ(s.rc, step.rc) << "step " << i;
        EXPECT_EQ(s.result, step.result) << "step " << i;
      }
    });
    EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
  }
}

// A renewal writes a new key and certificate over the old files between two
// calls: the new key signs (the message verifies with the new certificate in
// it), not the kept one.
TEST(KeyCache, RenewedKeyReplacesTheKeptOne) {
  const SigningWorld& w = SigningWorld::get();
  TempDir exchange;
  const OwnStores stores;
  const std::string my = stores.my("");
  UniquePtr<EVP_PKEY> renewed_key = generate_key("gost2012_256");
  UniquePtr<X509> renewed = issue_certificate({.subject = {{"O", "Test Bank"}, {"CN", "Alice"}, {"C", "RU"}}, .serial = 77},
                                              renewed_key.get(), w.root.cert.get(), w.root.key.get());
  const ChildResult child = run_isolated(stores.env(), [&] {
    ASSERT_EQ(sign_once("CN=Alice", "1111").rc, SSF_OK);
    write_file(my + "01-alice.cer.new", der_of(renewed.get()));
    write_file(my + "01-alice.key.new", bv::pki::pem_of(renewed_key.get(), "1111"));
    std::filesystem::rename(my + "01-alice.key.new", my + "01-alice.key");
    std::filesystem::rename(my + "01-alice.cer.new", my + "01-alice.cer");
    const Signed s = sign_once("CN=Alice", "1111");
    ASSERT_EQ(s.rc, SSF_OK);
    write_file(exchange / "renewed.p7s", s.message);
  });
  ASSERT_EQ(child.exit_code, 0) << child.stderr_text;
  std::string content, diagnostics;
  const std::string message = read_file(exchange / "renewed.p7s");
  EXPECT_EQ(openssl_cms_verify(message, w.root.cert_pem, "", nullptr, &content, &diagnostics), 0) << diagnostics;
  EXPECT_NE(message.find(der_of(renewed.get())), std::string::npos) << "not signed with the renewed certificate";
}

// A forked child starts without the parent's keys; the parent keeps them.
TEST(KeyCache, ForkedChildStartsEmpty) {
  const OwnStores stores;
  const std::string key_file = stores.my("01-alice.key");
  const ChildResult child = run_isolated(stores.env(), [&] {
    ASSERT_EQ(sign_once("CN=Alice", "1111").rc, SSF_OK);
    scribble_keeping_identity(key_file);
    const pid_t pid = fork();
    if (pid == 0) _exit(sign_once("CN=Alice", "1111").rc == SSF_ERR_SIGNER ? 0 : 1);
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the forked child signed with a kept key";
    EXPECT_EQ(sign_once("CN=Alice", "1111").rc, SSF_OK);
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
}

// Eight threads, three keys, one process: every message verifies.
TEST(KeyCache, ThreadsSignWithSharedKeys) {
  const SigningWorld& w = SigningWorld::get();
  TempDir exchange;
  const ChildResult child = run_isolated(w.env(), [&] {
    const std::pair<const char*, const char*> signers[] = {{"CN=Alice", "1111"}, {"CN=Bob", "2222"}, {"CN=Carol", ""}};
    std::vector<std::thread> threads;
    std::vector<std::string> messages(8);
    for (size_t t = 0; t < messages.size(); ++t)
      threads.emplace_back([&, t] {
        for (int round = 0; round < 5; ++round) {
          const auto& [id, pin] = signers[(t + static_cast<size_t>(round)) % 3];
          const Signed s = sign_once(id, pin);
          if (s.rc != SSF_OK) return;
          messages[t] = s.message;
        }
      });
    for (std::thread& thread : threads) thread.join();
    for (size_t t = 0; t < messages.size(); ++t) write_file(exchange / std::to_string(t), messages[t]);
  });
  ASSERT_EQ(child.exit_code, 0) << child.stderr_text;
  for (int t = 0; t < 8; ++t) {
    std::string content, diagnostics;
    EXPECT_EQ(openssl_cms_verify(read_file(exchange / std::to_string(t)), w.root.cert_pem, "", nullptr, &content,
                                 &diagnostics),
              0)
        << t << ": " << diagnostics;
    EXPECT_EQ(content, "data to be signed");
  }
}

// A mapping of the process that holds a piece of a secret, and whether a
// core dump would hold it too (no "dd" among its VmFlags).
struct Holding {
  std::string mapping;
  bool dumped = true;
};

// Where a piece of 16 bytes of the secret occurs in the process's private
// writable memory (heap, stacks, anonymous mappings, the kept keys' pages).
// Pieces, because the allocator writes its links over the start of a freed
// block; kept masked (each byte XOR 0x5A), so the needles match nothing.
std::vector<Holding> regions_holding(const std::string& masked_secret) {
  constexpr size_t kPiece = 16;
  std::unordered_set<std::string> pieces;
  // Two leading bytes filter, not one: a key holding a zero byte would
  // otherwise send every offset of the zero-filled pages to the set.
  const auto prefix_of = [](const char* at, unsigned char mask) {
    return static_cast<unsigned char>(at[0] ^ mask) << 8 | static_cast<unsigned char>(at[1] ^ mask);
  };
  std::vector<char> prefixes(1 << 16);
  for (size_t at = 0; at + kPiece <= masked_secret.size(); ++at) {
    pieces.insert(masked_secret.substr(at, kPiece));
    prefixes[prefix_of(&masked_secret[at], 0x5A)] = true;
  }
  struct Mapping {
    unsigned long from = 0, to = 0;
    Holding holding;
  };
  std::vector<Mapping> mappings;
  std::ifstream smaps("/proc/self/smaps");
  for (std::string line; std::getline(smaps, line);) {
    unsigned long from = 0, to = 0;
    char permissions[5] = {};
    if (std::sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, permissions) == 3 && line.find(':') > 16)
      mappings.push_back({from, to, {line, true}});
    else if (line.rfind("VmFlags:", 0) == 0 && !mappings.empty())
      mappings.back().holding.dumped = (line + " ").find(" dd ") == std::string::npos;
    if (!mappings.empty() && mappings.back().holding.mapping.find(" rw-p ") == std::string::npos &&
        line.rfind("VmFlags:", 0) == 0)
      mappings.pop_back();
  }
  std::vector<Holding> found;
  const int memory = open("/proc/self/mem", O_RDONLY);
  std::string chunk, window(kPiece, '\0');
  for (const Mapping& m : mappings) {
    if (m.to - m.from > (256ul << 20)) continue;
    bool holds = false;
    for (unsigned long start = m.from; start < m.to && !holds; start += (1ul << 20)) {
      chunk.assign(std::min<unsigned long>(m.to - start, (1ul << 20) + kPiece - 1), '\0');
      const ssize_t got = pread(memory, chunk.data(), chunk.size(), static_cast<off_t>(start));
      for (ssize_t at = 0; at + static_cast<ssize_t>(kPiece) <= got && !holds; ++at) {
        if (!prefixes[prefix_of(&chunk[at], 0)]) continue;
        for (size_t i = 0; i < kPiece; ++i) window[i] = static_cast<char>(chunk[at + i] ^ 0x5A);
        holds = pieces.count(window) != 0;
      }
    }
    if (holds) found.push_back(m.holding);
  }
  OPENSSL_cleanse(chunk.data(), chunk.size());
  close(memory);
  return found;
}

// Signing with a kept key, and a refused wrong PIN, leave no copy of either
// PIN behind once the host has deleted its records.
TEST(KeyCache, NoPinLeftInMemoryAfterKeptSignatures) {
  const SigningWorld& w = SigningWorld::get();
  const OwnStores stores;
  const std::string key_file = stores.my("01-alice.key");
  const ChildResult child = run_isolated(stores.env(), [&] {
    // PINs no other bytes of the process will equal by chance: the key's,
    // and a wrong one whose refusal must wipe what it copied too.
    const auto random_pin = [](std::string& pin, std::string& masked) {
      pin.assign(64, '\0');
      masked.assign(64, '\0');
      ASSERT_EQ(RAND_bytes(reinterpret_cast<unsigned char*>(masked.data()), 64), 1);
      for (size_t i = 0; i < pin.size(); ++i) {
        pin[i] = static_cast<char>('a' + static_cast<unsigned char>(masked[i]) % 26);
        masked[i] = static_cast<char>(pin[i] ^ 0x5A);
      }
    };
    std::string pin, masked, wrong, wrong_masked;
    random_pin(pin, masked);
    random_pin(wrong, wrong_masked);
    std::string key_pem = bv::pki::pem_of(w.alice.key.get(), pin);
    write_file(key_file, key_pem);
    OPENSSL_cleanse(key_pem.data(), key_pem.size());
    for (int i = 0; i < 3; ++i) ASSERT_EQ(sign_once("CN=Alice", pin).rc, SSF_OK);
    ASSERT_EQ(sign_once("CN=Alice", wrong).result, 25);
    OPENSSL_cleanse(pin.data(), pin.size());
    OPENSSL_cleanse(wrong.data(), wrong.size());
    for (const std::string* secret : {&masked, &wrong_masked}) {
      const std::vector<Holding> holding = regions_holding(*secret);
      EXPECT_TRUE(holding.empty()) << (secret == &masked ? "the PIN" : "the wrong PIN") << " is in "
                                   << holding.front().mapping;
    }
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
}

// A core dump of a process that signed with a kept key holds no copy of its
// private key: the only one left is in the kept keys' pages, which core
// dumps leave out.  The key is made and encrypted by openssl, so this
// process sees its scalar only as text, masked at once.
TEST(KeyCache, KeptKeyOnlyInPagesLeftOutOfCoreDumps) {
  const SigningWorld& w = SigningWorld::get();
  const OwnStores stores;
  TempDir made;
  write_file(made / "engine.cnf", kGostEngineConfig);
  const std::string openssl = "OPENSSL_CONF=" + quoted(made / "engine.cnf") + " openssl ";
  const std::string plain = quoted(made / "plain.pem");
  run_checked(openssl + "genpkey -algorithm gost2012_256 -pkeyopt paramset:A -out " + plain);
  run_checked(openssl + "pkey -in " + plain + " -aes256 -passout pass:dumped -out " + quoted(stores.my("77-dumped.key")));
  std::string text = run_checked(openssl + "pkey -in " + plain + " -text -noout");
  // Printed without leading zeros: one key in sixteen has an odd number of digits.
  size_t hex_at = text.find("Private key: ") + 13, hex_end = hex_at;
  while (hex_end < text.size() && std::isxdigit(static_cast<unsigned char>(text[hex_end]))) ++hex_end;
  std::string digits(64 - std::min<size_t>(64, hex_end - hex_at), '0');
  digits.append(text, hex_at, hex_end - hex_at);
  OPENSSL_cleanse(text.data(), text.size());
  // Masked byte by byte: an unmasked copy in a freed block would be found.
  std::string big_endian, little_endian;
  for (size_t at = 0; at + 1 < digits.size(); at += 2)
    big_endian += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16) ^ 0x5A);
  OPENSSL_cleanse(digits.data(), digits.size());
  ASSERT_EQ(big_endian.size(), 32u);
  little_endian.assign(big_endian.rbegin(), big_endian.rend());
  const std::string public_pem = run_checked(openssl + "pkey -in " + plain + " -pubout");
  std::filesystem::remove(made / "plain.pem");
  UniquePtr<BIO> bio(BIO_new_mem_buf(public_pem.data(), static_cast<int>(public_pem.size())));
  bv::ossl::gost_engine();
  UniquePtr<EVP_PKEY> public_key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
  ASSERT_TRUE(public_key);
  write_file(stores.my("77-dumped.cer"),
             der_of(issue_certificate({.subject = {{"CN", "Dumped"}}, .serial = 77}, public_key.get(), w.root.cert.get(),
                                      w.root.key.get())
                        .get()));

  const ChildResult child = run_isolated(stores.env(), [&] {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(sign_once("CN=Dumped", "dumped").rc, SSF_OK);
    bool kept = false;
    for (const std::string* scalar : {&big_endian, &little_endian})
      for (const Holding& holding : regions_holding(*scalar)) {
        EXPECT_FALSE(holding.dumped) << "the key is in " << holding.mapping;
        kept = true;
      }
    EXPECT_TRUE(kept) << "the kept key was not found: the search would miss it anywhere";
  });
  EXPECT_EQ(child.exit_code, 0) << child.stderr_text;
}

}  // namespace
}  // namespace bv::test
