// bvtsa: a small RFC 3161 time stamp server for the demo, the tests and
// administrators trying the library before their authority's server is
// reachable.  One request at a time, each within a read time limit.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "authority.h"
#include "cli.h"
#include "http.h"

namespace bvtsa {
namespace {

const bv::cli::Help kHelp{
    "bvtsa",
    {"--listen ADDRESS:PORT --cert FILE --key FILE [--pin PIN] [--chain FILE] [--policy OID] "
     "[--serial-file FILE] [--log FILE] [--timeout SECONDS]",
     "help [OPTION] | --help | --version"},
    "Serves RFC 3161 time stamps over HTTP POST, for trials and tests of the library.",
    "One request at a time.  The first line on standard output is \"listening on ADDRESS:PORT\".\n"
    "One log line per request (TIME PEER HTTP-STATUS TS-STATUS SERIAL [NOTE]) goes to standard\n"
    "error or to the --log file.  SIGTERM or SIGINT stops it.  See docs/bvtsa.md of the\n"
    "installed documentation.",
    {{"Options",
      {{"--listen ADDRESS:PORT", "an IPv4 address and port (0 picks a free one)"},
       {"--cert FILE", "the authority's certificate, PEM or DER: extended key usage timeStamping,\n"
                       "critical, and no other"},
       {"--key FILE", "its private key, PKCS #8 in PEM or DER, encrypted or plain"},
       {"--pin PIN", "opens an encrypted key"},
       {"--chain FILE", "certificates (PEM or DER) that go into every token"},
       {"--policy OID", "the policy of the tokens (a demonstration one unless given)"},
       {"--serial-file FILE", "the last serial number issued, in hexadecimal; beside the certificate\n"
                              "(tsa.pem keeps it in tsa.serial) unless given"},
       {"--log FILE", "appends the log lines there"},
       {"--timeout SECONDS", "for reading a request and writing its answer (10 unless given)"}}},
     bv::cli::exit_status("the authority cannot serve: the key is not the certificate's, a wrong --pin,\n"
                          "a certificate not for time stamping, the address cannot be listened on")}};

// Examples arc of X.660: a demonstration policy, to be replaced by the
// authority's own with --policy.
constexpr const char* kDemoPolicy = "2.999.3161.1";

struct Options {
  std::string address;
  int port = -1;
  AuthoritySettings authority;
  std::string pin, log_file;
  bool has_pin = false;
  int timeout_seconds = 10;
};

struct UsageError {
  std::string text;
};

Options parse_options(int argc, char** argv) {
  Options options;
  options.authority.policy = kDemoPolicy;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (i + 1 >= argc) throw UsageError{word + " needs a value"};
    const std::string value = argv[++i];
    if (word == "--listen") {
      const size_t colon = value.rfind(':');
      in_addr unused{};
      if (colon == std::string::npos || inet_pton(AF_INET, value.substr(0, colon).c_str(), &unused) != 1 ||
          value.size() - colon - 1 > 5 || value.find_first_not_of("0123456789", colon + 1) != std::string::npos ||
          colon + 1 == value.size() || std::stoi(value.substr(colon + 1)) > 65535)
        throw UsageError{"--listen wants IPv4-ADDRESS:PORT, not " + value};
      options.address = value.substr(0, colon);
      options.port = std::stoi(value.substr(colon + 1));
    } else if (word == "--cert") {
      options.authority.certificate_file = value;
    } else if (word == "--key") {
      options.authority.key_file = value;
    } else if (word == "--pin") {
      options.pin = value;
      options.has_pin = true;
    } else if (word == "--chain") {
      options.authority.chain_file = value;
    } else if (word == "--policy") {
      options.authority.policy = value;
    } else if (word == "--serial-file") {
      options.authority.serial_file = value;
    } else if (word == "--log") {
      options.log_file = value;
    } else if (word == "--timeout") {
      options.timeout_seconds = std::atoi(value.c_str());
      if (options.timeout_seconds <= 0) throw UsageError{"--timeout wants a number of seconds"};
    } else {
      throw UsageError{"unknown option " + word};
    }
  }
  if (options.port < 0 || options.authority.certificate_file.empty() || options.authority.key_file.empty())
    throw UsageError{"--listen, --cert and --key are needed"};
  if (options.authority.serial_file.empty()) {
    // Beside the certificate: tsa.pem keeps its numbers in tsa.serial.
    const std::string& cert = options.authority.certificate_file;
    const size_t dot = cert.rfind('.'), slash = cert.rfind('/');
    options.authority.serial_file =
        (dot != std::string::npos && (slash == std::string::npos || dot > slash) ? cert.substr(0, dot) : cert) +
        ".serial";
  }
  return options;
}

volatile sig_atomic_t stop_signal = 0;
void note_stop(int signal_number) { stop_signal = signal_number; }

std::string peer_text(const sockaddr_in& peer) {
  char address[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
  return std::string(address) + ":" + std::to_string(ntohs(peer.sin_port));
}

// TIME PEER HTTP-STATUS TS-STATUS SERIAL [NOTE]
void log_line(FILE* log, const std::string& peer, int http_status, const std::string& ts_status,
              const std::string& serial, const std::string& note) {
  char when[32];
  const time_t now = time(nullptr);
  tm parts{};
  strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &parts));
  std::fprintf(log, "%s %s %s %s %s%s%s\n", when, peer.c_str(), http_status ? std::to_string(http_status).c_str() : "-",
               ts_status.c_str(), serial.c_str(), note.empty() ? "" : " ", note.c_str());
  std::fflush(log);
}

void serve_one(int client, const sockaddr_in& peer, TimeStampAuthority& authority, const Options& options,
               const sigset_t& while_waiting, FILE* log) {
  const timeval send_limit{options.timeout_seconds, 0};
  setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &send_limit, sizeof send_limit);
  HttpRequest request;
  std::string why;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeout_seconds);
  int status = read_request(client, deadline, while_waiting, request, why);
  Reply reply{{}, "-", "-"};
  if (status == 200) {
    // A body that is no TimeStampReq is the client's error at the HTTP
    // level; a request this authority will not serve gets a TS rejection.
    const auto* cursor = reinterpret_cast<const unsigned char*>(request.body.data());
    bv::ossl::UniquePtr<TS_REQ> parsed(d2i_TS_REQ(nullptr, &cursor, static_cast<long>(request.body.size())));
    const bool whole = parsed && cursor == reinterpret_cast<const unsigned char*>(request.body.data()) + request.body.size();
    ERR_clear_error();
    if (!whole) {
      status = 400;
      why = "not a time stamp request";
    } else if (!authority.reply(request.body, reply)) {
      status = 500;
      why = "no reply could be made";
    }
  }
  // Logged before answering: whoever has the answer finds its line.
  log_line(log, peer_text(peer), status, reply.status, reply.serial, why);
  if (status == 200)
    write_answer(client, request.version, 200, "application/timestamp-reply", reply.der);
  else if (status != 0)
    write_answer(client, request.version, status, "text/plain", why + "\n");
}

int run(const Options& options) {
  FILE* log = stderr;
  if (!options.log_file.empty() && (log = std::fopen(options.log_file.c_str(), "a")) == nullptr)
    throw bv::cli::FileError(bv::cli::file_error("write", options.log_file));
  AuthoritySettings settings = options.authority;
  settings.pin = options.has_pin ? &options.pin : nullptr;
  TimeStampAuthority authority(settings);

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int reuse = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(options.port));
  inet_pton(AF_INET, options.address.c_str(), &address.sin_addr);
  socklen_t length = sizeof address;
  if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0 ||
      bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 16) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("cannot listen on " + options.address + ":" + std::to_string(options.port) + ": " +
                             std::strerror(errno));

  // SIGTERM and SIGINT are let through only while waiting, so one that
  // comes in between is not lost.
  sigset_t stop_signals, while_waiting;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  sigprocmask(SIG_BLOCK, &stop_signals, &while_waiting);
  sigdelset(&while_waiting, SIGTERM);
  sigdelset(&while_waiting, SIGINT);
  struct sigaction action {};
  action.sa_handler = note_stop;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  std::printf("listening on %s:%d\n", options.address.c_str(), ntohs(address.sin_port));
  std::fflush(stdout);
  while (stop_signal == 0) {
    if (!wait_readable(listener, std::chrono::steady_clock::now() + std::chrono::hours(1), while_waiting)) continue;
    sockaddr_in peer{};
    socklen_t peer_length = sizeof peer;
    const int client = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &peer_length, SOCK_CLOEXEC);
    if (client < 0) continue;
    serve_one(client, peer, authority, options, while_waiting, log);
    close(client);
  }
  close(listener);
  log_line(log, "-", 0, "-", "-", std::string("stopped by ") + (stop_signal == SIGINT ? "SIGINT" : "SIGTERM"));
  if (log != stderr) std::fclose(log);
  return 0;
}

}  // namespace
}  // namespace bvtsa

int main(int argc, char** argv) {
  using namespace bvtsa;
  if (const auto handled = bv::cli::common_arguments(kHelp, argc, argv)) return *handled;
  try {
    return run(parse_options(argc, argv));
  } catch (const UsageError& error) {
    return bv::cli::usage_error("bvtsa", error.text);
  } catch (const bv::cli::FileError& error) {
    std::fprintf(stderr, "bvtsa: %s\n", error.what());
    return bv::cli::kUsageOrFile;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bvtsa: %s\n", error.what());
    return bv::cli::kRefused;
  }
}
