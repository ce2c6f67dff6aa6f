#include "http.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

namespace bvtsa {
namespace {

constexpr size_t kMaxHead = 16 * 1024;

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

const char* reason(int status) {
  switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 400: return "Bad Request";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 411: return "Length Required";
    case 413: return "Payload Too Large";
    case 415: return "Unsupported Media Type";
    default: return "Internal Server Error";
  }
}

void send_all(int client, const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = send(client, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // the peer is gone or stalls past SO_SNDTIMEO
    sent += static_cast<size_t>(n);
  }
}

// Appends what arrives before the deadline until `buffer` holds `wanted`
// bytes or `until` appears: 1 when it does, 0 on a closed connection, -1 on
// the deadline, -2 on a signal.
int read_more(int client, std::string& buffer, size_t wanted, const std::string& until,
              std::chrono::steady_clock::time_point deadline, const sigset_t& while_waiting) {
  char chunk[4096];
  while (buffer.size() < wanted && (until.empty() || buffer.find(until) == std::string::npos)) {
    if (!wait_readable(client, deadline, while_waiting))
      return std::chrono::steady_clock::now() >= deadline ? -1 : -2;
    const ssize_t n = recv(client, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return 0;
    buffer.append(chunk, static_cast<size_t>(n));
  }
  return 1;
}

}  // namespace

bool wait_readable(int fd, std::chrono::steady_clock::time_point deadline, const sigset_t& while_waiting) {
  const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return false;
  const timespec timeout{static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
  pollfd entry{fd, POLLIN, 0};
  return ppoll(&entry, 1, &timeout, &while_waiting) == 1;
}

int read_request(int client, std::chrono::steady_clock::time_point deadline, const sigset_t& while_waiting,
                 HttpRequest& request, std::string& why) {
  std::string buffer;
  int got = read_more(client, buffer, kMaxHead, "\r\n\r\n", deadline, while_waiting);
  if (got == -2) return why = "interrupted", 0;
  if (got == -1) return why = "no complete request in time", 408;
  if (got == 0 && buffer.empty()) return why = "closed without a request", 0;
  const size_t head_end = buffer.find("\r\n\r\n");
  if (head_end == std::string::npos)
    return why = buffer.size() >= kMaxHead ? "request head too long" : "incomplete request head", 400;

  // Request line: METHOD TARGET HTTP/1.x.
  const size_t line_end = buffer.find("\r\n");
  const std::string line = buffer.substr(0, line_end);
  const size_t space1 = line.find(' '), space2 = line.rfind(' ');
  if (space1 == std::string::npos || space2 == space1) return why = "bad request line", 400;
  request.version = line.substr(space2 + 1);
  if (request.version != "HTTP/1.0" && request.version != "HTTP/1.1") {
    request.version = "HTTP/1.0";
    return why = "not HTTP/1.0 or 1.1", 400;
  }
  if (line.substr(0, space1) != "POST") return why = "method " + line.substr(0, space1), 405;

  std::string content_type, content_length, transfer_encoding, expect;
  for (size_t at = line_end + 2; at < head_end;) {
    const size_t end = buffer.find("\r\n", at);
    const std::string header = buffer.substr(at, end - at);
    at = end + 2;
    const size_t colon = header.find(':');
    if (colon == std::string::npos || colon == 0) return why = "bad header line", 400;
    const std::string name = lower(header.substr(0, colon)), value = trimmed(header.substr(colon + 1));
    if (name == "content-type") content_type = lower(value);
    if (name == "content-length") content_length = value;
    if (name == "transfer-encoding") transfer_encoding = value;
    if (name == "expect") expect = lower(value);
  }
  if (!transfer_encoding.empty() || content_length.empty()) return why = "no Content-Length", 411;
  if (content_length.size() > 9 ||
      !std::all_of(content_length.begin(), content_length.end(), [](unsigned char c) { return std::isdigit(c); }))
    return why = "bad Content-Length", 400;
  const size_t length = std::stoul(content_length);
  if (length > kMaxBody) return why = "body of " + content_length + " bytes", 413;
  if (trimmed(content_type.substr(0, content_type.find(';'))) != "application/timestamp-query")
    return why = "Content-Type " + (content_type.empty() ? "missing" : content_type), 415;

  if (expect == "100-continue" && request.version == "HTTP/1.1" && buffer.size() == head_end + 4)
    send_all(client, "HTTP/1.1 100 Continue\r\n\r\n");
  got = read_more(client, buffer, head_end + 4 + length, {}, deadline, while_waiting);
  if (got == -1) return why = "body not complete in time", 408;
  if (got != 1) return why = got == 0 ? "closed before the body was complete" : "interrupted", 0;
  request.body = buffer.substr(head_end + 4, length);
  return 200;
}

void write_answer(int client, const std::string& version, int status, const std::string& content_type,
                  const std::string& body) {
  send_all(client, version + " " + std::to_string(status) + " " + reason(status) +
                       "\r\nContent-Type: " + content_type + "\r\nContent-Length: " + std::to_string(body.size()) +
                       (status == 405 ? "\r\nAllow: POST" : "") + "\r\nConnection: close\r\n\r\n" + body);
}

}  // namespace bvtsa
