// Shared by the task tests: host records as the loopback host sends them, a
// recorder for the modification handler that renders what it received as one
// line, and the extension fixture with a way to read the wire per step.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "extension/ExtensionFixture.h"

namespace hvfp::test {

// A file record of the "fileinfo" reply: a.txt, size 1, hash f, no dates.
inline std::string record(int mount, const std::string& hash, int status = 0,
                          const std::string& name = "a.txt") {
  return "{\"status_code\":200,\"filename\":\"" + name +
         "\",\"mount_id\":" + std::to_string(mount) + ",\"uuidhash\":\"" + hash +
         "\",\"up_hash\":\"u\",\"webpath\":\"a.txt\",\"filehash\":\"f\",\"filesize\":1,"
         "\"status\":" +
         std::to_string(status) + "}";
}

// The log line an item built from record() writes, under its identifier and
// parent at the time.
inline std::string recordLine(const std::string& id, const std::string& parent) {
  return "a.txt," + id + "," + parent +
         ",127,public.plain-text,{\"filehash\":\"f\",\"filesize\":1},(null),1," + kEpochDates +
         ",0";
}

// One call of a modification handler as text: the item's identifier, name,
// parent and metadata version (or "null"), the pending fields, and the error
// code when there was one. Reading the item's parent first, as the framework
// would.
inline std::string describe(const NSFileProviderItemRef& item, uint64_t pending, bool fetch,
                            const std::optional<Error>& error) {
  std::string out = "null";
  if (item) {
    auto version = item->itemVersion();
    out = item->itemIdentifier() + " '" + std::string(orNull(item->filename())) + "' in " +
          std::string(orNull(item->parentItemIdentifier())) + " " +
          (version ? version->metadataVersion : "(no version)");
  }
  out += " pending " + std::to_string(pending);
  if (fetch) out += " fetch";
  if (error) out += " error " + std::to_string(error->code);
  if (error && (error->domain != NSCocoaErrorDomain || !error->userInfo.empty()))
    out += " (unexpected domain or user info)";
  return out;
}

// Counts the calls of one modification handler and keeps the first one's
// description. The handler it makes shares the state, so it may outlive the
// recorder; calls may come from any thread.
class ChangeRecorder {
 public:
  NSFileProviderItemChangeHandler handler() {
    return [state = state_](NSFileProviderItemRef item, uint64_t pending, bool fetch,
                            std::optional<Error> error) {
      std::string text = describe(item, pending, fetch, error);
      std::lock_guard lock(state->mutex);
      if (++state->calls == 1) state->first = std::move(text);
    };
  }
  int calls() const {
    std::lock_guard lock(state_->mutex);
    return state_->calls;
  }
  std::string first() const {
    std::lock_guard lock(state_->mutex);
    return state_->first;
  }

 private:
  struct State {
    std::mutex mutex;
    int calls = 0;
    std::string first = "(not called)";
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

class TaskTest : public ExtensionTest {
 protected:
  // The queries the host received since the last call.
  Lines newQueries() {
    Lines all = server.queries();
    Lines fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return fresh;
  }

 private:
  size_t seen_ = 0;
};

}  // namespace hvfp::test
