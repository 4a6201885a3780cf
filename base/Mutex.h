// std::recursive_mutex and std::mutex under clang's thread-safety analysis, which cannot follow
// the standard ones. Members are marked GUARDED_BY, operations REQUIRES or EXCLUDES.
#pragma once

#include <mutex>

#if defined(__clang__)
#define CORVID_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define CORVID_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) CORVID_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY CORVID_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(lock) CORVID_THREAD_ATTRIBUTE(guarded_by(lock))
#define REQUIRES(...) CORVID_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) CORVID_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) CORVID_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) CORVID_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(lock) CORVID_THREAD_ATTRIBUTE(lock_returned(lock))
#define EXCLUDES(...) CORVID_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS CORVID_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace corvid {

template <class Base>
class CAPABILITY("mutex") BasicMutex {
 public:
  BasicMutex() = default;
  BasicMutex(const BasicMutex&) = delete;
  BasicMutex& operator=(const BasicMutex&) = delete;

  void lock() ACQUIRE() { _base.lock(); }
  // Not by the thread that holds it.
  bool try_lock() TRY_ACQUIRE(true) { return _base.try_lock(); }
  void unlock() RELEASE() { _base.unlock(); }

 private:
  Base _base;
};

using Mutex = BasicMutex<std::mutex>;
// May be locked again by the thread that holds it.
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds a mutex for a scope. For waiting, use std::condition_variable_any on the mutex itself.
template <class M>
class SCOPED_CAPABILITY BasicLock {
 public:
  explicit BasicLock(M& mutex) ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
  ~BasicLock() RELEASE() { _mutex.unlock(); }
  BasicLock(const BasicLock&) = delete;
  BasicLock& operator=(const BasicLock&) = delete;

 private:
  M& _mutex;
};

using MutexLock = BasicLock<Mutex>;
using RecursiveLock = BasicLock<RecursiveMutex>;

}  // namespace corvid
