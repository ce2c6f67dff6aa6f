// bvtsa: its tokens pass `openssl ts -verify` for every hash it accepts, bad
// requests get HTTP errors while the server goes on serving, and serial
// numbers go on across a restart.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "signing.h"
#include "tsa_server.h"

namespace bv::test {
namespace {

class BvtsaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // `openssl ts` reads its hash options before -engine loads the engine:
    // the engine comes from a configuration file instead.
    write_file(dir_ / "openssl.cnf", kGostEngineConfig);
    write_file(dir_ / "data", "data to be time stamped\n");
    write_file(tsa_key_, pem_of(w.tsa.key.get(), "8888"));
  }
  std::string arguments(const std::string& extra = "") const {
    return "--cert " + w.tsa.cert_pem + " --key " + tsa_key_ + " --pin 8888 --serial-file " + (dir_ / "serial") +
           " --log " + (dir_ / "log") + " " + extra;
  }
  std::string openssl(const std::string& arguments, int* status = nullptr) const {
    return run_command("OPENSSL_CONF=" + (dir_ / "openssl.cnf") + " openssl " + arguments + " 2>&1", status);
  }
  // POSTs the file; the reply goes to dir_/reply, the HTTP status comes back.
  int post(const TsaServer& tsa, const std::string& file, const std::string& curl_options = "") const {
    const std::string code =
        run_command("curl -s --max-time 20 -o " + (dir_ / "reply") + " -w '%{http_code}' -H " +
                    "'Content-Type: application/timestamp-query' --data-binary @" + file + " " + curl_options + " " +
                    tsa.url());
    return std::atoi(code.c_str());
  }
  // A query for dir_/data and the reply to it, checked against both.
  bool token_verifies(const TsaServer& tsa, const std::string& query_options, const std::string& untrusted = "") {
    openssl("ts -query -data " + (dir_ / "data") + " " + query_options + " -out " + (dir_ / "query"));
    EXPECT_EQ(post(tsa, dir_ / "query"), 200);
    int status = 0;
    const std::string out = openssl("ts -verify -queryfile " + (dir_ / "query") + " -in " + (dir_ / "reply") +
                                        " -CAfile " + w.root.cert_pem + untrusted, &status);
    return status == 0 && contains(out, "Verification: OK");
  }
  const SigningWorld& w = SigningWorld::get();
  TempDir dir_;
  const std::string tsa_key_ = dir_ / "tsa.key";  // the authority's key under a PIN
};

TEST_F(BvtsaTest, TokensVerifyForEveryHash) {
  TsaServer tsa(arguments(), dir_ / "stderr");
  const std::string untrusted = " -untrusted " + w.tsa.cert_pem;
  for (const char* hash : {"-md_gost12_256", "-md_gost12_512", "-md_gost94", "-sha1", "-sha256"}) {
    SCOPED_TRACE(hash);
    // With certReq the token carries the certificate; without, the verifier
    // must bring it.
    EXPECT_TRUE(token_verifies(tsa, std::string(hash) + " -cert"));
    EXPECT_FALSE(token_verifies(tsa, hash));
    EXPECT_TRUE(token_verifies(tsa, hash, untrusted));
  }
  // The key's own hash three times: digestAlgorithms, the signer's
  // digestAlgorithm and the certificate's hash in signing-certificate-v2.
  openssl("ts -reply -in " + (dir_ / "reply") + " -token_out -out " + (dir_ / "token"));
  const std::string token = openssl("cms -cmsout -print -inform DER -in " + (dir_ / "token"));
  EXPECT_TRUE(contains(token, "signingCertificateV2")) << token;
  size_t named = 0;
  for (size_t at = 0; (at = token.find("GOST R 34.11-2012 with 256 bit hash", at)) != std::string::npos; ++at) ++named;
  EXPECT_EQ(named, 3u) << token;
  EXPECT_EQ(tsa.stop(), 0);
  EXPECT_EQ(read_file(dir_ / "serial"), "0F\n");
}

TEST_F(BvtsaTest, BadRequestsGetHttpErrorsAndTheServerGoesOn) {
  TsaServer tsa(arguments("--timeout 1"), dir_ / "stderr");
  openssl("ts -query -data " + (dir_ / "data") + " -md5 -out " + (dir_ / "md5-query"));
  const struct {
    std::string file, curl_options;
    int status;
    const char* logged;
  } cases[] = {
      {dir_ / "data", "", 400, " 400 - - not a time stamp request"},
      {dir_ / "md5-query", "", 200, " 200 rejection:badAlg -"},
      {dir_ / "md5-query", "-H 'Content-Type: text/plain'", 415, " 415 - - Content-Type text/plain"},
      {dir_ / "md5-query", "-X PUT", 405, " 405 - - method PUT"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.logged);
    EXPECT_EQ(post(tsa, c.file, c.curl_options), c.status);
    EXPECT_TRUE(contains(read_file(dir_ / "log"), c.logged)) << read_file(dir_ / "log");
    EXPECT_TRUE(token_verifies(tsa, "-md_gost12_256 -cert"));
  }
  // A client that connects and says nothing holds the server for the
  // time-out only.
  const int stalled = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(tsa.port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(stalled, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_TRUE(token_verifies(tsa, "-md_gost12_512 -cert"));
  close(stalled);
  EXPECT_TRUE(contains(read_file(dir_ / "log"), " 408 - - no complete request in time"));
}

TEST_F(BvtsaTest, SerialNumbersGoOnAcrossARestartAndBadSettingsStopIt) {
  for (const char* expected : {"02\n", "04\n"}) {
    TsaServer tsa(arguments(), dir_ / "stderr");
    EXPECT_TRUE(token_verifies(tsa, "-md_gost12_256 -cert"));
    EXPECT_TRUE(token_verifies(tsa, "-md_gost12_256 -cert"));
    EXPECT_TRUE(contains(openssl("ts -reply -text -in " + (dir_ / "reply")), "Serial number: 0x" + std::string(expected, 2)));
    EXPECT_EQ(tsa.stop(), 0);
    EXPECT_EQ(read_file(dir_ / "serial"), expected);
  }
  write_file(dir_ / "bad-serial", "twelve\n");
  const struct {
    std::string arguments;
    const char* says;
  } cases[] = {
      {"--cert " + w.tsa.cert_pem + " --key " + tsa_key_, "is encrypted: give --pin"},
      {"--cert " + w.tsa.cert_pem + " --key " + tsa_key_ + " --pin 1111", "wrong --pin"},
      {"--cert " + w.alice.cert_pem + " --key " + w.my("01-alice.key") + " --pin 1111", "invalid signer certificate purpose"},
      {"--cert " + w.tsa.cert_pem + " --key " + w.my("01-alice.key") + " --pin 1111", "is not the key of"},
      {arguments("--serial-file " + (dir_ / "bad-serial")), "holds no hexadecimal serial number"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.says);
    int status = 0;
    const std::string out = run_command(BV_TOOLS_DIR "/bvtsa --listen 127.0.0.1:0 " + c.arguments + " 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(contains(out, c.says)) << out;
  }
}

}  // namespace
}  // namespace bv::test
