// std::recursive_mutex, std::mutex and std::condition_variable under clang's thread-safety
// analysis, which cannot follow the standard ones. Members are marked GUARDED_BY, operations
// REQUIRES or EXCLUDES.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

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
  friend class Condition;
  Base _base;
};

using Mutex = BasicMutex<std::mutex>;
// May be locked again by the thread that holds it.
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds a mutex for a scope.
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

// Waiting with a mutex held, which is released meanwhile. std::condition_variable_any would do, but
// has a lock of its own, on which a woken thread waits once more for the one that wakes it.
class Condition {
 public:
  // Best without the mutex, for the same reason.
  void notify_one() noexcept { _base.notify_one(); }
  void notify_all() noexcept { _base.notify_all(); }

  // As those of std::condition_variable.
  void wait(Mutex& mutex) REQUIRES(mutex) {
    const Held held(mutex);
    _base.wait(*held);
  }
  template <class Predicate>
  void wait(Mutex& mutex, Predicate isDone) REQUIRES(mutex) {
    while (!isDone()) wait(mutex);
  }
  template <class TimePoint>
  std::cv_status wait_until(Mutex& mutex, const TimePoint& deadline) REQUIRES(mutex) {
    const Held held(mutex);
    return _base.wait_until(*held, deadline);
  }
  template <class TimePoint, class Predicate>
  bool wait_until(Mutex& mutex, const TimePoint& deadline, Predicate isDone) REQUIRES(mutex) {
    while (!isDone())
      if (wait_until(mutex, deadline) == std::cv_status::timeout) return isDone();
    return true;
  }
  template <class Duration>
  std::cv_status wait_for(Mutex& mutex, const Duration& time) REQUIRES(mutex) {
    return wait_until(mutex, std::chrono::steady_clock::now() + time);
  }
  template <class Duration, class Predicate>
  bool wait_for(Mutex& mutex, const Duration& time, Predicate isDone) REQUIRES(mutex) {
    return wait_until(mutex, std::chrono::steady_clock::now() + time, std::move(isDone));
  }

 private:
  // The standard lock that it asks for, of a mutex that stays locked when that goes.
  class Held {
   public:
    explicit Held(Mutex& mutex) : _lock(mutex._base, std::adopt_lock) {}
    ~Held() { _lock.release(); }
    std::unique_lock<std::mutex>& operator*() const { return _lock; }

   private:
    mutable std::unique_lock<std::mutex> _lock;
  };

  std::condition_variable _base;
};

}  // namespace corvid
