// TransferEngine: the one thread that drives every download and upload of the
// process through a single libcurl multi handle, so connections to a server
// are kept alive from one transfer to the next whatever session made them.
//
// Internal to the transfer sessions. Anyone may send a command from any
// thread; commands run in the order sent, on the engine thread, which alone
// touches libcurl handles. The engine reports to a TransferObserver on its own
// thread and never calls anything else; the observer must not block. The
// engine is made on first use, lives for the process and is stopped and
// joined at exit, when transfers still running are dropped without a report.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/http/TransferTypes.h"

namespace hvfp::detail {

enum class TransferKind { Download, Upload };

// What to transfer; fixed when the task is made.
struct TransferSpec {
  TransferKind kind = TransferKind::Download;
  TransferRequest request;
  std::filesystem::path temporaryDirectory;  // download: where the file is made
  DownloadOptions download;
  BodyFileRange body;  // upload
};

struct TransferOutcome {
  TransferCompletion completion;
  int64_t bytesReceived = 0;                      // body bytes
  int64_t bytesSent = 0;                          // request body bytes
  std::optional<std::string> sha1;                // download asked to hash, no error
  std::optional<std::filesystem::path> location;  // download without error
};

// Called on the engine thread only.
class TransferObserver {
 public:
  virtual ~TransferObserver() = default;
  virtual const TransferSpec& transferSpec() const = 0;
  virtual void transferDidReceiveResponse(const TransferResponse& response) = 0;
  virtual void transferDidReceiveBytes(int64_t totalReceived) = 0;
  virtual void transferDidSendBytes(int64_t totalSent) = 0;
  // Once per start, or for a cancel that found nothing running; the observer
  // ignores any report after its first.
  virtual void transferDidComplete(TransferOutcome outcome) = 0;
};

enum class TransferCommand { Start, Pause, Resume, Cancel };

// Pause and Resume of a transfer that is not running do nothing. Cancel
// stops a running transfer (its file removed) and reports Cancelled; for one
// that is not running it still reports Cancelled.
void sendTransferCommand(TransferCommand command, std::shared_ptr<TransferObserver> observer);

}  // namespace hvfp::detail
