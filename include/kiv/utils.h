#ifndef KIV_UTILS_H
#define KIV_UTILS_H

#include <kiv/export.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// Text helpers, configuration files, CRC-32, the kernel's figures, and the host name. Text is bytes, without any
/// encoding assumed. Everything may be called from any thread, but for SystemStats::GetCpuUsage, which alone keeps
/// state. Failures leave errno as the failing call set it, which is nothing where only the contents of a file were
/// wrong. Files are read until they end, without limit, and as a rule without waiting; a signal (EINTR) does not end
/// that. The descriptor of a file that is being read is not close-on-exec.
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

/// Reads an INI file into `out`, sections by name and in each the values by key. `out` is not cleared: of two values
/// for one key in one section, the later one stays.
///
/// Lines end at "\n", and whitespace around a line, key, value or section name is dropped (see SplitKeyValue; CR and
/// NUL count). Empty lines and those that begin with # or ; say nothing. "[name]" begins a section, which is there from
/// then on even if nothing follows; what stands behind the bracket is ignored. "key = value" splits at the first "=";
/// before any header it belongs to the section "". All other lines are ignored. There are no comments behind values,
/// quotes, escapes, continuations or variables.
///
/// Returns true when the whole file was read. Returns false when `path`, a C string, cannot be opened or read to its
/// end, which sets errno, and at a header without "]" or name, which does not: set errno to 0 before to tell them
/// apart. What came before stays in `out`.
KIV_EXPORT bool ParseIniFile(const char* path, std::map<std::string, std::map<std::string, std::string>>& out);

/// Readers of settings in other forms than INI.
class KIV_EXPORT Parser {
 public:
  /// Reads a file of lines "key SEPARATOR value" into `out`, which is not cleared: later lines win over earlier ones.
  ///
  /// Each line is split as by SplitKeyValue at the first whole `separator`; null counts as empty, and then no line says
  /// anything. Lines without the separator or without a key are ignored, and those without a value, too, unless
  /// `allowEmptyValues`. There are no comments: "#a=1" has the key "#a".
  ///
  /// Returns true when the file was read to its end, false with errno when `path`, a C string, cannot be opened or read
  /// so far; what was read stays in `out`.
  static bool ReadKeyValueFile(const char* path, std::map<std::string, std::string>& out, const char* separator,
                               bool allowEmptyValues);
};

/// Takes `len` bytes into a running CRC-32, that of IEEE 802.3, zlib and PNG (reflected, polynomial 0xEDB88320). Begin
/// with 0xFFFFFFFF, and end with FinalCrc32. Returns the new running value; `crc` when `data` is null or `len` is 0.
KIV_EXPORT unsigned int UpdateCrc32(unsigned int crc, const void* data, unsigned int len);

/// Returns the checksum that a running value stands for.
KIV_EXPORT unsigned int FinalCrc32(unsigned int crc);

/// Returns the CRC-32 of `len` bytes; 0 when `data` is null or `len` is 0.
KIV_EXPORT unsigned int CalcCrc32(const void* data, unsigned int len);

/// Returns the CRC-32 of all bytes of `s`; of 4 GiB and more, only of as many as the low 32 bits of the size say.
KIV_EXPORT unsigned int CalcCrc32(const std::string& s);

/// Figures of the machine as a whole, from /proc; see proc(5).
class KIV_EXPORT SystemStats {
 public:
  /// Shares of the processors' time, in percent of all processors together. When the kernel's counters have gone
  /// backwards, as that of iowait may (proc(5)), they can be any numbers.
  struct CpuUsage {
    double user;    ///< 7/10 of the time that was not idle, whoever spent it.
    double system;  ///< 3/10 of it.
    double idle;    ///< Time without work, time that waited for disks included.
  };

  /// How many processes ran or waited for a processor or a disk, as exponential means over so many minutes.
  struct LoadAvg {
    double one;
    double five;
    double fifteen;
  };

  /// Memory in KiB. What the kernel does not tell is 0.
  struct MemInfo {
    std::uint64_t total;
    std::uint64_t free;       ///< Used for nothing at all.
    std::uint64_t available;  ///< An estimate of what programs can have without swapping; 0 before Linux 3.14.
  };

  /// Computes the usage since the previous call of anybody in this process. For one thread only.
  ///
  /// Returns true with `out` filled. Returns false, with `out` untouched, the first time, when no clock tick has passed
  /// since the call before, and when /proc/stat cannot be read or does not begin with at least four counters.
  static bool GetCpuUsage(CpuUsage& out);

  /// Reads the load averages. Returns false, with `out` untouched, when /proc/loadavg does not give all three.
  static bool GetLoadAvg(LoadAvg& out);

  /// Reads the seconds since the machine started, sleep included. Returns false, with `seconds` untouched, when
  /// /proc/uptime does not give them.
  static bool GetUptime(double& seconds);

  /// Reads the memory figures. Returns true when the total is known; false, with `out` untouched, when /proc/meminfo
  /// cannot be opened, and false, with what was found in `out`, when it gives no total.
  static bool GetMemory(MemInfo& out);
};

/// Traffic of the network interfaces, from /proc/net/dev: those of the main thread's network namespace.
class KIV_EXPORT NetStats {
 public:
  /// Totals since the interface was created. They may begin again at 0; on old kernels they have 32 bits.
  struct IfaceStats {
    std::string name;
    std::uint64_t rxBytes;
    std::uint64_t txBytes;
    std::uint64_t rxPackets;
    std::uint64_t txPackets;
  };

  /// Replaces `out` by all interfaces, in the kernel's order. Returns false, with `out` empty, when there is none or
  /// the file cannot be opened. Lines that make no sense are left out.
  static bool GetAll(std::vector<IfaceStats>& out);

  /// Reads the interface of exactly this name, at the cost of GetAll. Returns false, with `out` untouched, when there
  /// is none.
  static bool GetByName(const std::string& name, IfaceStats& out);
};

/// Traffic of whole disks, from /proc/diskstats; see the kernel's Documentation/admin-guide/iostats.rst.
class KIV_EXPORT DiskStats {
 public:
  /// Totals since the device appeared. They may wrap.
  struct DeviceStats {
    std::string name;
    std::uint64_t readsCompleted;
    std::uint64_t writesCompleted;
    std::uint64_t sectorsRead;  ///< Of 512 bytes, whatever the disk's own sectors are.
    std::uint64_t sectorsWritten;
  };

  /// Replaces `out` by all devices with an entry of their own in /sys/block (loop and RAM devices too, partitions not),
  /// in the kernel's order. Returns false, with `out` empty, when there is none or the file cannot be opened. Lines
  /// with fewer than 14 fields are left out.
  static bool GetAll(std::vector<DeviceStats>& out);

  /// Reads the device of exactly this name, at the cost of GetAll. Returns false, with `out` untouched, when there is
  /// none.
  static bool GetByName(const std::string& name, DeviceStats& out);
};

/// Sets the host name of the calling process's UTS namespace; needs CAP_SYS_ADMIN.
///
/// `name` has 1 to 63 bytes and holds no NUL, line feed or carriage return; nothing else is checked here. Returns false
/// for any other name, without a system call, and when sethostname(2) fails, with its errno.
KIV_EXPORT bool SetHostname(const std::string& name);

/// Returns the host name, or an empty text with errno when gethostname(2) fails.
KIV_EXPORT std::string GetHostname();

}  // namespace kiv::utils

#endif  // KIV_UTILS_H
