// The HTTP side of bvtsa: one POST read from a connection within a time
// limit, one answer written, then the connection is closed.
#pragma once

#include <signal.h>

#include <chrono>
#include <string>

namespace bvtsa {

constexpr size_t kMaxBody = 64 * 1024;  // a time stamp query is a few hundred bytes

// Waits until `fd` is readable, the deadline passes or a signal that
// `while_waiting` lets through arrives; only the first is true.
bool wait_readable(int fd, std::chrono::steady_clock::time_point deadline, const sigset_t& while_waiting);

struct HttpRequest {
  std::string version = "HTTP/1.0";
  std::string body;
};

// Reads a POST of application/timestamp-query: 200 with its body, an HTTP
// error status to answer with (`why` says what was wrong), or 0 when the
// peer went away or a signal came and nothing is to be answered.
int read_request(int client, std::chrono::steady_clock::time_point deadline, const sigset_t& while_waiting,
                 HttpRequest& request, std::string& why);

// Writes the answer and its body; Connection: close.
void write_answer(int client, const std::string& version, int status, const std::string& content_type,
                  const std::string& body);

}  // namespace bvtsa
