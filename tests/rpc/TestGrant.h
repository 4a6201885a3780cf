// What a client without the client library grants with an upload.
#pragma once

#include <kj/debug.h>

#include "protocol/corvid.capnp.h"

namespace corvid {

// A grant of any descriptor; none where it is negative.
class TestGrant final : public wire::FileGrant::Server {
 public:
  TestGrant(int descriptor, int& removals) : _descriptor(descriptor), _removals(removals) {}
  kj::Maybe<int> getFd() override {
    if (_descriptor < 0) return nullptr;
    return _descriptor;
  }
  kj::Promise<void> remove(RemoveContext) override {
    ++_removals;
    if (fails) return KJ_EXCEPTION(FAILED, "cannot be removed");
    return kj::READY_NOW;
  }
  bool fails = false;

 private:
  const int _descriptor;
  int& _removals;
};

}  // namespace corvid
