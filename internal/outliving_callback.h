#ifndef KIV_INTERNAL_OUTLIVING_CALLBACK_H
#define KIV_INTERNAL_OUTLIVING_CALLBACK_H

#include <functional>
#include <memory>
#include <utility>

namespace kiv::internal {

/// Returns a function that may destroy its own owner while it runs: a timer whose callback removes the timer goes on
/// using what it captured. The state of `callback` is shared by every call, not copied. An empty one stays empty.
template <typename... Args>
std::function<void(Args...)> OutlivingCallback(std::function<void(Args...)> callback) {
  if (!callback) {
    return callback;
  }
  return [shared = std::make_shared<std::function<void(Args...)>>(std::move(callback))](Args... args) {
    const auto running = shared;
    (*running)(args...);
  };
}

}  // namespace kiv::internal

#endif  // KIV_INTERNAL_OUTLIVING_CALLBACK_H
