// A daemon with recording sessions, and what a host of libcorvid needs to talk to it.
#pragma once

#include <corvid/corvid.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tests/rpc/ServiceFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {

// Waits until `condition` holds for what callbacks have recorded.
class SessionFixture : public ServiceFixture {
 protected:
  client::Session::Options options() {
    client::Session::Options options;
    options.root = folder.path();
    options.deadline = std::chrono::seconds(10);
    return options;
  }
  template <class Change>
  void note(Change change) {
    notice.change(change);
  }
  template <class Condition>
  bool await(Condition condition) {
    return notice.await(condition);
  }

  Notice notice;
};

}  // namespace corvid
