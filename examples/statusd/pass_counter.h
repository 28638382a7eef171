#ifndef STATUSD_PASS_COUNTER_H
#define STATUSD_PASS_COUNTER_H

#include <kiv/net.h>

/// Counts the passes of the loop in which a handler ran.
///
/// The loop has no hook for this, so the first handler of a pass posts a deferred call, which runs, and counts, when
/// the next pass begins. The wakeup that comes with it is one more, empty pass, which does not count.
class PassCounter {
 public:
  PassCounter(kiv::net::EventLoop& loop, unsigned long& passes) : mLoop(loop), mPasses(passes) {}

  /// Every handler, timer and signal callback calls this first.
  void Note() {
    if (mNoted) {
      return;
    }
    mNoted = true;
    mLoop.Defer([this] {
      mNoted = false;
      ++mPasses;
    });
  }

 private:
  kiv::net::EventLoop& mLoop;
  unsigned long& mPasses;
  bool mNoted = false;
};

#endif  // STATUSD_PASS_COUNTER_H
