// Keep-alive transactions: while one is open the launcher must not end the idle process. Any
// thread.
#pragma once

namespace corvid {

class KeepAlive {
 public:
  virtual ~KeepAlive() = default;
  virtual void beginTransaction() = 0;
  virtual void endTransaction() = 0;
};

}  // namespace corvid
