// Upload sessions: the host's side of "uploadinit" / "uploadreq" /
// "uploadfinish" / "uploadabort" and of the pieces the upload servers take.
//
// A session belongs to one upload server (its port) and one reserved file
// (mount id + uuid hash announced by "create"). Its bytes accumulate in
// <root>/partial/<session id>; pieces must arrive in order, so the session
// offset is the partial file's length and the running SHA-1 follows it. The
// session rows live in the Store, so sessions survive a restart (the digest
// is then recomputed from the partial file at close).
//
// UploadSessions is owned by the Host; every method locks an internal mutex
// and may be called from any thread. Each session's state changes only with
// that mutex held. A PieceWriter is used by the one connection thread that
// received the piece; while it lives the session is busy and refuses other
// pieces and closes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Blobs.h"
#include "Digest.h"
#include "Outcome.h"
#include "Store.h"
#include "platform/ThreadAnnotations.h"

namespace hvfp::hostd {

struct OpenedSession {
  std::string id;  // empty when the contents were already stored (complete)
  bool complete = false;
  std::optional<Item> item;  // the created item when complete
};

// What an upload server answers a piece before reading its body.
struct PieceVerdict {
  enum Kind { Accept, WrongOffset, Complete, UnknownSession, BadRange } kind = BadRange;
  uint64_t expect = 0;
};

class UploadSessions;

class PieceWriter {
 public:
  ~PieceWriter();  // abandons an uncommitted piece: the partial file is cut back
  PieceWriter(const PieceWriter&) = delete;
  PieceWriter& operator=(const PieceWriter&) = delete;

  bool write(const char* data, size_t size);
  // Makes the piece part of the session; returns the new offset.
  std::optional<uint64_t> commit();

 private:
  friend class UploadSessions;
  struct Session;
  PieceWriter(UploadSessions& owner, std::shared_ptr<Session> session, uint64_t start,
              uint64_t length, int fd);

  UploadSessions& owner_;
  std::shared_ptr<Session> session_;
  uint64_t start_;
  uint64_t length_;
  uint64_t written_ = 0;
  int fd_;
  bool hashing_;  // the session's digest is known up to start_, so the piece extends it
  Sha1 hash_;
  bool committed_ = false;
};

class UploadSessions {
 public:
  static constexpr uint64_t kPieceLength = 4194304;
  static constexpr uint64_t kLifetimeSeconds = 24 * 3600;

  UploadSessions(Store& store, BlobStore& blobs);
  ~UploadSessions();

  // Takes back the sessions a previous run left open.
  void load();

  Result<OpenedSession> open(int port, int64_t mountId, std::string_view uuid,
                             std::string_view filename, std::string_view fileHash, uint64_t size);
  Result<uint64_t> offset(int port, std::string_view id);
  Result<Item> finish(int port, std::string_view id, uint64_t size);
  Result<bool> abort(int port, std::string_view id);

  // Judges a piece from its headers. On Accept, `writer` is set.
  PieceVerdict beginPiece(int port, std::string_view id, uint64_t first, uint64_t last,
                          std::unique_ptr<PieceWriter>* writer);
  // Offset of a session, for injected 409 replies; 0 when unknown.
  uint64_t currentOffset(std::string_view id);

 private:
  friend class PieceWriter;
  using Session = PieceWriter::Session;
  std::shared_ptr<Session> findLocked(int port, std::string_view id) REQUIRES(mutex_);
  void dropLocked(const std::string& id) REQUIRES(mutex_);

  Store& store_;
  BlobStore& blobs_;
  Mutex mutex_;
  std::map<std::string, std::shared_ptr<Session>, std::less<>> sessions_ GUARDED_BY(mutex_);
};

}  // namespace hvfp::hostd
