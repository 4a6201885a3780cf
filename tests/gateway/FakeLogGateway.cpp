// The gateway as a program, before a log that only pretends: "fake:stores", "fake:silent" and
// "fake:down" are its URLs. For tests of the process and for measurements; keeps no bodies.
#include <stdexcept>

#include "gateway/Program.h"
#include "tests/gateway/fakes/FakeLog.h"

namespace corvid::fleet {
namespace {

std::unique_ptr<LogPublisher> makeFakeLog(const std::string& url) {
  if (url == "fake:stores") return std::make_unique<FakeLog>(FakeLog::Mode::stores, false);
  auto log = std::make_unique<FakeLog>(FakeLog::Mode::silent, false);
  if (url == "fake:silent") return log;
  log->setReady(false);
  if (url == "fake:down") return log;
  throw std::invalid_argument("\"" + url + "\" is no fake log");
}

}  // namespace
}  // namespace corvid::fleet

int main(int argc, char** argv) {
  return corvid::fleet::runGateway({argv + (argc > 0), argv + argc}, corvid::fleet::makeFakeLog);
}
