#ifndef STATUSD_HISTORY_H
#define STATUSD_HISTORY_H

#include <cstddef>
#include <deque>
#include <optional>

/// Measured values, oldest first; empty where nothing could be measured.
using History = std::deque<std::optional<double>>;

/// Adds a value, and keeps the last 60.
inline void Append(History& history, const std::optional<double>& value) {
  constexpr std::size_t kMaxHistory = 60;
  history.push_back(value);
  if (history.size() > kMaxHistory) {
    history.pop_front();
  }
}

#endif  // STATUSD_HISTORY_H
