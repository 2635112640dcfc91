#pragma once
// HttpServer: a real cpp-httplib server on a free loopback port that serves update media by path.
// Its threads read under mutex_, so a test may change files at any time; the constructor returns
// only once the server accepts, so the destructor's stop() always lands.
#include <httplib.h>
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace orv::testing {

// HEAD is answered by the library from the GET handler; each path as its Path says.
class HttpServer {
 public:
  struct Path {
    std::string body;
    bool exists = false;    // false: 404
    int failFirst = 0;      // the next this many requests are answered 503
    int status = 0;         // answered instead of the file when set
    size_t headSays = 0;    // HEAD announces this size whatever the file holds
    bool noLength = false;  // HEAD without Content-Length
    int chunked = 0;        // GET without a length: 1 the body once, 2 endlessly (64 MiB at most)
  };
  explicit HttpServer(const std::string& host = "127.0.0.1") {
    server_.Get(R"(/(.*))", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard<std::mutex> lock(mutex_);
      ++requests_[req.method + " " + req.path];
      lastHost_ = req.get_header_value("Host");
      Path& path = paths_[req.path];
      if (path.failFirst > 0) {
        --path.failFirst;
        res.status = 503;
      } else if (path.status != 0 || !path.exists) {
        res.status = path.status != 0 ? path.status : 404;
      } else if (req.method == "HEAD" && path.headSays != 0) {
        res.set_content(std::string(path.headSays, ' '), "application/json");
      } else if (req.method == "HEAD" && path.noLength) {
        // A chunked reply announces no length.
        res.set_chunked_content_provider(
            "application/json", [](size_t, httplib::DataSink& sink) { return sink.done(), true; });
      } else if (req.method == "GET" && path.chunked != 0) {
        const size_t end = path.chunked == 2 ? (size_t{64} << 20) : path.body.size();
        res.set_chunked_content_provider(
            "application/json", [body = path.body, end](size_t sent, httplib::DataSink& sink) {
              // Fails once the client is gone.
              return sent < end ? sink.write(body.data(), body.size()) : (sink.done(), true);
            });
      } else {
        res.set_content(path.body, "application/json");
      }
    });
    const int port = server_.bind_to_any_port(host);
    if (port <= 0)
      die("cannot bind a test HTTP server on " + host);
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "http-test");
      server_.listen_after_bind();
    });
    // cpp-httplib's stop() is a no-op until the accept loop runs, and the loop then never ends:
    // wait for it here (bounded) instead of letting the destructor's stop() get lost.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!server_.is_running() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!server_.is_running())
      die("the test HTTP server on " + host + " did not start within 10 s");
    base_ = "http://" + (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
            std::to_string(port);
  }
  ~HttpServer() {
    server_.stop();
    thread_.join();
  }
  void put(const std::string& path, const std::string& body) {
    set(path, [&](Path& p) { p.body = body, p.exists = true; });
  }
  // Changes how `path` is answered.
  template <typename Change>
  void set(const std::string& path, Change change) {
    std::lock_guard<std::mutex> lock(mutex_);
    change(paths_[path]);
  }
  int requests(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_[key];
  }
  std::string lastHost() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastHost_;
  }
  const std::string& base() const { return base_; }

 private:
  // A test that cannot start its server has no defined result: end it with the reason.
  [[noreturn]] static void die(const std::string& why) {
    std::fprintf(stderr, "HttpServer: %s\n", why.c_str());
    std::abort();
  }
  httplib::Server server_;
  std::mutex mutex_;  // guards the maps and lastHost_, read on the server's threads
  std::map<std::string, Path> paths_;
  std::string lastHost_;
  std::map<std::string, int> requests_;
  std::string base_;
  std::thread thread_;
};

}  // namespace orv::testing
