// The workshop-laptop socket: the bytes of one received chunk (at most the 1024 bytes of one
// receive) go through the request handling, with a socket double in place of the TCP socket.
// Property: every reply is one line.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "interfaces/notebook/notebook_service.h"

namespace {

using namespace kel::nodbox::diag::orv;

// Hands out one chunk, then reports the peer as closed; checks what is sent.
class ChunkSocket final : public SocketI {
 public:
  std::string chunk;
  bool makeServerSocket(std::string, uint16_t) override { return true; }
  bool acceptSocketConnection() override { return true; }
  ssize_t receiveDataSocket(std::vector<char>& buffer) override {
    buffer.assign(chunk.begin(), chunk.end());
    const auto count = static_cast<ssize_t>(chunk.size());
    chunk.clear();
    return count;
  }
  bool sendDataSocket(const std::string& data) override {
    FUZZ_CHECK(!data.empty() && data.find('\n') == data.size() - 1);
    return true;
  }
  void closeClient() override {}
  void interrupt() override {}
  void closeAll() override {}
};

class ChunkService final : public NotebookService {
 public:
  ChunkService() : NotebookService("127.0.0.1", 5002) {
    mUpdateState = [] { return 9u; };
    mUpdateProgress = [] { return 42u; };
    mUpdateErrorCode = [] { return -1; };
    mStartUpdate = [](const std::string&) { return true; };
  }
  std::shared_ptr<SocketI> getSocketHandler() override { return socket; }
  const std::shared_ptr<ChunkSocket> socket = std::make_shared<ChunkSocket>();
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::fuzz::quietLogs();
  static ChunkService service;
  service.socket->chunk.assign(reinterpret_cast<const char*>(data), size < 1024 ? size : 1024);
  service.receiveData();
  return 0;
}
