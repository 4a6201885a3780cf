// Bytes from somebody who looks at the daemon through its control socket, while events are decided:
// socket, guard, RPC and answers. Whatever comes, the daemon answers in its protocol, ends the
// connection when the other end does, and its ledger adds up.
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "protocol/wire/SocketPort.h"
#include "tests/fuzz/ClientStream.h"
#include "tests/fuzz/FuzzedDaemon.h"
#include "tests/fuzz/StreamingClient.h"

namespace {

using namespace corvid;

// The number that the next descriptor would get.
int nextDescriptor() { return Descriptor(dup(STDIN_FILENO)).get(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const wire::QuietLibrary quiet;
  const auto writes = fuzz::readClientStream({reinterpret_cast<const char*>(data), size});
  const int before = nextDescriptor();
  {
    fuzz::FuzzedDaemon daemon;
    fuzz::StreamingClient(daemon.look()).converse(writes, [&] { daemon.dropEvent(); });
  }
  fuzz::require(nextDescriptor() == before);
  return 0;
}
