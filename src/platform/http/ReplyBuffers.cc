#include "platform/http/ReplyBuffers.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace hvfp {
namespace {

struct Kept {
  std::mutex mutex;
  std::vector<std::string> buffers;
  size_t bytes = 0;
};

std::atomic<bool> keep{true};

Kept& kept() {
  static auto* k = new Kept;  // never destroyed: late gives during exit are fine
  return *k;
}

}  // namespace

std::string ReplyBuffers::take(size_t capacity) {
  if (capacity >= kSmallest) {
    Kept& k = kept();
    std::lock_guard lock(k.mutex);
    for (size_t i = 0; i < k.buffers.size(); ++i) {
      if (k.buffers[i].capacity() < capacity) continue;
      std::string buffer = std::move(k.buffers[i]);
      k.buffers.erase(k.buffers.begin() + static_cast<std::ptrdiff_t>(i));
      k.bytes -= buffer.capacity();
      buffer.clear();
      return buffer;
    }
  }
  std::string buffer;
  buffer.reserve(capacity);
  return buffer;
}

void ReplyBuffers::give(std::string&& buffer) {
  if (buffer.capacity() < kSmallest || !keeping()) return;
  Kept& k = kept();
  std::lock_guard lock(k.mutex);
  if (k.bytes + buffer.capacity() > kLimit) return;
  k.bytes += buffer.capacity();
  k.buffers.push_back(std::move(buffer));
}

void ReplyBuffers::setKeeping(bool on) {
  keep = on;
  if (on) return;
  std::vector<std::string> freed;
  Kept& k = kept();
  std::lock_guard lock(k.mutex);
  freed.swap(k.buffers);
  k.bytes = 0;
}

bool ReplyBuffers::keeping() { return keep; }

}  // namespace hvfp
