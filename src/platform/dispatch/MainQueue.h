// MainQueue: the process's one serial executor, the stand-in for the main
// queue. Transfer callbacks are delivered here in order. Blocks submitted from
// any thread run one at a time on a single thread made on first use; nothing
// may block that thread waiting for a transfer.
#pragma once

#include <functional>

namespace hvfp {

class MainQueue {
 public:
  static MainQueue& shared();

  void async(std::function<void()> block);
  // Waits until every block submitted before the call has run. Not to be
  // called from the main queue itself.
  void drain();
  bool isCurrent() const;

 private:
  MainQueue();
  struct State;
  State* state_;
};

}  // namespace hvfp
