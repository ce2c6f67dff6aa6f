// bvtsa run as a child process on 127.0.0.1, on a port it picks itself.
#pragma once

#include <sys/types.h>

#include <string>

namespace bv::test {

class TsaServer {
 public:
  // `arguments` follow "--listen 127.0.0.1:0" (--cert, --key, ...), shell
  // words; its standard error goes to `stderr_file`.  Throws when bvtsa
  // does not come up.
  TsaServer(const std::string& arguments, const std::string& stderr_file);
  ~TsaServer();
  TsaServer(const TsaServer&) = delete;
  TsaServer& operator=(const TsaServer&) = delete;

  int port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  // SIGTERM, then its exit status (-1 when a signal ended it).
  int stop();

 private:
  pid_t pid_ = -1;
  int port_ = 0;
};

}  // namespace bv::test
