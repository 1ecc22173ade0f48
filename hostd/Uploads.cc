#include "Uploads.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/Text.h"

namespace hvfp::hostd {

namespace fs = std::filesystem;

// `row` and `partial` never change; the rest is read and written only with
// UploadSessions::mutex_ held.
struct PieceWriter::Session {
  SessionRow row;
  fs::path partial;
  uint64_t offset = 0;
  std::optional<Sha1> hash;  // digest of bytes [0, offset) while it is known
  bool busy = false;
  bool dead = false;
};

namespace {

Failure unknownSession() { return fail(401, kSessionUnknown, "unknown or expired upload session"); }

}  // namespace

PieceWriter::PieceWriter(UploadSessions& owner, std::shared_ptr<Session> session, uint64_t start,
                         uint64_t length, int fd)
    : owner_(owner),
      session_(std::move(session)),
      start_(start),
      length_(length),
      fd_(fd),
      hashing_(session_->hash.has_value()) {
  if (hashing_) hash_ = *session_->hash;
}

PieceWriter::~PieceWriter() {
  MutexLock lock(owner_.mutex_);
  if (!committed_ && !session_->dead) {
    // A piece is taken whole or not at all: cut back what a broken transfer left.
    if (::ftruncate(fd_, static_cast<off_t>(start_)) != 0) session_->hash.reset();
  }
  session_->busy = false;
  ::close(fd_);
}

bool PieceWriter::write(const char* data, size_t size) {
  if (written_ + size > length_) return false;
  if (hashing_) hash_.update(data, size);
  while (size > 0) {
    ssize_t n = ::pwrite(fd_, data, size, static_cast<off_t>(start_ + written_));
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
    written_ += static_cast<uint64_t>(n);
  }
  return true;
}

std::optional<uint64_t> PieceWriter::commit() {
  MutexLock lock(owner_.mutex_);
  if (written_ != length_ || session_->dead) return std::nullopt;
  committed_ = true;
  session_->offset = start_ + length_;
  if (hashing_ && session_->hash) session_->hash = hash_;
  return session_->offset;
}

UploadSessions::UploadSessions(Store& store, BlobStore& blobs) : store_(store), blobs_(blobs) {}
UploadSessions::~UploadSessions() = default;

void UploadSessions::load() {
  MutexLock lock(mutex_);
  for (auto& row : store_.sessions()) {
    auto s = std::make_shared<Session>();
    s->row = row;
    s->partial = blobs_.partialDir() / row.id;
    std::error_code ec;
    auto size = fs::file_size(s->partial, ec);
    if (ec || nowSeconds() > row.created + kLifetimeSeconds) {
      fs::remove(s->partial, ec);
      store_.dropSession(row.id);
      continue;
    }
    // Only committed pieces reach the file in order, so its length is the offset.
    s->offset = std::min<uint64_t>(size, row.size);
    sessions_[row.id] = s;
  }
}

std::shared_ptr<PieceWriter::Session> UploadSessions::findLocked(int port, std::string_view id) {
  auto it = sessions_.find(id);
  if (it == sessions_.end()) return nullptr;
  auto& s = it->second;
  if (s->row.port != port) return nullptr;
  if (nowSeconds() > s->row.created + kLifetimeSeconds) {
    dropLocked(std::string(id));
    return nullptr;
  }
  return s;
}

void UploadSessions::dropLocked(const std::string& id) {
  auto it = sessions_.find(id);
  if (it == sessions_.end()) return;
  it->second->dead = true;
  std::error_code ec;
  fs::remove(it->second->partial, ec);
  store_.dropSession(id);
  sessions_.erase(it);
}

Result<OpenedSession> UploadSessions::open(int port, int64_t mountId, std::string_view uuid,
                                           std::string_view filename, std::string_view fileHash,
                                           uint64_t size) {
  auto r = store_.reservation(mountId, uuid);
  if (!r) return fail(404, kNotFound, "no file was announced with that pathhash");
  if (r->fileHash != fileHash || r->size != size)
    return fail(400, kHashMismatch, "filehash or filesize differ from the announced file");
  if (!filename.empty() && lastPathComponent(r->webpath) != filename)
    return fail(400, kBadRequest, "filename differs from the announced file");
  if (blobs_.has(fileHash)) {
    auto item = store_.commitFile(*r);
    if (!item.ok()) return item.failure();
    return OpenedSession{"", true, item.value()};
  }
  MutexLock lock(mutex_);
  // Another attempt on the same server resumes where the last one stopped.
  for (auto& [id, s] : sessions_) {
    if (s->row.port == port && s->row.mountId == mountId && s->row.uuid == uuid &&
        s->row.fileHash == fileHash && s->row.size == size && !s->dead)
      return OpenedSession{id, false, std::nullopt};
  }
  auto s = std::make_shared<Session>();
  s->row = SessionRow{randomHex(16),         port, mountId,     std::string(uuid),
                      std::string(fileHash), size, nowSeconds()};
  s->partial = blobs_.partialDir() / s->row.id;
  s->hash.emplace();
  int fd = ::open(s->partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return fail(500, kStorage, "cannot create the session's file");
  ::close(fd);
  if (auto saved = store_.saveSession(s->row); !saved.ok()) return saved.failure();
  sessions_[s->row.id] = s;
  return OpenedSession{s->row.id, false, std::nullopt};
}

Result<uint64_t> UploadSessions::offset(int port, std::string_view id) {
  MutexLock lock(mutex_);
  auto s = findLocked(port, id);
  if (!s) return unknownSession();
  return s->offset;
}

uint64_t UploadSessions::currentOffset(std::string_view id) {
  MutexLock lock(mutex_);
  auto it = sessions_.find(id);
  return it == sessions_.end() ? 0 : it->second->offset;
}

Result<Item> UploadSessions::finish(int port, std::string_view id, uint64_t size) {
  std::shared_ptr<Session> s;
  std::optional<Sha1> running;
  {
    MutexLock lock(mutex_);
    s = findLocked(port, id);
    if (!s) return unknownSession();
    if (s->busy) return fail(409, kIncomplete, "a piece is still being received");
    if (size != s->row.size) return fail(409, kHashMismatch, "filesize differs from the session's");
    if (s->offset != s->row.size)
      return fail(409, kIncomplete,
                  "the session holds " + std::to_string(s->offset) + " of " +
                      std::to_string(s->row.size) + " bytes");
    s->busy = true;  // no piece and no second close while the digest is checked
    running = s->hash;
  }
  std::optional<std::string> digest =
      running ? std::optional(running->hex()) : sha1OfFile(s->partial);
  MutexLock lock(mutex_);
  s->busy = false;
  // An abort or the expiry may have ended the session while its digest was
  // being taken: to the client that is a session it no longer has.
  if (s->dead) return unknownSession();
  if (!digest) return fail(500, kStorage, "cannot read the session's file");
  if (*digest != s->row.fileHash) {
    dropLocked(s->row.id);
    return fail(409, kHashMismatch, "the uploaded bytes do not match filehash");
  }
  auto r = store_.reservation(s->row.mountId, s->row.uuid);
  if (!r) return fail(404, kNotFound, "the announced file is gone");
  auto adopted = blobs_.adopt(s->partial, *digest);
  if (!adopted.ok()) return adopted.failure();
  auto item = store_.commitFile(*r);
  if (!item.ok()) {
    dropLocked(s->row.id);  // its file is already a blob; a retry cannot succeed
    return item;
  }
  s->dead = true;
  store_.dropSession(s->row.id);
  sessions_.erase(s->row.id);
  return item;
}

Result<bool> UploadSessions::abort(int port, std::string_view id) {
  MutexLock lock(mutex_);
  auto s = findLocked(port, id);
  if (!s) return unknownSession();
  if (s->busy) return fail(409, kIncomplete, "a piece or a close is in progress");
  dropLocked(s->row.id);
  return true;
}

PieceVerdict UploadSessions::beginPiece(int port, std::string_view id, uint64_t first,
                                        uint64_t last, std::unique_ptr<PieceWriter>* writer) {
  MutexLock lock(mutex_);
  auto s = findLocked(port, id);
  if (!s) return {PieceVerdict::UnknownSession, 0};
  if (s->offset >= s->row.size) return {PieceVerdict::Complete, s->offset};
  if (last < first || last >= s->row.size) return {PieceVerdict::BadRange, s->offset};
  if (first != s->offset || s->busy) return {PieceVerdict::WrongOffset, s->offset};
  int fd = ::open(s->partial.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return {PieceVerdict::UnknownSession, 0};
  s->busy = true;
  writer->reset(new PieceWriter(*this, s, first, last - first + 1, fd));
  return {PieceVerdict::Accept, first};
}

}  // namespace hvfp::hostd
