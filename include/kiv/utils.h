#ifndef KIV_UTILS_H
#define KIV_UTILS_H

#include <kiv/export.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// Text helpers and the host name. Text is bytes, without any encoding assumed. Nothing here keeps state or blocks, and
/// everything may be called from any thread.
namespace kiv::utils {

/// Refers to bytes that somebody else owns; needs no terminator. Pass it by value.
///
/// The bytes must outlive the view. A view of nothing has a null pointer or a length of 0.
class StringView {
 public:
  /// Makes the empty view: null pointer, length 0.
  constexpr StringView() noexcept = default;

  /// Views `size` bytes from `data`, NUL bytes included. `data` may be null when `size` is 0.
  constexpr StringView(const char* data, std::size_t size) noexcept : mData(data), mSize(size) {}

  /// Views a C string up to, not including, its terminator; a null pointer gives the empty view.
  constexpr StringView(const char* text) noexcept : mData(text), mSize(Length(text)) {}

  /// Views all bytes of `text`, NUL bytes included. The view dies with the next change of `text`.
  StringView(const std::string& text) noexcept : mData(text.data()), mSize(text.size()) {}

  /// Returns the first byte, not NUL-terminated; may be null when the view is empty.
  constexpr const char* Data() const noexcept { return mData; }

  /// Returns the length in bytes.
  constexpr std::size_t Size() const noexcept { return mSize; }

  /// Tells whether the length is 0.
  constexpr bool Empty() const noexcept { return mSize == 0; }

 private:
  static constexpr std::size_t Length(const char* text) noexcept {
    std::size_t length = 0;
    while (text != nullptr && text[length] != '\0') {
      ++length;
    }
    return length;
  }

  const char* mData = nullptr;
  std::size_t mSize = 0;
};

/// Splits `text` at every occurrence of the whole `delimiter` (a substring, not a set of characters).
///
/// Returns the fields in order, untrimmed, as copies. Empty fields are kept: "a,,b," gives "a", "", "b", "", and an
/// empty text gives one empty field. An empty delimiter gives no fields at all.
KIV_EXPORT std::vector<std::string> Split(StringView text, StringView delimiter);

/// Splits one line at the first occurrence of the whole `separator` into a key and a value.
///
/// Blanks, tabs, CR, LF, form feeds, vertical tabs and NUL bytes around the key and around the value are dropped. The
/// value may contain the separator again. Returns copies: key first, value second. Both are empty when the text is
/// empty or all whitespace, when the separator is empty, or when it does not occur. The key alone is empty when the
/// trimmed text begins with the separator.
KIV_EXPORT std::pair<std::string, std::string> SplitKeyValue(StringView text, StringView separator);

/// Sets the host name of the calling process's UTS namespace; needs CAP_SYS_ADMIN.
///
/// `name` has 1 to 63 bytes and holds no NUL, line feed or carriage return; nothing else is checked here. Returns false
/// for any other name, without a system call, and when sethostname(2) fails, with its errno.
KIV_EXPORT bool SetHostname(const std::string& name);

/// Returns the host name, or an empty text with errno when gethostname(2) fails.
KIV_EXPORT std::string GetHostname();

}  // namespace kiv::utils

#endif  // KIV_UTILS_H
