#include "hds/platform/VtNamedMutex.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>

#include "hds/platform/ZoSleep.h"
#include "hds/platform/internal/PlatformInternal.h"

#if defined(__SANITIZE_THREAD__)
#define HDS_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HDS_THREAD_SANITIZER 1
#endif
#endif
#ifdef HDS_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

// Each lock file holds one robust, process-shared pthread mutex, mapped by every process that
// uses the name. Against flock this gives a real timed wait (the futex wakes the next waiter at
// once, no polling), exclusion between threads of one process through the same primitive, and
// release by the kernel when the holder dies (robust list). Nothing of it lives in a descriptor,
// so a child started while the lock is held cannot keep it.

namespace {

constexpr uint32_t kMagic = 0x48445331;

struct SharedLock {
  uint32_t uMagic;  // set last, once the mutex is usable
  uint32_t uMutexSize;
  pthread_mutex_t oMutex;
};

struct Mapping {
  dev_t iDev;
  ino_t iIno;
  SharedLock* pLock;
};

std::mutex g_oMapMutex;
// Mappings are kept for the life of the process: a robust mutex must stay mapped while any
// thread may hold or wait on it, and lock names are few.
std::map<std::string, Mapping>* g_pMappings = new std::map<std::string, Mapping>;

// ThreadSanitizer does not intercept pthread_mutex_clocklock: unless told, it takes the unlock
// that follows for one of a mutex never locked, and misses the order the lock gives.
int clockLock(pthread_mutex_t* mutex, const timespec* deadline) {
#ifdef HDS_THREAD_SANITIZER
  __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
  int rc = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, deadline);
  __tsan_mutex_post_lock(
      mutex,
      __tsan_mutex_try_lock | (rc == 0 || rc == EOWNERDEAD ? 0 : __tsan_mutex_try_lock_failed), 0);
  return rc;
#else
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, deadline);
#endif
}

int initMutex(SharedLock* lock) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  // A second lock by the holding thread fails at once instead of waiting out its time-out.
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  int rc = pthread_mutex_init(&lock->oMutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (rc != 0) return rc;
  __atomic_store_n(&lock->uMutexSize, static_cast<uint32_t>(sizeof(pthread_mutex_t)),
                   __ATOMIC_RELAXED);
  __atomic_store_n(&lock->uMagic, kMagic, __ATOMIC_RELEASE);
  return 0;
}

int lockFile(int fd, int op) {
  while (flock(fd, op) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

// Opens (creating when missing) the lock file and maps it, initialising the mutex once under
// flock so that two first users cannot both initialise it. With reinit, a mutex left
// unrecoverable is made anew.
int mapLockFile(const std::string& path, bool reinit, Mapping* out) {
  std::lock_guard<std::mutex> guard(g_oMapMutex);
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (S_ISLNK(st.st_mode)) return ELOOP;
    auto it = g_pMappings->find(path);
    if (!reinit && it != g_pMappings->end() && it->second.iDev == st.st_dev &&
        it->second.iIno == st.st_ino) {
      *out = it->second;
      return 0;
    }
  }
  int fd;
  do {
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  int err = 0;
  void* addr = MAP_FAILED;
  if (fstat(fd, &st) != 0) {
    err = errno;
  } else if (!S_ISREG(st.st_mode)) {
    err = EINVAL;
  } else if ((err = lockFile(fd, LOCK_EX)) == 0) {
    if (static_cast<size_t>(st.st_size) < sizeof(SharedLock) &&
        ftruncate(fd, sizeof(SharedLock)) != 0) {
      err = errno;
    } else {
      addr = mmap(nullptr, sizeof(SharedLock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (addr == MAP_FAILED) {
        err = errno;
      } else {
        SharedLock* lock = static_cast<SharedLock*>(addr);
        if (reinit || __atomic_load_n(&lock->uMagic, __ATOMIC_ACQUIRE) != kMagic ||
            lock->uMutexSize != sizeof(pthread_mutex_t))
          err = initMutex(lock);
      }
    }
    lockFile(fd, LOCK_UN);
  }
  close(fd);
  if (err != 0) {
    if (addr != MAP_FAILED) munmap(addr, sizeof(SharedLock));
    return err;
  }
  *out = Mapping{st.st_dev, st.st_ino, static_cast<SharedLock*>(addr)};
  (*g_pMappings)[path] = *out;
  return 0;
}

std::string fileNameFor(const std::string& name) {
  std::string file = name.empty() ? std::string("_") : name;
  for (char& c : file)
    if (c == '/' || c == '\0') c = '_';
  return file + ".lock";
}

}  // namespace

struct VtNamedMutex::Impl {
  std::string sName;
  std::string sPath;
  std::string sError;
  SharedLock* pLock = nullptr;
  Mapping oFile{};  // the lock file pLock lives in
  bool bHeld = false;

  int map(bool reinit) {
    int err = mapLockFile(sPath, reinit, &oFile);
    if (err == 0) pLock = oFile.pLock;
    return err;
  }
  // Whether the path still names the file this mutex lives in: someone may have removed or
  // replaced it while this process waited, and a mutex in a file nobody else can find any
  // more excludes nobody.
  bool fileStillAtPath() const {
    struct stat st;
    return lstat(sPath.c_str(), &st) == 0 && st.st_dev == oFile.iDev && st.st_ino == oFile.iIno;
  }
};

VtNamedMutex::VtNamedMutex(const std::string& name) : m_pImpl(new Impl) {
  m_pImpl->sName = name;
  std::string dir = lockDirectory();
  m_pImpl->sPath = lockFilePath(name);
  int err = hds::platform::ensurePrivateDirectory(dir, 0700);
  if (err != 0) {
    m_pImpl->sError = "Lock directory [" + dir + "] unusable: " + hds::platform::errnoText(err);
    return;
  }
  err = m_pImpl->map(false);
  if (err != 0)
    m_pImpl->sError =
        "Lock file [" + m_pImpl->sPath + "] unusable: " + hds::platform::errnoText(err);
}

VtNamedMutex::~VtNamedMutex() {
  unlock();
  delete m_pImpl;
}

bool VtNamedMutex::isValid() const { return m_pImpl->pLock != nullptr; }

const std::string& VtNamedMutex::lastError() const { return m_pImpl->sError; }

bool VtNamedMutex::lock(unsigned long ms) {
  if (m_pImpl->pLock == nullptr) return false;
  if (m_pImpl->bHeld) return true;
  unsigned long scaled = ZoScaledMs(ms);
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(scaled / 1000);
  deadline.tv_nsec += static_cast<long>(scaled % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  bool reinitialised = false;
  // Bounded, so that a path replaced over and over cannot keep a caller here past its deadline.
  for (int moves = 0; moves < 64;) {
    pthread_mutex_t* mutex = &m_pImpl->pLock->oMutex;
    int rc;
    do {
      // The monotonic clock: a change of the wall clock neither cuts nor stretches the wait.
      rc = scaled == 0 ? pthread_mutex_trylock(mutex) : clockLock(mutex, &deadline);
    } while (rc == EINTR);
    if (rc == EOWNERDEAD) {
      // The previous holder died holding it; what it guarded is files, which stay as they are.
      pthread_mutex_consistent(mutex);
      rc = 0;
    }
    if (rc == 0) {
      if (m_pImpl->fileStillAtPath()) {
        m_pImpl->bHeld = true;
        m_pImpl->sError.clear();
        return true;
      }
      // The lock is the file's lock: whoever opens the name now meets the file at the path.
      pthread_mutex_unlock(mutex);
      ++moves;
      if (int err = m_pImpl->map(false); err != 0) {
        m_pImpl->sError =
            "Lock file [" + m_pImpl->sPath + "] unusable: " + hds::platform::errnoText(err);
        return false;
      }
      continue;
    }
    if (rc == ENOTRECOVERABLE && !reinitialised && m_pImpl->map(true) == 0) {
      reinitialised = true;
      continue;
    }
    m_pImpl->sError =
        "Lock [" + m_pImpl->sName + "] not acquired: " +
        (rc == EBUSY ? std::string("held by another owner") : hds::platform::errnoText(rc));
    return false;
  }
  m_pImpl->sError = "Lock [" + m_pImpl->sName + "] not acquired: its file keeps being replaced";
  return false;
}

void VtNamedMutex::unlock() {
  if (!m_pImpl->bHeld) return;
  pthread_mutex_unlock(&m_pImpl->pLock->oMutex);
  m_pImpl->bHeld = false;
}

std::string VtNamedMutex::lockDirectory() {
  std::string dir = hds::platform::envOr("HDS_LOCK_DIR", "/run/lock/hds");
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

std::string VtNamedMutex::lockFilePath(const std::string& name) {
  return lockDirectory() + "/" + fileNameFor(name);
}

long VtNamedMutex::holderThread(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  SharedLock lock;
  ssize_t n = pread(fd, &lock, sizeof(lock), 0);
  close(fd);
  if (n != static_cast<ssize_t>(sizeof(lock)) || lock.uMagic != kMagic ||
      lock.uMutexSize != sizeof(pthread_mutex_t)) {
    return -1;
  }
  // The first word of a robust mutex is its futex, which holds the owner's thread id under the
  // kernel's robust-futex rules; the flag bits above the id are dropped.
  uint32_t futex = 0;
  memcpy(&futex, &lock.oMutex, sizeof(futex));
  return static_cast<long>(futex & FUTEX_TID_MASK);
}
