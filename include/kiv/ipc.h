#ifndef KIV_IPC_H
#define KIV_IPC_H

#include <kiv/export.h>
#include <semaphore.h>

#include <string>

/// Named POSIX shared memory and semaphores, by which programs on one machine share state. Names begin with '/',
/// hold no second '/', and have some 250 bytes at most: see shm_overview(7) and sem_overview(7). Objects in the kernel
/// outlive their users, until Remove or a reboot. Descriptors are close-on-exec. Failures leave errno as the failing
/// call set it. Each object belongs to one thread; any thread may call Remove.
namespace kiv::ipc {

/// Owns a mapping, to be read and written, of a named shared memory object.
///
/// What the memory holds, and who may touch it when, is for its users to agree on, with a Semaphore for instance.
class KIV_EXPORT SharedMemory {
 public:
  /// With a `size` in bytes above 0, creates the object with permissions `mode` less the umask, or takes the existing
  /// one and throws its contents away; its bytes are zero then. With a `size` of 0, opens the existing object whole (of
  /// 4 GiB and more, what the low 32 bits of its size say); `mode` does not matter.
  ///
  /// The object is empty when the name is empty or does not begin with '/', when any call failed, and when what exists
  /// has no bytes. Existing mappings see a new size at once: a process that touches pages after its end dies of SIGBUS.
  /// So does one that is the first to write to a page when the filesystem of the objects, /dev/shm, is full: memory is
  /// allocated then, and not here.
  SharedMemory(const std::string& name, unsigned int size, unsigned int mode);

  /// Takes the mapping over; `other` is empty then, with a size of 0.
  SharedMemory(SharedMemory&& other) noexcept;

  /// Unmaps what this object has, and takes the mapping over; `other` is empty then, and has this object's former size.
  SharedMemory& operator=(SharedMemory&& other) noexcept;

  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  /// Unmaps as Close does; the named object stays.
  ~SharedMemory();

  /// Ends the mapping and closes its descriptor. GetSize keeps its value. Does nothing when there is none.
  void Close();

  /// Exchanges the mappings.
  void Swap(SharedMemory& other) noexcept;

  /// Removes the name; mappings of it live on. Returns false for a name that is empty or does not begin with '/', and,
  /// with errno of shm_unlink(3), when there is none or it may not be removed.
  static bool Remove(const std::string& name);

  /// Returns the first byte of the mapping, aligned to a page; MAP_FAILED (<sys/mman.h>) when nothing is mapped. Valid
  /// until the mapping ends; it stays the same when another object takes the mapping over.
  void* GetAddress() const { return mAddress; }

  /// Returns the bytes mapped. Without a mapping, it says nothing.
  unsigned int GetSize() const { return mSize; }

  /// Tells whether there is a mapping.
  bool IsValid() const { return mFd != -1; }

 private:
  int mFd = -1;
  void* mAddress;
  unsigned int mSize = 0;
  bool mCreated = false;
};

/// Owns one use of a named semaphore, a counter that processes wait for.
class KIV_EXPORT Semaphore {
 public:
  /// Creates the semaphore with the count `value`, at most SEM_VALUE_MAX, and permissions `mode` less the umask; when
  /// the name exists, opens that one, with the count and permissions that it has.
  ///
  /// The object is empty when the name is empty or does not begin with '/', and when a call failed; one that is removed
  /// by another process between the two attempts is such a failure.
  Semaphore(const std::string& name, unsigned int value, unsigned int mode);

  /// Takes the semaphore over; `other` is empty then.
  Semaphore(Semaphore&& other) noexcept;

  /// Closes the semaphore that this object has, and takes the other's over; `other` is empty then.
  Semaphore& operator=(Semaphore&& other) noexcept;

  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  /// Closes the semaphore; the named object stays, with its count.
  ~Semaphore();

  /// Takes one from the count; waits without limit while it is 0. Returns true when it was taken; false when the object
  /// is empty, or with errno of sem_wait(3). A signal that interrupts the wait (EINTR) is such a failure.
  bool Wait();

  /// Takes one from the count without waiting. Returns true when it was taken; false when the object is empty, or with
  /// errno of sem_trywait(3), EAGAIN when the count is 0.
  bool TryWait();

  /// Adds one to the count, and so wakes one that waits. Returns false when the object is empty, or with errno of
  /// sem_post(3).
  bool Post();

  /// Exchanges the semaphores.
  void Swap(Semaphore& other) noexcept;

  /// Removes the name; who has the semaphore open keeps it. Returns false for a name that is empty or does not begin
  /// with a slash, and, with errno of sem_unlink(3), when there is none or it may not be removed.
  static bool Remove(const std::string& name);

  /// Tells whether there is a semaphore.
  bool IsValid() const { return mHandle != nullptr; }

 private:
  sem_t* mHandle = nullptr;
  std::string mName;
};

}  // namespace kiv::ipc

#endif  // KIV_IPC_H
