#pragma once
// HttpServer: a real cpp-httplib server on a free loopback port, for tests of the code that
// fetches update media. Files are set per path while it runs.
//
// Threading: the server answers on its own threads; mutex_ guards everything they read, so a
// test may change files at any time. The constructor returns only once the server accepts, so
// the destructor's stop() always lands.

#include <httplib.h>
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace orv::testing {

// A medium server: files by path, HEAD answered by the library from the GET handler. `noLength`
// paths answer HEAD without Content-Length, `headSays` paths announce a size of their own,
// `status` paths answer with that status, `chunked` paths (1) send their GET body without a
// length, (2) endlessly: over and over until the client stops reading, 64 MiB at most.
class HttpServer {
 public:
  explicit HttpServer(const std::string& host = "127.0.0.1") {
    server_.Get(R"(/(.*))", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard<std::mutex> lock(mutex_);
      ++requests_[req.method + " " + req.path];
      lastHost_ = req.get_header_value("Host");
      int& failing = failFirst_[req.path];
      if (failing > 0) {
        --failing;
        res.status = 503;
        return;
      }
      const auto status = statuses_.find(req.path);
      if (status != statuses_.end()) {
        res.status = status->second;
        return;
      }
      const auto file = files_.find(req.path);
      if (file == files_.end()) {
        res.status = 404;
        return;
      }
      const auto lie = headSizes_.find(req.path);
      if (req.method == "HEAD" && lie != headSizes_.end()) {
        res.set_content(std::string(lie->second, ' '), "application/json");
        return;
      }
      if (req.method == "HEAD" && noLength_.count(req.path) != 0) {
        // A chunked reply announces no length.
        res.set_chunked_content_provider("application/json", [](size_t, httplib::DataSink& sink) {
          sink.done();
          return true;
        });
        return;
      }
      const auto chunked = chunked_.find(req.path);
      if (req.method == "GET" && chunked != chunked_.end() && chunked->second != 0) {
        const size_t end = chunked->second == 2 ? (size_t{64} << 20) : file->second.size();
        res.set_chunked_content_provider(
            "application/json", [body = file->second, end](size_t sent, httplib::DataSink& sink) {
              // Fails once the client is gone.
              return sent < end ? sink.write(body.data(), body.size()) : (sink.done(), true);
            });
        return;
      }
      res.set_content(file->second, "application/json");
    });
    port_ = server_.bind_to_any_port(host);
    if (port_ <= 0)
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
            std::to_string(port_);
  }
  ~HttpServer() {
    server_.stop();
    thread_.join();
  }
  void put(const std::string& path, const std::string& body) {
    std::lock_guard<std::mutex> lock(mutex_);
    files_[path] = body;
  }
  void remove(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    files_.erase(path);
  }
  void status(const std::string& path, int code) {
    std::lock_guard<std::mutex> lock(mutex_);
    statuses_[path] = code;
  }
  void withoutLength(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    noLength_.insert(path);
  }
  void chunked(const std::string& path, int mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    chunked_[path] = mode;
  }
  // The next `count` requests for `path` are answered 503.
  void failFirst(const std::string& path, int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    failFirst_[path] = count;
  }
  // HEAD announces `size` bytes whatever the file holds.
  void headSays(const std::string& path, size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    headSizes_[path] = size;
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
  std::mutex mutex_;  // guards the maps, read on the server's threads
  std::map<std::string, std::string> files_;
  std::map<std::string, int> statuses_;
  std::set<std::string> noLength_;
  std::map<std::string, size_t> headSizes_;
  std::map<std::string, int> chunked_;
  std::map<std::string, int> failFirst_;
  std::string lastHost_;
  std::map<std::string, int> requests_;
  int port_ = 0;
  std::string base_;
  std::thread thread_;
};

}  // namespace orv::testing
