// soak: every export called from many threads at once, for a given count,
// against the demo PKI with its own time stamp server on loopback.  Each
// answer is compared with the answer the same call gave alone before the
// threads started; resident memory is reported after a warm-up and at the
// end.  A program, not a test: docs/reliability.md has its figures.
//
//   soak [THREADS [CALLS_PER_THREAD]]     (default 16 and 10000)
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_pki.h"
#include "bvsapssf_api.h"

namespace {

std::string g_tools;  // the build folder: bvstore and bvtsa

// What a call came to, in a form that is the same each time the call is
// right: return code, Results, and the output where it is deterministic, or
// what verifying or opening it gave back where it is not (signatures and
// envelopes are randomised).
using Answer = std::string;

std::string rc_text(SSF_RC rc) { return "rc=" + std::to_string(rc); }

struct Record {
  SsfInfo* info = nullptr;
  SsfInfoNode* list = nullptr;
  Record(const std::string& id, const std::string& profile, const std::string& pin) {
    SsfNEWSigRcpSsfInfo(id.data(), static_cast<int32_t>(id.size()), nullptr, 0, profile.data(),
                        static_cast<int32_t>(profile.size()), pin.data(), static_cast<int32_t>(pin.size()), 0, &info);
    SsfINSSigRcpSsfInfo(info, &list);
  }
  ~Record() { SsfDELSigRcpSsfInfoList(&list); }
};

struct Output {
  unsigned char* data = nullptr;
  uint32_t length = 0;
  ~Output() { SsfDELSsfOctetstring(&data, &length); }
  std::string text() const { return std::string(reinterpret_cast<char*>(data), length); }
};

const std::string kContent = "Payment order 42, 1000.00 RUB\n";
const std::string kSigner = "CN=Demo Signer 2012-256", kSignerPin = "22222222";
const std::string kOther = "CN=Demo Signer 2001", kOtherPin = "11111111";
const std::string kRecipient = "CN=Demo Recipient 2012-256", kRecipientPin = "44444444";

std::string sign(const char* format, const std::string& id, const std::string& pin, Output& out) {
  Record signer(id, "", pin);
  const SSF_RC rc = SsfSign(format, static_cast<int32_t>(std::strlen(format)), nullptr, 0, 1, 0,
                            reinterpret_cast<const unsigned char*>(kContent.data()),
                            static_cast<int32_t>(kContent.size()), signer.list, &out.data, &out.length);
  return rc_text(rc) + " result=" + std::to_string(signer.info->Result);
}

// The content and every signer's Result, as SsfVerify gives them.
std::string verify(const char* format, const std::string& message) {
  SsfInfoNode* signers = nullptr;
  Output content;
  const SSF_RC rc = SsfVerify(format, static_cast<int32_t>(std::strlen(format)), 0,
                              reinterpret_cast<const unsigned char*>(message.data()),
                              static_cast<int32_t>(message.size()), nullptr, 0, nullptr, 0, nullptr, 0, &signers,
                              &content.data, &content.length);
  std::string answer = rc_text(rc) + " content=" + (content.text() == kContent ? "same" : "other");
  for (SsfInfoNode* node = signers; node != nullptr; node = node->next)
    if (node->info != nullptr) answer += " signer=" + std::to_string(node->info->Result);
  SsfDELSigRcpSsfInfoList(&signers);
  return answer;
}

std::string develope(const std::string& message) {
  Record recipient(kRecipient, "", kRecipientPin);
  Output content;
  const SSF_RC rc = SsfDevelope("PKCS7", 5, reinterpret_cast<const unsigned char*>(message.data()),
                                static_cast<int32_t>(message.size()), recipient.info, &content.data, &content.length);
  return rc_text(rc) + " content=" + (content.text() == kContent ? "same" : "other");
}

struct Fixtures {
  std::string signed_message, cades_message, enveloped_message;
};

// One call of each kind: its name and how to make its answer.
struct Operation {
  const char* name;
  std::function<Answer(const Fixtures&)> run;
};

std::vector<Operation> operations() {
  return {
      {"sign PKCS7, then verify it",
       [](const Fixtures&) {
         Output out;
         const std::string signed_answer = sign("PKCS7", kSigner, kSignerPin, out);
         return signed_answer + " | " + verify("PKCS7", out.text());
       }},
      {"sign CADES, then verify it",
       [](const Fixtures&) {
         Output out;
         const std::string signed_answer = sign("CADES", kSigner, kSignerPin, out);
         return signed_answer + " | " + verify("CADES", out.text());
       }},
      {"sign with a wrong PIN", [](const Fixtures&) { Output out; return sign("PKCS7", kSigner, "00000000", out); }},
      {"verify a PKCS7 message", [](const Fixtures& f) { return verify("PKCS7", f.signed_message); }},
      {"verify a CAdES message", [](const Fixtures& f) { return verify("CADES", f.cades_message); }},
      {"envelope, then develope it",
       [](const Fixtures&) {
         Record recipient(kRecipient, "", "");
         Output out;
         const SSF_RC rc = SsfEnvelope("PKCS7", 5, "GOST28147", 9, reinterpret_cast<const unsigned char*>(kContent.data()),
                                       static_cast<int32_t>(kContent.size()), nullptr, 0, nullptr, 0, recipient.list,
                                       &out.data, &out.length);
         return rc_text(rc) + " | " + develope(out.text());
       }},
      {"develope a message", [](const Fixtures& f) { return develope(f.enveloped_message); }},
      {"add a signature, then verify",
       [](const Fixtures& f) {
         Record signer(kOther, "", kOtherPin);
         Output out;
         const SSF_RC rc = SsfAddSign("PKCS7", 5, nullptr, 0, 1,
                                      reinterpret_cast<const unsigned char*>(f.signed_message.data()),
                                      static_cast<int32_t>(f.signed_message.size()), nullptr, 0, signer.info,
                                      &out.data, &out.length);
         return rc_text(rc) + " result=" + std::to_string(signer.info->Result) + " | " + verify("PKCS7", out.text());
       }},
      {"digest",
       [](const Fixtures&) {
         Output out;
         const SSF_RC rc = SsfDigest("PKCS7", 5, 0, reinterpret_cast<const unsigned char*>(kContent.data()),
                                     static_cast<int32_t>(kContent.size()), "GOST2012-256", 12, &out.data,
                                     &out.length);
         return rc_text(rc) + " " + out.text();
       }},
      {"records printed",
       [](const Fixtures&) {
         Record record(kSigner, "uMy", kSignerPin);
         Output out;
         const SSF_RC rc = SsfPRISigRcpSsfInfoList(record.list, reinterpret_cast<char**>(&out.data), &out.length);
         return rc_text(rc) + " " + out.text();
       }},
  };
}

long resident_kib() {
  long pages = 0, resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

std::string run_text(const std::string& command) {
  std::string text;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) text += buffer;
    pclose(pipe);
  }
  return text;
}

// The demo PKI in a fresh folder and bvtsa serving it on a free loopback
// port, as the README's demo runs them.
struct World {
  std::string folder;
  std::unique_ptr<Bvtsa> tsa;

  World() {
    char pattern[] = "/tmp/bvsapssf-soak-XXXXXX";
    folder = mkdtemp(pattern);
    setenv("BV_PLATFORM_COMMON_APPDATA", (folder + "/common").c_str(), 1);
    setenv("BV_PLATFORM_LOCAL_APPDATA", (folder + "/local").c_str(), 1);
    if (std::system((g_tools + "bvstore demo " + folder + " > /dev/null").c_str()) != 0) std::abort();
    const std::string services = folder + "/services/";
    tsa = std::make_unique<Bvtsa>(g_tools + "bvtsa",
                                  std::vector<std::string>{"--cert", services + "tsa.pem", "--key", services + "tsa.key",
                                                           "--pin", "12121212", "--chain", services + "chain.pem",
                                                           "--log", "/dev/null"});
  }
  ~World() {
    tsa.reset();
    run_text("rm -rf '" + folder + "'");
  }
};

}  // namespace

int main(int argc, char** argv) {
  const int threads = argc > 1 ? std::atoi(argv[1]) : 16;
  const long calls = argc > 2 ? std::atol(argv[2]) : 10000;
  char self[4096] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return 2;
  g_tools = std::string(self).substr(0, std::string(self).rfind('/') + 1) + "../";  // bench/ is in the build folder
  World world;

  // The answers of each call made alone.
  Fixtures fixtures;
  {
    Output out;
    sign("PKCS7", kSigner, kSignerPin, out);
    fixtures.signed_message = out.text();
  }
  {
    Output out;
    sign("CADES", kSigner, kSignerPin, out);
    fixtures.cades_message = out.text();
  }
  {
    Record recipient(kRecipient, "", "");
    Output out;
    SsfEnvelope("PKCS7", 5, "GOST28147", 9, reinterpret_cast<const unsigned char*>(kContent.data()),
                static_cast<int32_t>(kContent.size()), nullptr, 0, nullptr, 0, recipient.list, &out.data, &out.length);
    fixtures.enveloped_message = out.text();
  }
  const std::vector<Operation> ops = operations();
  std::vector<Answer> expected;
  for (const Operation& op : ops) {
    expected.push_back(op.run(fixtures));
    std::string shown = expected.back().substr(0, 72);
    for (char& c : shown)
      if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F) c = '.';
    std::printf("%-30s %s\n", op.name, shown.c_str());
  }

  std::atomic<long> done{0}, wrong{0};
  std::atomic<long> warm_kib{0};
  const long warm_up = threads * calls / 10;
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] {
      for (long i = 0; i < calls; ++i) {
        const size_t which = static_cast<size_t>(t + i) % ops.size();
        const Answer answer = ops[which].run(fixtures);
        if (answer != expected[which] && wrong.fetch_add(1) < 5)
          std::fprintf(stderr, "%s answered otherwise: %s\n", ops[which].name, answer.c_str());
        if (done.fetch_add(1) + 1 == warm_up) warm_kib = resident_kib();
      }
    });
  for (std::thread& thread : pool) thread.join();
  const long end_kib = resident_kib();
  std::printf("threads %d, calls %ld, answered otherwise %ld\n", threads, done.load(), wrong.load());
  std::printf("resident after warm-up %ld KiB, at the end %ld KiB (%+ld KiB)\n", warm_kib.load(), end_kib,
              end_kib - warm_kib.load());
  return wrong.load() == 0 ? 0 : 1;
}
