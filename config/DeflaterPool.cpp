#include "config/DeflaterPool.h"

#include <utility>

namespace corvid {

DeflaterPool::Lease::Lease(DeflaterPool& pool, std::unique_ptr<Deflater> deflater)
    : _pool(pool), _deflater(std::move(deflater)) {}

DeflaterPool::Lease::~Lease() { _pool.giveBack(std::move(_deflater)); }

DeflaterPool::Lease DeflaterPool::take() {
  std::unique_ptr<Deflater> deflater;
  {
    MutexLock lock(_mutex);
    if (!_idle.empty()) {
      deflater = std::move(_idle.back());
      _idle.pop_back();
    }
  }
  if (!deflater) deflater = std::make_unique<Deflater>();
  return Lease(*this, std::move(deflater));
}

std::size_t DeflaterPool::idleCount() {
  MutexLock lock(_mutex);
  return _idle.size();
}

void DeflaterPool::giveBack(std::unique_ptr<Deflater> deflater) {
  MutexLock lock(_mutex);
  if (_idle.size() < capacity) _idle.push_back(std::move(deflater));
}

}  // namespace corvid
