// medium-server: serves an update-medium folder over HTTP on loopback, as the USB front end of
// the vehicle serves an inserted stick. Every request is printed, so a demo shows what the
// service fetched.
//
//   medium-server --dir DIR [--host 127.0.0.1] [--port 29214] [--prefix /medium]
//
// Only loopback hosts are accepted. Runs until SIGTERM or SIGINT.
#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace {

// SIGTERM/SIGINT are taken by a thread of their own (sigwait), not by a handler: stop() is not
// async-signal-safe, and a stop() before the accept loop runs is lost in cpp-httplib, so the
// thread repeats it until the loop has ended.
std::thread stopOnSignal(httplib::Server& server, const sigset_t& signals,
                         std::atomic<bool>& ended) {
  return std::thread([&server, signals, &ended] {
    pthread_setname_np(pthread_self(), "medium-signal");
    int signal = 0;
    sigwait(&signals, &signal);
    while (!ended.load()) {
      server.stop();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
}

// Ends the signal thread whether or not a signal came.
void endSignalThread(std::thread& thread, std::atomic<bool>& ended) {
  ended = true;
  pthread_kill(thread.native_handle(), SIGTERM);
  thread.join();
}

bool isLoopback(const std::string& host) {
  return host == "::1" || host == "localhost" || host.rfind("127.", 0) == 0;
}

int usage(const char* message) {
  std::fprintf(stderr,
               "medium-server: %s\nusage: medium-server --dir DIR [--host 127.0.0.1] "
               "[--port 29214] [--prefix /medium]\n",
               message);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir;
  std::string host = "127.0.0.1";
  std::string prefix = "/medium";
  int port = 29214;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) {
      return usage(("missing value after " + arg).c_str());
    }
    const std::string value = argv[++i];
    if (arg == "--dir") {
      dir = value;
    } else if (arg == "--host") {
      host = value;
    } else if (arg == "--prefix") {
      prefix = value;
    } else if (arg == "--port") {
      char* end = nullptr;
      const long parsed = std::strtol(value.c_str(), &end, 10);
      if (end == value.c_str() || *end != '\0' || parsed < 1 || parsed > 65535) {
        return usage(("bad port " + value).c_str());
      }
      port = static_cast<int>(parsed);
    } else {
      return usage(("unknown option " + arg).c_str());
    }
  }
  if (dir.empty()) {
    return usage("--dir is required");
  }
  if (!isLoopback(host)) {
    return usage("only loopback hosts are served");
  }
  httplib::Server server;
  if (!server.set_mount_point(prefix, dir)) {
    return usage(("cannot serve " + dir).c_str());
  }
  server.set_logger([](const httplib::Request& req, const httplib::Response& res) {
    std::printf("medium-server: %s %s -> %d (%zu bytes)\n", req.method.c_str(), req.path.c_str(),
                res.status, res.body.size());
    std::fflush(stdout);
  });
  // Blocked before cpp-httplib starts its workers, so that they inherit the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::atomic<bool> ended{false};
  std::thread signalThread = stopOnSignal(server, signals, ended);
  if (!server.bind_to_port(host, port)) {
    std::fprintf(stderr, "medium-server: cannot listen on %s port %d: %s\n", host.c_str(), port,
                 std::strerror(errno));
    endSignalThread(signalThread, ended);
    return 1;
  }
  const std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  std::printf("medium-server: serving %s at http://%s:%d%s\n", dir.c_str(), shown.c_str(), port,
              prefix.c_str());
  std::fflush(stdout);
  server.listen_after_bind();
  endSignalThread(signalThread, ended);
  return 0;
}
