#ifndef STATUSCTL_READER_H
#define STATUSCTL_READER_H

#include <string>

#include "common/shared_figures.h"

/// Copies the figures that a statusd publishes under this name. Waits for the semaphore for a second at most. Returns
/// false with a message in `error` when there are none, or when the process that published them is gone.
bool ReadFigures(const std::string& name, SharedFigures& out, std::string& error);

#endif  // STATUSCTL_READER_H
