// Clang's thread-safety annotations, so the compiler checks which lock guards
// which state (-Wthread-safety). Empty under other compilers.
//
// std::mutex is not an annotated type; use hvfp::Mutex and hvfp::MutexLock (a
// std::mutex and a scoped lock that clang understands). To wait, use a
// std::condition_variable_any on the MutexLock itself; a predicate that reads
// guarded state is a lambda marked REQUIRES(mutex).
#pragma once

#include <mutex>

#if defined(__clang__)
#define HVFP_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define HVFP_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) HVFP_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY HVFP_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) HVFP_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) HVFP_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) HVFP_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) HVFP_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) HVFP_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) HVFP_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) HVFP_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) HVFP_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS HVFP_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace hvfp {

// A std::mutex the analysis knows as a capability.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { m_.lock(); }
  void unlock() RELEASE() { m_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return m_.try_lock(); }
 private:
  std::mutex m_;
};

// Holds a Mutex for its scope. unlock()/lock() in between are allowed.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& m) ACQUIRE(m) : m_(m) { m_.lock(); }
  ~MutexLock() RELEASE() {
    if (held_) m_.unlock();
  }
  void unlock() RELEASE() {
    held_ = false;
    m_.unlock();
  }
  void lock() ACQUIRE() {
    m_.lock();
    held_ = true;
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& m_;
  bool held_ = true;
};

}  // namespace hvfp
