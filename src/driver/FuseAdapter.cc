#define FUSE_USE_VERSION 312
#include "driver/FuseAdapter.h"

#include <fuse3/fuse_lowlevel.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/Log.h"

extern char** environ;

namespace hvfp::driver {
namespace {

// Fallback only: what goes stale is also told to the kernel at once.
constexpr double kTimeout = 1.0;

// The largest request: libfuse splices a read's reply only when it fits a
// pipe with its header and a page to spare, and a pipe holds at most 1 MiB
// (pipe-max-size); a larger reply is copied through a buffer instead.
constexpr unsigned kMaxRequest = (1u << 20) - (16u << 10);
// Readahead the mount asks for: the kernel's default of 128 KiB costs a
// round trip through the daemon per 128 KiB read.
constexpr const char* kReadaheadKiB = "1024";

// The kernel's side of passthrough (FUSE 7.40), which the headers of
// libfuse 3.14 and of this system predate.
namespace kernel {
constexpr uint32_t kInit = 26;                     // FUSE_INIT
constexpr uint32_t kInitExt = 1u << 30;            // FUSE_INIT_EXT: flags2 is read
constexpr uint32_t kPassthrough = 1u << 5;         // FUSE_PASSTHROUGH (bit 37), in flags2
constexpr uint32_t kOpenNoFlush = 1u << 5;         // FOPEN_NOFLUSH
constexpr uint32_t kOpenPassthrough = 1u << 7;     // FOPEN_PASSTHROUGH
struct BackingMap {
  int32_t fd;
  uint32_t flags;
  uint64_t padding;
};
constexpr unsigned long kBackingOpen = _IOW(229, 1, BackingMap);  // FUSE_DEV_IOC_BACKING_OPEN
constexpr unsigned long kBackingClose = _IOW(229, 2, uint32_t);   // FUSE_DEV_IOC_BACKING_CLOSE
struct OpenOut {
  uint64_t fh;
  uint32_t openFlags;
  int32_t backingId;
};
// Offsets: a request's header is 40 bytes, a reply's 16; then the INIT's own.
constexpr size_t kInHeader = 40;
constexpr size_t kOutHeader = 16;
constexpr size_t kInitInFlags = 12;
constexpr size_t kInitInFlags2 = 16;
constexpr size_t kInitOutFlags = 12;
constexpr size_t kInitOutFlags2 = 32;
constexpr size_t kInitOutStackDepth = 36;
constexpr size_t kInitOutSeen = 40;  // what the patch needs of a reply

uint32_t wordAt(const unsigned char* bytes, size_t at) {
  uint32_t value;
  std::memcpy(&value, bytes + at, sizeof value);
  return value;
}
void setWordAt(unsigned char* bytes, size_t at, uint32_t value) {
  std::memcpy(bytes + at, &value, sizeof value);
}
}  // namespace kernel

FuseAdapter& self(fuse_req_t req) { return *static_cast<FuseAdapter*>(fuse_req_userdata(req)); }
Folder& folderOf(fuse_req_t req) { return self(req).folder(); }

int errnoOf(const Failure& failure) { return failure.code > 0 ? failure.code : EIO; }

void replyError(fuse_req_t req, const Failure& failure) { fuse_reply_err(req, errnoOf(failure)); }

struct timespec timeOf(Date date) {
  struct timespec ts {};
  double whole = std::floor(date);
  ts.tv_sec = static_cast<time_t>(whole);
  ts.tv_nsec = static_cast<long>((date - whole) * 1e9);
  return ts;
}

struct stat statOf(fuse_req_t req, const Attributes& a) {
  struct stat st {};
  st.st_ino = a.ino;
  st.st_mode = modeFor(a);
  st.st_nlink = 1;  // "unknown" for folders: find must not count subfolders
  st.st_uid = self(req).uid();
  st.st_gid = self(req).gid();
  st.st_size = static_cast<off_t>(a.size);
  st.st_blksize = 1 << 20;  // cp and friends move this much per call
  st.st_blocks = static_cast<blkcnt_t>((a.size + 511) / 512);
  st.st_mtim = st.st_ctim = st.st_atim = timeOf(a.modified);
  return st;
}

fuse_entry_param entryOf(fuse_req_t req, const Attributes& a) {
  fuse_entry_param e{};
  e.ino = a.ino;
  e.generation = 1;
  e.attr = statOf(req, a);
  e.attr_timeout = kTimeout;
  e.entry_timeout = kTimeout;
  return e;
}

OpenFile* fileOf(fuse_file_info* fi) { return reinterpret_cast<OpenFile*>(fi->fh); }

void refuse(fuse_req_t req, const char* what) {
  log("driver: {} refused: the cloud keeps no links", what);
  fuse_reply_err(req, EPERM);
}

// --- the operations ------------------------------------------------------

// The kernel answers an open before it sends any use of the handle, and
// every use before the release. ThreadSanitizer sees that order only when
// requests and replies travel by read(2) and writev(2) on /dev/fuse (a
// write then a read of one descriptor is ordered for it), not by splice(2).
#if defined(__SANITIZE_THREAD__)
constexpr bool kSplice = false;
#else
constexpr bool kSplice = true;
#endif

void opInit(void*, fuse_conn_info* conn) {
  constexpr unsigned kSpliceCaps =
      FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE | FUSE_CAP_SPLICE_READ;
  // libfuse asks for splice reads itself when it can.
  if (kSplice)
    conn->want |= conn->capable & kSpliceCaps;
  else
    conn->want &= ~kSpliceCaps;
  if (conn->capable & FUSE_CAP_ATOMIC_O_TRUNC) conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
  conn->want &= ~FUSE_CAP_WRITEBACK_CACHE;
  // libfuse derives the largest read (max_pages) from max_write.
  conn->max_write = std::min(conn->max_write, kMaxRequest);
}

void opLookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
  self(req).widenReadahead();
  auto found = folderOf(req).lookup(parent, name);
  if (!found) return replyError(req, found.failure());
  fuse_entry_param e = entryOf(req, *found);
  fuse_reply_entry(req, &e);
}

void opForget(fuse_req_t req, fuse_ino_t ino, uint64_t count) {
  folderOf(req).forget(ino, count);
  fuse_reply_none(req);
}

void opForgetMulti(fuse_req_t req, size_t count, fuse_forget_data* forgets) {
  for (size_t i = 0; i < count; ++i) folderOf(req).forget(forgets[i].ino, forgets[i].nlookup);
  fuse_reply_none(req);
}

void opGetattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
  auto found = folderOf(req).getattr(ino);
  if (!found) return replyError(req, found.failure());
  struct stat st = statOf(req, *found);
  fuse_reply_attr(req, &st, kTimeout);
}

void opSetattr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int toSet, fuse_file_info* fi) {
  std::optional<uint64_t> size;
  std::optional<Date> modified;
  if (toSet & FUSE_SET_ATTR_SIZE) size = static_cast<uint64_t>(attr->st_size);
  if (toSet & FUSE_SET_ATTR_MTIME_NOW) {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    modified = static_cast<Date>(now.tv_sec) + static_cast<Date>(now.tv_nsec) * 1e-9;
  } else if (toSet & FUSE_SET_ATTR_MTIME) {
    modified =
        static_cast<Date>(attr->st_mtim.tv_sec) + static_cast<Date>(attr->st_mtim.tv_nsec) * 1e-9;
  }
  // Modes and owners are accepted: the cloud keeps none.
  auto done = folderOf(req).setattr(ino, size, modified, fi ? fileOf(fi) : nullptr);
  if (!done) return replyError(req, done.failure());
  struct stat st = statOf(req, *done);
  fuse_reply_attr(req, &st, kTimeout);
}

void opMknod(fuse_req_t req, fuse_ino_t, const char*, mode_t, dev_t) { refuse(req, "mknod"); }

void opMkdir(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t) {
  auto made = folderOf(req).mkdir(parent, name);
  if (!made) return replyError(req, made.failure());
  fuse_entry_param e = entryOf(req, *made);
  fuse_reply_entry(req, &e);
}

void opUnlink(fuse_req_t req, fuse_ino_t parent, const char* name) {
  auto done = folderOf(req).unlink(parent, name);
  fuse_reply_err(req, done ? 0 : errnoOf(done.failure()));
}

void opRmdir(fuse_req_t req, fuse_ino_t parent, const char* name) {
  auto done = folderOf(req).rmdir(parent, name);
  fuse_reply_err(req, done ? 0 : errnoOf(done.failure()));
}

void opSymlink(fuse_req_t req, const char*, fuse_ino_t, const char*) { refuse(req, "symlink"); }

void opRename(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
              const char* newName, unsigned int flags) {
  auto done = folderOf(req).rename(parent, name, newParent, newName, flags);
  fuse_reply_err(req, done ? 0 : errnoOf(done.failure()));
}

void opLink(fuse_req_t req, fuse_ino_t, fuse_ino_t, const char*) { refuse(req, "link"); }

void opOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  auto opened = folderOf(req).open(ino, fi->flags);
  if (!opened) return replyError(req, opened.failure());
  if (opened->backing >= 0) {
    // libfuse 3.14 has no word for this answer: it goes as bytes.
    kernel::OpenOut out{reinterpret_cast<uint64_t>(opened->file),
                        kernel::kOpenPassthrough | (opened->file->writer ? 0 : kernel::kOpenNoFlush),
                        opened->backing};
    if (fuse_reply_buf(req, reinterpret_cast<const char*>(&out), sizeof out) != 0)
      folderOf(req).release(opened->file);
    return;
  }
  fi->keep_cache = opened->keepCache;
  fi->direct_io = opened->file->direct;
  fi->fh = reinterpret_cast<uint64_t>(opened->file);
  if (fuse_reply_open(req, fi) != 0) folderOf(req).release(opened->file);
}

void opRead(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info* fi) {
  fuse_bufvec buf = FUSE_BUFVEC_INIT(size);
  buf.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
  buf.buf[0].fd = folderOf(req).readable(*fileOf(fi));
  buf.buf[0].pos = off;
  fuse_reply_data(req, &buf, FUSE_BUF_SPLICE_MOVE);
}

void opWriteBuf(fuse_req_t req, fuse_ino_t, fuse_bufvec* in, off_t off, fuse_file_info* fi) {
  OpenFile* file = fileOf(fi);
  if (!file->writer) return (void)fuse_reply_err(req, EBADF);
  fuse_bufvec out = FUSE_BUFVEC_INIT(fuse_buf_size(in));
  out.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
  out.buf[0].fd = file->fd;
  out.buf[0].pos = off;
  ssize_t written = fuse_buf_copy(&out, in, static_cast<fuse_buf_copy_flags>(0));
  if (written < 0) return (void)fuse_reply_err(req, static_cast<int>(-written));
  folderOf(req).written(*file, static_cast<uint64_t>(off), static_cast<uint64_t>(written));
  fuse_reply_write(req, static_cast<size_t>(written));
}

// Every close(2) comes here before it returns; the release comes later.
void opFlush(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  auto done = folderOf(req).flush(*fileOf(fi));
  fuse_reply_err(req, done ? 0 : errnoOf(done.failure()));
}

void opRelease(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  folderOf(req).release(fileOf(fi));
  fuse_reply_err(req, 0);
}

void opFsync(fuse_req_t req, fuse_ino_t, int, fuse_file_info* fi) {
  auto done = folderOf(req).fsync(*fileOf(fi));
  fuse_reply_err(req, done ? 0 : errnoOf(done.failure()));
}

void opOpendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  auto listed = folderOf(req).list(ino);
  if (!listed) return replyError(req, listed.failure());
  auto handle = std::make_unique<DirHandle>();
  handle->entries.reserve(listed->size() + 2);
  auto here = folderOf(req).getattr(ino);
  auto info = folderOf(req).replica().info(ino);
  Attributes dot = here ? *here : Attributes{ino, true};
  Attributes dotdot{info && info->parent ? info->parent : FUSE_ROOT_ID, true};
  handle->entries.push_back(Child{".", dot});
  handle->entries.push_back(Child{"..", dotdot});
  for (auto& child : *listed) handle->entries.push_back(std::move(child));
  fi->fh = reinterpret_cast<uint64_t>(handle.get());
  DirHandle* raw = handle.get();
  self(req).keepDir(std::move(handle));
  if (fuse_reply_open(req, fi) != 0) self(req).dropDir(raw);
}

void readEntries(fuse_req_t req, size_t size, off_t off, fuse_file_info* fi, bool plus) {
  auto* handle = reinterpret_cast<DirHandle*>(fi->fh);
  // The kernel offers up to a megabyte per call; only what the entries
  // take is allocated (and touched).
  std::vector<char> buf;
  std::vector<Ino> looked;  // entries the kernel will keep, counted once the page is made
  size_t used = 0;
  for (size_t i = static_cast<size_t>(off); i < handle->entries.size(); ++i) {
    const Child& child = handle->entries[i];
    const bool dots = i < 2;
    const auto next = static_cast<off_t>(i + 1);
    fuse_entry_param e{};
    struct stat st {};
    if (plus) {
      e = entryOf(req, child.attributes);
      if (dots) e.ino = 0;  // no entry for the kernel to keep
    } else {
      st = statOf(req, child.attributes);
    }
    const char* name = child.name.c_str();
    size_t needed = plus ? fuse_add_direntry_plus(req, nullptr, 0, name, &e, next)
                         : fuse_add_direntry(req, nullptr, 0, name, &st, next);
    if (needed > size - used) break;
    buf.resize(used + needed);
    if (plus)
      fuse_add_direntry_plus(req, buf.data() + used, needed, name, &e, next);
    else
      fuse_add_direntry(req, buf.data() + used, needed, name, &st, next);
    if (plus && !dots) looked.push_back(child.attributes.ino);
    used += needed;
  }
  if (!looked.empty()) folderOf(req).replica().countLookups(looked);
  fuse_reply_buf(req, buf.data(), used);
}

void opReaddir(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info* fi) {
  readEntries(req, size, off, fi, false);
}

void opReaddirplus(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info* fi) {
  readEntries(req, size, off, fi, true);
}

void opReleasedir(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  self(req).dropDir(reinterpret_cast<DirHandle*>(fi->fh));
  fuse_reply_err(req, 0);
}

void opStatfs(fuse_req_t req, fuse_ino_t) {
  auto st = folderOf(req).statfs();
  if (!st) return replyError(req, st.failure());
  fuse_reply_statfs(req, &*st);
}

void opCreate(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t, fuse_file_info* fi) {
  auto made = folderOf(req).create(parent, name, fi->flags);
  if (!made) return replyError(req, made.failure());
  fuse_entry_param e = entryOf(req, made->attributes);
  fi->fh = reinterpret_cast<uint64_t>(made->file);
  fi->direct_io = made->file->direct;
  if (fuse_reply_create(req, &e, fi) != 0) folderOf(req).release(made->file);
}

const fuse_lowlevel_ops& operations() {
  static const fuse_lowlevel_ops ops = [] {
    fuse_lowlevel_ops o{};
    o.init = opInit;
    o.lookup = opLookup;
    o.forget = opForget;
    o.forget_multi = opForgetMulti;
    o.getattr = opGetattr;
    o.setattr = opSetattr;
    o.mknod = opMknod;
    o.mkdir = opMkdir;
    o.unlink = opUnlink;
    o.rmdir = opRmdir;
    o.symlink = opSymlink;
    o.rename = opRename;
    o.link = opLink;
    o.open = opOpen;
    o.read = opRead;
    o.write_buf = opWriteBuf;
    o.flush = opFlush;
    o.release = opRelease;
    o.fsync = opFsync;
    o.opendir = opOpendir;
    o.readdir = opReaddir;
    o.readdirplus = opReaddirplus;
    o.releasedir = opReleasedir;
    o.statfs = opStatfs;
    o.create = opCreate;
    return o;
  }();
  return ops;
}

// "major:minor" of the file system mounted at `dir`, from mountinfo, which
// unlike stat(2) asks nothing of the mount itself (not served yet).
std::string deviceMountedAt(const std::string& dir) {
  std::string escaped;
  for (char c : dir) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\\')
      escaped += fmt::format("\\{:03o}", static_cast<unsigned char>(c));
    else
      escaped += c;
  }
  std::ifstream in("/proc/self/mountinfo");
  std::string device;
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::string id, parent, majorMinor, root, point;
    if (fields >> id >> parent >> majorMinor >> root >> point && point == escaped)
      device = majorMinor;  // the last one mounted there is ours
  }
  return device;
}

bool detach(const std::string& dir) {
  if (::umount2(dir.c_str(), MNT_DETACH) == 0) return true;
  // Not root: the setuid helper may.
  const char* argv[] = {"fusermount3", "-u", "-z", "-q", dir.c_str(), nullptr};
  pid_t pid = -1;
  int status = 0;
  return posix_spawnp(&pid, "fusermount3", nullptr, nullptr, const_cast<char* const*>(argv),
                      environ) == 0 &&
         ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

FuseAdapter::FuseAdapter() : uid_(::getuid()), gid_(::getgid()) {
  notifier_ = std::thread([this] { notifyLoop(); });
}

FuseAdapter::~FuseAdapter() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    live_ = false;
    queued_.notify_all();
  }
  notifier_.join();
  if (session_) {
    if (mounted_) fuse_session_unmount(session_);
    fuse_session_destroy(session_);
  }
}

Result<void> FuseAdapter::mount(const std::string& dir) {
  const char* argv[] = {"halvofp", "-o", "fsname=halvofp,subtype=halvofp,default_permissions"};
  fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
  session_ = fuse_session_new(&args, &operations(), sizeof(fuse_lowlevel_ops), this);
  fuse_opt_free_args(&args);
  if (!session_) return fail("cannot start a FUSE session");
  if (fuse_session_mount(session_, dir.c_str()) != 0)
    return fail("cannot mount on " + dir + " (see the log)");
  mountpoint_ = dir;
  mounted_ = true;
  // Resolved through its parent: the mount point itself cannot answer yet.
  std::error_code ec;
  auto absolute = std::filesystem::absolute(dir, ec).lexically_normal();
  if (!absolute.has_filename()) absolute = absolute.parent_path();
  auto parent = std::filesystem::canonical(absolute.parent_path(), ec);
  std::string device = ec ? "" : deviceMountedAt(parent / absolute.filename());
  if (!device.empty()) readaheadKnob_ = "/sys/class/bdi/" + device + "/read_ahead_kb";
  return {};
}

void FuseAdapter::widenReadahead() {
  std::call_once(readaheadWidened_, [this] {
    if (readaheadKnob_.empty()) return;
    // Writable by root only; anyone else keeps the kernel's default.
    std::ofstream knob(readaheadKnob_);
    if (!(knob << kReadaheadKiB << std::flush))
      log("driver: readahead stays at the kernel's default ({} is not writable)", readaheadKnob_);
  });
}

int FuseAdapter::serve(Folder& folder, bool signals) {
  if (!session_ || !mounted_) return 1;
  folder_ = &folder;
  folder.shareWith(this);
  if (signals) {
    fuse_set_signal_handlers(session_);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  }
  // Before any notification may go: until the INIT is answered, the
  // session's descriptor is not the kernel's.
  answerInit();
  {
    MutexLock lock(mutex_);
    live_ = true;
  }
  fuse_loop_config* config = fuse_loop_cfg_create();
  fuse_loop_cfg_set_max_threads(config, 32);
  int rc = fuse_session_loop_mt(session_, config);
  fuse_loop_cfg_destroy(config);
  {
    // The session's descriptor goes with the mount: no notification may
    // be on its way to it.
    MutexLock lock(mutex_);
    live_ = false;
    queue_.clear();
    while (notifying_) queued_.wait(lock);
  }
  if (signals) fuse_remove_signal_handlers(session_);
  fuse_session_unmount(session_);
  mounted_ = false;
  // The loop reports the signal that ended it; that is an orderly end.
  if (signals && (rc == SIGINT || rc == SIGTERM || rc == SIGHUP)) return 0;
  return rc;
}

void FuseAdapter::stop() {
  // The kernel ends the session once the last open file was released.
  if (mountpoint_.empty() || !detach(mountpoint_))
    if (session_) fuse_session_exit(session_);
}

void FuseAdapter::answerInit() {
  fuse_buf buf{};
  int got = 0;
  do got = fuse_session_receive_buf(session_, &buf);
  while (got == -EINTR && !fuse_session_exited(session_));
  if (got <= 0) {
    std::free(buf.mem);
    return;  // the loop meets the same end
  }
  const auto* in = static_cast<const unsigned char*>(buf.mem);
  const bool offered = !(buf.flags & FUSE_BUF_IS_FD) &&
                       static_cast<size_t>(got) >= kernel::kInHeader + kernel::kInitInFlags2 + 4 &&
                       kernel::wordAt(in, 4) == kernel::kInit &&
                       (kernel::wordAt(in, kernel::kInHeader + kernel::kInitInFlags) &
                        kernel::kInitExt) &&
                       (kernel::wordAt(in, kernel::kInHeader + kernel::kInitInFlags2) &
                        kernel::kPassthrough);
  // Registering a backing file takes CAP_SYS_ADMIN.
  const int dev = fuse_session_fd(session_);
  int saved = -1;
  int pair[2] = {-1, -1};
  if (offered && ::geteuid() == 0) {
    // dup(2) rather than fcntl(F_DUPFD): ThreadSanitizer follows dup, and
    // with it the order the kernel gives requests and replies.
    saved = ::dup(dev);
    if (saved >= 0) ::fcntl(saved, F_SETFD, FD_CLOEXEC);
    if (saved >= 0 && ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
      ::close(saved);
      saved = -1;
    }
  }
  if (saved < 0) {
    fuse_session_process_buf(session_, &buf);
    std::free(buf.mem);
    return;
  }
  // libfuse writes its answer to the session's descriptor; for this one
  // request that number is a socket, and the answer is read back from it.
  ::dup3(pair[0], dev, O_CLOEXEC);
  fuse_session_process_buf(session_, &buf);
  std::free(buf.mem);
  std::vector<unsigned char> reply(4096);
  ssize_t n = ::recv(pair[1], reply.data(), reply.size(), MSG_DONTWAIT);
  ::dup3(saved, dev, O_CLOEXEC);
  ::close(saved);
  ::close(pair[0]);
  ::close(pair[1]);
  if (n < 0) {
    log("driver: no answer to the kernel's INIT ({})", std::strerror(errno));
    return;
  }
  const auto size = static_cast<size_t>(n);
  if (size >= kernel::kOutHeader + kernel::kInitOutSeen && kernel::wordAt(reply.data(), 4) == 0) {
    unsigned char* out = reply.data() + kernel::kOutHeader;
    kernel::setWordAt(out, kernel::kInitOutFlags,
                      kernel::wordAt(out, kernel::kInitOutFlags) | kernel::kInitExt);
    kernel::setWordAt(out, kernel::kInitOutFlags2,
                      kernel::wordAt(out, kernel::kInitOutFlags2) | kernel::kPassthrough);
    kernel::setWordAt(out, kernel::kInitOutStackDepth, 1);
    passthrough_ = true;
  }
  if (::write(dev, reply.data(), size) != n) {
    passthrough_ = false;
    log("driver: the kernel refused the INIT answer ({})", std::strerror(errno));
  }
}

std::optional<int> FuseAdapter::open(int fd) {
  if (!passthrough_ || !session_) return std::nullopt;
  kernel::BackingMap map{fd, 0, 0};
  int id = ::ioctl(fuse_session_fd(session_), kernel::kBackingOpen, &map);
  if (id > 0) return id;
  const int error = errno;
  if (error != EMFILE && error != ENFILE && error != ENOMEM && error != EINTR) {
    // Not on this kernel, for this user or for files on this file system
    // (ELOOP: the cache is on a stacked one): reads come to the daemon.
    if (passthrough_.exchange(false))
      log("driver: the kernel does not serve files itself here ({}); reads come through us",
          std::strerror(error));
  }
  return std::nullopt;
}

void FuseAdapter::close(int id) {
  if (!session_ || id <= 0) return;
  uint32_t value = static_cast<uint32_t>(id);
  ::ioctl(fuse_session_fd(session_), kernel::kBackingClose, &value);
}

void FuseAdapter::keepDir(std::unique_ptr<DirHandle> handle) {
  MutexLock lock(mutex_);
  DirHandle* raw = handle.get();
  dirs_.emplace(raw, std::move(handle));
}

void FuseAdapter::dropDir(DirHandle* handle) {
  MutexLock lock(mutex_);
  dirs_.erase(handle);
}

void FuseAdapter::invalidate(std::vector<Invalidation> batch) {
  MutexLock lock(mutex_);
  if (!live_) return;
  queue_.insert(queue_.end(), std::make_move_iterator(batch.begin()),
                std::make_move_iterator(batch.end()));
  queued_.notify_all();
}

void FuseAdapter::notifyLoop() {
  MutexLock lock(mutex_);
  for (;;) {
    while (!stopping_ && queue_.empty()) queued_.wait(lock);
    if (stopping_) return;
    Invalidation next = std::move(queue_.front());
    queue_.pop_front();
    if (!live_) continue;
    notifying_ = true;
    lock.unlock();
    switch (next.kind) {
      case Invalidation::Kind::Entry:
        fuse_lowlevel_notify_inval_entry(session_, next.parent, next.name.c_str(),
                                         next.name.size());
        break;
      case Invalidation::Kind::Delete:
        fuse_lowlevel_notify_delete(session_, next.parent, next.ino, next.name.c_str(),
                                    next.name.size());
        break;
      case Invalidation::Kind::Attributes:
        fuse_lowlevel_notify_inval_inode(session_, next.ino, -1, 0);
        break;
      case Invalidation::Kind::Contents:
        fuse_lowlevel_notify_inval_inode(session_, next.ino, 0, 0);
        break;
    }
    lock.lock();
    notifying_ = false;
    queued_.notify_all();
  }
}

}  // namespace hvfp::driver
