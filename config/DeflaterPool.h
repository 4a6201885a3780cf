// Keeps a few deflate streams for the next body: setting one up costs several microseconds and a
// quarter of a megabyte, more than it takes to compress a small body.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "base/Mutex.h"
#include "platform/data/Deflater.h"

namespace corvid {

// Threads: any. A lease is used by one thread and must not outlive the pool.
class DeflaterPool {
 public:
  // As many streams as are kept; more may be out at the same time and are dropped on return.
  static constexpr std::size_t capacity = 2;

  // A stream for one caller at a time, until the lease ends.
  class Lease {
   public:
    ~Lease();
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Deflater& operator*() const { return *_deflater; }

   private:
    friend class DeflaterPool;
    Lease(DeflaterPool& pool, std::unique_ptr<Deflater> deflater);

    DeflaterPool& _pool;
    std::unique_ptr<Deflater> _deflater;
  };

  DeflaterPool() { _idle.reserve(capacity); }

  // The stream returned last, else a new one. Never waits for another caller's.
  Lease take() EXCLUDES(_mutex);
  // Streams kept at the moment.
  std::size_t idleCount() EXCLUDES(_mutex);

 private:
  void giveBack(std::unique_ptr<Deflater> deflater) EXCLUDES(_mutex);

  Mutex _mutex;
  std::vector<std::unique_ptr<Deflater>> _idle GUARDED_BY(_mutex);
};

}  // namespace corvid
