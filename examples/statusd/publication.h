#ifndef STATUSD_PUBLICATION_H
#define STATUSD_PUBLICATION_H

#include <kiv/ipc.h>

#include <string>

#include "status.h"

/// Publishes figures in shared memory, for programs on this machine that do not speak HTTP, such as statusctl.
///
/// A semaphore of the same name keeps readers from seeing half of an update. The loop never waits for it: while a
/// reader has it, the memory stays as it was. Belongs to the loop thread.
class Publication {
 public:
  explicit Publication(ShareStatus& status) : mStatus(status) {}
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  /// Removes both objects, unless another statusd has taken the name over.
  ~Publication();

  /// Removes what is published, and publishes under this name from now on; nothing when it is empty. What a daemon that
  /// was killed has left there is removed, too. Returns false with errno when the objects cannot be made; Publish tries
  /// again now and then.
  bool Open(const std::string& name);

  /// Writes the figures of now, unless a reader has the semaphore. To be called once a second.
  void Publish(const Status& status, const std::string& url);

 private:
  bool Make();
  bool TakeTurn();
  void Close();
  void Withdraw();

  ShareStatus& mStatus;
  int mFailures = 0;  // In a row.
  kiv::ipc::Semaphore mTurn{"", 0, 0};
  kiv::ipc::SharedMemory mMemory{"", 0, 0};
};

#endif  // STATUSD_PUBLICATION_H
