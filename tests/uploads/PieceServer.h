// PieceServer: an upload server for the piece tests. It records every piece
// as it arrived (header lines in order, the range, the bytes received) and
// answers each by script:
//   accept           reads the body, keeps its bytes at their range, answers 200
//   late(s, body)    reads the body, answers s: a reply without transport error
//   failing(s, body) reads the body, answers s with a body shorter than the
//                    length it announces and hangs up: the client's transfer
//                    fails, carrying the reply
//   hold             reads nothing more and waits for the client to give up
// With nothing scripted every piece is accepted. Thread-safe: one thread
// accepts, one serves each connection; tests read from their own thread.
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

namespace hvfp::test {

struct PieceReply {
  enum class Kind { Accept, Late, Failing, Hold } kind = Kind::Accept;
  int status = 200;
  std::string body;

  static PieceReply accept() { return {}; }
  static PieceReply late(int status, std::string body) {
    return {Kind::Late, status, std::move(body)};
  }
  static PieceReply failing(int status, std::string body) {
    return {Kind::Failing, status, std::move(body)};
  }
  static PieceReply hold() { return {Kind::Hold, 0, ""}; }
};

struct RecordedPiece {
  std::string requestLine;
  std::vector<std::pair<std::string, std::string>> headers;  // in wire order
  std::string range;
  uint64_t received = 0;  // body bytes that arrived
};

class PieceServer {
 public:
  PieceServer();
  ~PieceServer();
  PieceServer(const PieceServer&) = delete;
  PieceServer& operator=(const PieceServer&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  void enqueue(PieceReply reply);
  std::vector<RecordedPiece> pieces() const;
  std::vector<std::string> ranges() const;
  // The bytes accepted pieces delivered, each at its range.
  std::string contents() const;
  bool waitForPieces(size_t n, std::chrono::milliseconds timeout) const;
  // Whether a held piece saw its client hang up.
  bool waitForHangUp(std::chrono::milliseconds timeout) const;

 private:
  void acceptLoop();
  void serve(int fd);
  bool answer(int fd, std::string& buffer, const std::string& head);

  int listenFd_ = -1;
  int port_ = 0;
  std::thread acceptThread_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  bool hungUp_ = false;
  std::deque<PieceReply> script_;
  std::vector<RecordedPiece> pieces_;
  std::string contents_;
  std::vector<int> open_;
  std::vector<std::thread> connections_;
};

}  // namespace hvfp::test
