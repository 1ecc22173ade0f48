// ContentServer: a loopback HTTP/1.1 server for the transfer tests, the far
// end of downloads and of upload pieces, doing to the wire what a case needs.
// A GET answers by its path:
//   /bytes/N[/S]  200 with contentBytes(N, S)
//   /status/C     status C with kStatusBody
//   /short/N/M    announces contentBytes(N), sends its first M bytes, hangs up
//   /gated/N/M    announces contentBytes(N), sends M bytes, the rest once the
//                 gate is open
// A PUT answers by script (PieceReply, in order; accept() when none is
// queued); one to a path under /gated/ first waits for the gate.
// Every request is recorded before its answer, so a client that has its
// answer finds it here. A client that hangs up while held is noted.
//
// Thread-safe: one thread accepts, one serves each connection; tests read
// and steer from their own thread. The destructor ends every wait at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace hvfp::wire {
class RequestReader;
}

namespace hvfp::test {

// The bytes of /bytes/N/S: byte i depends on i and the seed.
std::string contentBytes(size_t size, unsigned seed = 0);

// How a PUT is answered:
//   accept     reads the body, keeps its bytes at their x-tb-upload-range,
//              answers 200
//   late       reads the body and answers: a reply without transport error
//   failing    reads the body, answers with a body shorter than announced
//              and hangs up: the client's transfer fails, carrying the reply
//   hold       reads nothing more and waits for the client to give up
//   early      answers from the head alone and closes, the body unread;
//              lingering, it shuts its side and drains the body first
struct PieceReply {
  enum class Kind { Accept, Late, Failing, Hold, Early, EarlyLinger } kind = Kind::Accept;
  int status = 200;
  std::string body;

  static PieceReply accept() { return {}; }
  static PieceReply late(int status, std::string body) { return {Kind::Late, status, body}; }
  static PieceReply failing(int status, std::string body) { return {Kind::Failing, status, body}; }
  static PieceReply hold() { return {Kind::Hold, 0, ""}; }
  static PieceReply early(int status, std::string body, bool linger) {
    return {linger ? Kind::EarlyLinger : Kind::Early, status, std::move(body)};
  }
};

struct ContentRequest {
  std::string method, target;
  std::vector<std::pair<std::string, std::string>> headers;  // in wire order
  std::string body;                                          // what of it arrived
  std::string range;                                         // its x-tb-upload-range
};

class ContentServer {
 public:
  static constexpr const char* kStatusBody = R"({"error_code":404,"error_msg":"no such blob"})";

  ContentServer();
  ~ContentServer();
  ContentServer(const ContentServer&) = delete;
  ContentServer& operator=(const ContentServer&) = delete;

  std::string url(const std::string& target = "") const {
    return "http://127.0.0.1:" + std::to_string(port_) + target;
  }
  int port() const { return port_; }
  int connectionsAccepted() const;
  void enqueue(PieceReply reply);
  void setGate(bool open);

  std::vector<ContentRequest> requests() const;
  std::vector<std::string> targets() const;
  std::vector<ContentRequest> pieces() const;  // the PUTs
  std::vector<std::string> ranges() const;     // of the PUTs
  // The bytes accepted pieces delivered, each at its range.
  std::string contents() const;
  bool waitForPieces(size_t n, std::chrono::milliseconds timeout) const;
  bool waitForHangUp(std::chrono::milliseconds timeout) const;

 private:
  void acceptLoop();
  void serve(int fd);
  bool get(int fd, const std::string& target);
  bool put(int fd, wire::RequestReader& reader, ContentRequest& request, uint64_t length);
  bool hold(int fd, bool untilGate, bool discard);
  void record(const ContentRequest& request);

  int listenFd_ = -1;
  int port_ = 0;
  std::thread acceptThread_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool stopping_ = false, gateOpen_ = false, hungUp_ = false;
  int accepted_ = 0;
  std::deque<PieceReply> script_;
  std::vector<ContentRequest> requests_;
  std::string contents_;
  std::vector<int> open_;
  std::vector<std::thread> connections_;
};

}  // namespace hvfp::test
