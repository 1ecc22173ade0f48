// The tasks that carry a modification of an item's name or place to the
// host: RenameTask (a new name), RemoveTask (another folder), DeleteTask
// (into the trash) and RecoverTask (out of the trash). Each sends one
// mutation request, builds the item the framework gets back and answers the
// modification's completion handler once.
//
// Ownership: made with std::make_shared by the extension, which sets the
// progress (setMProgress) and then the handler, and adds the task to its task
// queue. The handler sits behind a OnceHandler: the first report wins
// (a cancellation, the task's own outcome or, if the task dies unanswered,
// its failure), later ones are dropped.
//
// Threads: main() runs on a queue worker and blocks on host queries; the
// cancellation report comes from the thread that cancels. Fields are set
// before the task is queued and not changed after, except nMountID, which
// main() writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/fileprovider/FileProvider.h"
#include "tasks/HVTask.h"
#include "tasks/OnceHandler.h"

namespace hvfp {

// The common part of the four: the guarded handler and the reports in the
// modification's shape (item, still-pending fields, should-fetch, error).
class ItemChangeTask : public HVTask {
 public:
  // The modification's completion handler; each task also has it under its
  // own name (setRemameHandler, ...).
  void setHandler(NSFileProviderItemChangeHandler handler) { handler_.set(std::move(handler)); }
  bool hasHandler() const { return handler_.isSet(); }

 protected:
  // `cancelPending` goes with the cancel error; a failure (also after an
  // exception, or when the task dies unanswered) reports `failurePending`
  // with `failureCode`.
  ItemChangeTask(HalvoProviderClient& client, std::string identifier, std::string parent,
                 uint64_t fields, uint64_t cancelPending, uint64_t failurePending,
                 int64_t failureCode);

  void report(NSFileProviderItemRef item, uint64_t pending, std::optional<Error> error);
  void fail(int64_t code) { report(nullptr, failurePending_, Error::cocoa(code)); }

  // The task's work; every path reports. Should one not, the progress still
  // lets go of the task afterwards, and the guard answers with the failure
  // when the task goes.
  virtual void work() = 0;

  void failAfterException() override { fail(failureCode_); }
  void cancelled() override;

 private:
  void body() final;

  using Guard = OnceHandler<NSFileProviderItemRef, uint64_t, bool, std::optional<Error>>;

  const uint64_t cancelPending_;
  const uint64_t failurePending_;
  const int64_t failureCode_;
  Guard handler_;
};

class RenameTask final : public ItemChangeTask {
 public:
  // init:parentidentifier:filename:itemfields:
  RenameTask(HalvoProviderClient& client, std::string identifier, std::string parentidentifier,
             std::string filename, uint64_t itemfields);

  void setRemameHandler(NSFileProviderItemChangeHandler handler) { setHandler(std::move(handler)); }

  const std::string strFilename;

 protected:
  void work() override;
};

class RemoveTask final : public ItemChangeTask {
 public:
  // init:parentidentifier:itemfields: with the destination folder as parent.
  RemoveTask(HalvoProviderClient& client, std::string identifier, std::string parentidentifier,
             uint64_t itemfields);

  void setRemoveHandler(NSFileProviderItemChangeHandler handler) { setHandler(std::move(handler)); }

 protected:
  void work() override;
};

class DeleteTask final : public ItemChangeTask {
 public:
  // init:parentidentifier:itemfields: with the trash container as parent.
  DeleteTask(HalvoProviderClient& client, std::string identifier, std::string parentidentifier,
             uint64_t itemfields);

  void setDeleteHandler(NSFileProviderItemChangeHandler handler) { setHandler(std::move(handler)); }

 protected:
  void work() override;
};

class RecoverTask final : public ItemChangeTask {
 public:
  // init:parentidentifier:filename:filehash:filesize:itemfields: with the
  // folder the item goes back into as parent. Name, hash and size are kept
  // with the task; the host restores the item from its own record.
  RecoverTask(HalvoProviderClient& client, std::string identifier, std::string parentidentifier,
              std::string filename, std::string filehash, uint64_t filesize, uint64_t itemfields);

  void setRecoverHandler(NSFileProviderItemChangeHandler handler) {
    setHandler(std::move(handler));
  }

  const std::string strFilename;
  const std::string strFilehash;
  const uint64_t ullFilesize;
  // The item's mount, once main() has read it from the identifier.
  std::atomic<int64_t> nMountID{0};

 protected:
  void work() override;
};

}  // namespace hvfp
