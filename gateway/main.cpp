#include <stdexcept>

#include "gateway/Program.h"

namespace corvid::fleet {
namespace {

// Where the log that gateways and loaders share is joined.
std::unique_ptr<LogPublisher> makeLog(const std::string&) {
  throw std::runtime_error("this build speaks to no log");
}

}  // namespace
}  // namespace corvid::fleet

int main(int argc, char** argv) {
  return corvid::fleet::runGateway({argv + (argc > 0), argv + argc}, corvid::fleet::makeLog);
}
