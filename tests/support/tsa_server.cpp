#include "tsa_server.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace bv::test {

TsaServer::TsaServer(const std::string& arguments, const std::string& stderr_file) {
  int out[2];
  if (pipe(out) != 0) throw std::runtime_error("pipe");
  const std::string command =
      "exec " BV_TOOLS_DIR "/bvtsa --listen 127.0.0.1:0 " + arguments + " 2>>'" + stderr_file + "'";
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  // The first line names the port: "listening on 127.0.0.1:PORT".
  std::string line;
  char c = 0;
  pollfd entry{out[0], POLLIN, 0};
  while (line.find('\n') == std::string::npos && poll(&entry, 1, 20000) == 1 && read(out[0], &c, 1) == 1) line += c;
  close(out[0]);
  const std::string prefix = "listening on 127.0.0.1:";
  if (line.rfind(prefix, 0) != 0) {
    stop();
    throw std::runtime_error("bvtsa did not start: " + line);
  }
  port_ = std::stoi(line.substr(prefix.size()));
}

TsaServer::~TsaServer() { stop(); }

int TsaServer::stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace bv::test
