#ifndef KIV_PROCESS_H
#define KIV_PROCESS_H

#include <kiv/export.h>

#include <string>
#include <vector>

/// Running programs, becoming a daemon, and finding processes. Nothing is logged; errno stays as the failing system
/// call set it, where the caller's own call is what failed. Where nothing else is said, any thread may call; a thread
/// that runs a program must not be cancelled.
namespace kiv::process {

/// What a program left behind.
struct ExecResult {
  /// What it wrote to standard output and standard error, in the order of writing; always empty for ExecWait.
  std::string output;
  /// Its exit code, 0 to 255; 128 plus the signal number when a signal killed it; 127 when it could not be started, or
  /// when its end could not be learned (a caller that ignores SIGCHLD makes the kernel forget it).
  int exitCode = 127;
};

/// Runs a program and waits for its end, with standard output and standard error in files.
///
/// `path` is searched in PATH when it holds no slash. `args` are the arguments after the program's name, which is the
/// last component of `path`. Each file is created with mode 0644 less the umask, or emptied; an empty name is
/// /dev/null. Give two different files: each stream has an offset of its own and would overwrite the other's text.
///
/// The program has no standard input (descriptor 0 is closed) and no descriptor of the caller above 2. It begins with
/// no signal blocked; signals that the caller ignores stay ignored. Environment, working directory, umask, user and
/// limits are the caller's. The caller should have descriptors 0, 1 and 2 open, on /dev/null for instance.
///
/// Returns an empty output and the exit code; a file that cannot be opened gives 127, as does a program. Blocks without
/// limit until the program ends; signals (EINTR) do not end the wait. A FIFO as a file waits for a reader.
KIV_EXPORT ExecResult ExecWait(const std::string& path, const std::vector<std::string>& args,
                               const std::string& stdoutFile, const std::string& stderrFile);

/// Runs a program as ExecWait does, and collects what it writes to standard output and standard error, in memory and
/// without limit.
///
/// Returns output and exit code; an empty output and 127 when it could not be started. Blocks until every holder of the
/// output has closed it, a program that the program left behind included, and then until the program ends. A signal
/// that interrupts the reading (EINTR) ends the collection early: the output is cut there, and the program may die of
/// SIGPIPE when it writes on. Install handlers with SA_RESTART, or block signals as EventLoop::BlockSignals does.
KIV_EXPORT ExecResult ExecWaitCapture(const std::string& path, const std::vector<std::string>& args);

/// Starts a program that lives on by itself: in a session of its own, with descriptors 0, 1 and 2 on /dev/null (the
/// caller's own where that cannot be opened; the caller should have all three open), and as a child of the system's
/// reaper. `path` and `args` are those of ExecWait; so are the other descriptors, the signals, and what the program
/// gets from the caller.
///
/// Returns false only when the first fork(2) fails. Whether the program could be started is not learned. Blocks for no
/// longer than a short-lived child takes.
KIV_EXPORT bool StartProcessDetached(const std::string& path, const std::vector<std::string>& args);

/// Turns the calling process into a daemon: a process of its own session, without terminal, in the directory "/", with
/// umask 0, descriptors 0, 1 and 2 on /dev/null, all others closed (those that /proc/self/fd lists), and SIGPIPE
/// ignored. Signal mask, other handlers, user, environment and memory stay as they are.
///
/// Call it first, before any thread, event loop, pid file or socket. Returns 0 in the daemon, which has a new process
/// id. Returns 1, with errno of fork(2), when nothing has changed and the caller is still the calling process.
/// Otherwise the calling process ends with _exit(0) at once, without flushing streams or running destructors, and does
/// not learn whether the daemon got ready: when a later step fails, the child ends with status 1.
KIV_EXPORT int Daemonize();

/// Drops the supplementary groups, then sets group and user of the whole process, for good unless `uid` is 0.
///
/// Needs the right to set groups (CAP_SETGID), even where nothing would change. Returns true only when the real and
/// effective ids are those asked for afterwards. After false, with errno of the failing call, the process may have lost
/// some of its rights already: end it.
KIV_EXPORT bool DropRootPrivileges(unsigned int uid, unsigned int gid);

/// Makes sure that only one instance of a program runs, by an exclusive lock on a file with its process id.
///
/// The file holds the decimal process id without a newline. The lock is an advisory flock(2) lock. Belongs to one
/// thread, and to the process that locked it: a forked child must not run the destructor.
class KIV_EXPORT PidFile {
 public:
  /// Remembers the path, which should be absolute: it is used again at the end. Touches no file.
  PidFile(const std::string& path);
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

  /// Unlocks, closes and removes the file, when it is locked; what has the path by then is removed.
  ~PidFile();

  /// Creates the file, with mode 0644 less the umask, or opens it, takes the lock without waiting, and writes the
  /// process id. Call it once. Blocks for as long as the storage takes to keep the file (fsync(2)).
  ///
  /// Returns true when this object holds the file. Returns false, with nothing left open, when the lock is held, when
  /// the file names a live process (any live process or thread: only the number is known), or when a step fails, which
  /// may leave a stale file empty. Everything but the number of a live process counts as stale and is overwritten, a
  /// number with a newline after it included. Reading a FIFO waits.
  ///
  /// To tell why it returned false, set errno to 0 before. Then it is EWOULDBLOCK when the lock is held; 0, or EPERM
  /// for another user's, when the file names a live process; and otherwise that of the failing call.
  bool Lock();

 private:
  int mFd = -1;
  bool mLocked = false;
  std::string mPath;
};

/// Returns the short name of a process as the kernel keeps it, at most 15 bytes of whatever value (/proc/PID/comm, see
/// proc(5)); longer names, which only threads of the kernel have, are cut. The id of a thread gives the thread's name.
/// Returns an empty text, with errno, when there is no such process or it cannot be read, and for an empty name.
KIV_EXPORT std::string GetProcessName(int pid);

/// Returns the short name of the parent of this process; empty when it cannot be read, a parent outside this process's
/// pid namespace included.
KIV_EXPORT std::string GetParentName();

/// Returns the ids of all processes with this short name, in the order of /proc, the calling process included when it
/// matches. Names are compared byte for byte, so one of 16 bytes or more matches none; a name of exactly 15 bytes that
/// ends in a newline is read without it. None match an empty name. Empty on failure, too.
KIV_EXPORT std::vector<int> GetPidsOf(const std::string& name);

/// Sends `signal` to all processes with one of these short names, the calling process included when it matches. Signal
/// 0 sends nothing and tells whether there is one that may be signalled.
///
/// Returns true when at least one was signalled, and when `names` is empty; false otherwise. Does not wait for their
/// end. A process id may be taken by another process between look-up and signal.
KIV_EXPORT bool KillByName(const std::vector<std::string>& names, int signal);

/// Tells whether there is a process with this id, whoever owns it; one that has ended and was not waited for counts.
/// So does the id of a thread. Ids below 1 are no processes. errno may be EPERM after true.
KIV_EXPORT bool IsProcessAlive(int pid);

}  // namespace kiv::process

#endif  // KIV_PROCESS_H
