#ifndef KIV_FS_H
#define KIV_FS_H

#include <kiv/export.h>

#include <string>

/// Files, directories and loop devices. Nothing is cached, every call asks the kernel. The free functions keep no
/// state, and any thread may call them; they block for as long as the filesystem does.
///
/// Paths are bytes without NUL, and relative ones start from the working directory. Where nothing else is said,
/// symbolic links are followed and errno stays as the failing call left it.
namespace kiv::fs {

/// Result of the operations that change files. The numbers are fixed; to_string gives a text for each.
enum error : int {
  success = 0,
  dir_open_failed = 1,
  src_open_failed = 2,
  dst_open_failed = 3,
  stat_failed = 4,
  not_regular_file = 5,
  not_found = 6,
  permission_denied = 7,
  no_space = 8,
  invalid_argument = 9,  ///< Reserved; no operation returns it.
  io_error = 10,
  sendfile_failed = 11,
  symlink_failed = 12,
  mkdir_failed = 13,
};

/// Returns the English text of a result, a static string that is never null; "Unknown error" for any other number.
KIV_EXPORT const char* to_string(error value);

/// Removes `path`: a file, a symbolic link (never what it leads to), or a directory with all that is in it. Behind a
/// slash at its end a link is followed, as everywhere: "link/" empties the directory, and then fails with io_error.
///
/// Returns success; not_found when there is no such entry; stat_failed when it cannot be looked at; dir_open_failed
/// when the directory cannot be opened; permission_denied or io_error when the entry itself cannot be removed. The
/// first entry that cannot be removed ends the work in its directory, and that directory then fails with the result of
/// its own rmdir(2), io_error as a rule: what went wrong further down is not told. One descriptor is open for each
/// level, and a level deeper than the limit of descriptors or the length of a path allows fails in the same way.
KIV_EXPORT error RemoveDirRecursively(const std::string& path);

/// Creates one directory with mode 0777 less the umask; parents are not created.
///
/// Returns success, also when an entry of that name exists already, of whatever type; permission_denied; no_space;
/// not_found when the parent does not exist; mkdir_failed for anything else. errno is that of mkdir(2).
KIV_EXPORT error CreateDirectory(const std::string& path);

/// Tells whether `path` is a mount point of the caller's mount namespace, as the second column of /proc/mounts spells
/// it, byte for byte.
///
/// So a slash at the end makes a difference, and a mount point with a blank in its name is listed with "\040" for it.
/// Returns false when the table cannot be read. Format: proc(5), fstab(5).
KIV_EXPORT bool IsMounted(const std::string& path);

/// Tells whether `path` leads to a directory. Returns false, with errno of stat(2), when it cannot be looked at.
KIV_EXPORT bool IsDirectory(const std::string& path);

/// Tells whether `path` leads to a regular file. Returns false, with errno of stat(2), when it cannot be looked at.
KIV_EXPORT bool IsRegularFile(const std::string& path);

/// Tells whether what `path` leads to, of any type, lies on a tmpfs (or a devtmpfs, which says the same). Returns
/// false, with errno of statfs(2), when it cannot be looked at.
KIV_EXPORT bool IsTmpfsFile(const std::string& path);

/// Tells whether `path` leads to something, of any type, links followed: access(2) with F_OK, and so with the rights of
/// the real user. Returns false, with errno, for a dangling link and for a path through a directory that this user may
/// not search.
KIV_EXPORT bool Exists(const std::string& path);

/// Returns the directory part of `path`: slashes at the end are dropped, then everything from the last slash on. "."
/// when there is no directory part, "/" for the root and what lies in it. Looks at the text alone.
KIV_EXPORT std::string Dirname(const std::string& path);

/// Returns everything behind the last slash, or all of `path` when it has none. Slashes at the end are not dropped:
/// "a/b/" gives an empty text, though Dirname gives "a". Looks at the text alone.
KIV_EXPORT std::string Basename(const std::string& path);

/// Creates the symbolic link `linkpath` that holds the text `target`, which must lead to a regular file.
///
/// A relative target is checked from the working directory, and later followed from the link's directory. Returns
/// success; of the target, not_found, permission_denied, stat_failed or not_regular_file; of the link, symlink_failed
/// when it exists or for any other failure, permission_denied, no_space, or not_found when its directory does not
/// exist.
KIV_EXPORT error CreateSymlink(const std::string& target, const std::string& linkpath);

/// Tells whether the filesystem of `path` has `bytes` bytes free for a user without privileges.
///
/// The free bytes are counted in 32 bits, signed, on every architecture: with 2 GiB free or more the count wraps, may
/// be negative, and the answer may be wrong either way. Returns false for a negative `bytes`, and, with errno of
/// statfs(2), when the filesystem cannot be asked.
KIV_EXPORT bool HasEnoughSpace(const std::string& path, int bytes);

/// Copies the contents of the regular file `src` to `dst`, which is replaced, or created with mode 0644 less the umask;
/// an existing file keeps its mode and owner. With `sync`, every write waits for the storage (O_SYNC); without, nothing
/// does, and what close(2) reports is never seen. Opening a FIFO, on either side, waits for its other end.
///
/// Returns, in this order, of the source: not_found, permission_denied, src_open_failed, stat_failed, not_regular_file.
/// Of the destination: no_space, with nothing touched, when HasEnoughSpace refuses the low 32 bits of the source's size
/// in Dirname(dst), which it does for sources between 2 and 4 GiB and for a directory that does not exist; success,
/// with nothing touched, when both are the same file; no_space, permission_denied, not_found, dst_open_failed. Of
/// copying: no_space, permission_denied, io_error (a source that shrinks, or a signal that interrupts),
/// sendfile_failed; success. A copy that fails on the way leaves what it has written.
KIV_EXPORT error Copy(const std::string& src, const std::string& dst, bool sync);

/// Returns the size in bytes of a regular file or a block device, in 32 bits on every architecture: of 2 GiB and more
/// only the low 32 bits, as a signed number.
///
/// Returns -1 for anything else and on failure, with errno of fstat(2) or ioctl(2). The descriptor stays the caller's.
KIV_EXPORT int GetSize(int fd);

/// Opens `path` for reading and returns its size as the other GetSize does; -1, with errno of open(2), when it cannot
/// be opened. Opening a FIFO waits for a writer, and opening a device may do more: that of a watchdog starts it.
KIV_EXPORT int GetSize(const std::string& path);

/// Returns the free bytes of the filesystem of `path`, those reserved for root included, counted in 32 bits on every
/// architecture: with 2 GiB free or more only the low 32 bits, as a signed number. Returns -1 on failure, with errno of
/// statfs(2).
KIV_EXPORT int GetSizeFS(const std::string& path);

/// Owns the attachment of a file, such as a disk image, to a free loop device, so that it can be mounted. Needs the
/// rights to open /dev/loop-control and the devices (CAP_SYS_ADMIN as a rule). Belongs to one thread. See loop(4).
///
/// The attachment belongs to the kernel: a process that is killed leaves it there, until somebody detaches it, with
/// losetup -d for instance.
class KIV_EXPORT LoopDevice {
 public:
  /// Attaches `file` to a free loop device, to be read and written, from byte `offset` to its end. The device has whole
  /// blocks of 512 bytes, so that a shorter rest of the file is not in it.
  ///
  /// The object is empty when any step failed, with errno of the failing call. Another process may take the free device
  /// first; that too is a failure, and there is no second try. The device's descriptor is not close-on-exec.
  LoopDevice(const std::string& file, unsigned int offset);

  /// Takes the attachment over; `other` is empty then.
  LoopDevice(LoopDevice&& other) noexcept;

  /// Detaches what this object has, and takes the attachment over; `other` is empty then.
  LoopDevice& operator=(LoopDevice&& other) noexcept;

  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  /// Detaches as Close does.
  ~LoopDevice();

  /// Detaches the file. A device that is still in use, mounted for instance, is detached by the kernel when its last
  /// user closes it. Does nothing when the object is empty.
  void Close();

  /// Returns the path of the device, such as "/dev/loop3"; empty when nothing is attached. The reference is valid as
  /// long as the object; the text changes with what is attached.
  const std::string& GetPath() const { return mPath; }

  /// Tells whether a file is attached.
  bool IsValid() const { return mFd != -1; }

 private:
  std::string mPath;
  int mFd = -1;
};

}  // namespace kiv::fs

#endif  // KIV_FS_H
