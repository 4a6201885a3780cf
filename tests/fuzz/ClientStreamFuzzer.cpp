// Bytes and descriptors from a client through the whole chain: socket, guard, RPC and session.
// Whatever comes, the daemon answers in its protocol, ends the connection when the client does, and
// keeps nothing of it.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "protocol/Limits.h"
#include "protocol/wire/SocketPort.h"
#include "tests/fuzz/ClientStream.h"
#include "tests/fuzz/FuzzedDaemon.h"
#include "tests/fuzz/StreamingClient.h"

namespace {

using namespace corvid;
using fuzz::require;

Descriptor fileOf(std::size_t size, int flags) {
  const Descriptor file(memfd_create("passed", MFD_CLOEXEC));
  require(file && ftruncate(file.get(), static_cast<off_t>(size)) == 0);
  const std::string name = "/proc/self/fd/" + std::to_string(file.get());
  return Descriptor(open(name.c_str(), flags | O_CLOEXEC));
}

// What a client passes, made once.
int passedDescriptor(fuzz::Passed kind) {
  static const std::array<Descriptor, fuzz::kindsOfPassed> descriptors = [] {
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0);
    const Descriptor writing(ends[1]);
    return std::array<Descriptor, fuzz::kindsOfPassed>{
        Descriptor(),
        fileOf(300, O_RDONLY),
        fileOf(0, O_RDONLY),
        fileOf(limits::uploadBytes + 1, O_RDONLY),
        fileOf(300, O_WRONLY),
        Descriptor(ends[0]),
        Descriptor(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC))};
  }();
  return descriptors[static_cast<std::size_t>(kind)].get();
}

// The number that the next descriptor would get.
int nextDescriptor() { return Descriptor(dup(STDIN_FILENO)).get(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const wire::QuietLibrary quiet;
  const auto writes = fuzz::readClientStream({reinterpret_cast<const char*>(data), size});
  passedDescriptor(fuzz::Passed::nothing);
  const int before = nextDescriptor();
  {
    std::array<int, 2> ends{};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0);
    fuzz::StreamingClient client{Descriptor(ends[0]), passedDescriptor};
    fuzz::FuzzedDaemon daemon;
    const auto connection = daemon.serve(Descriptor(ends[1]));
    client.converse(writes);
    connection->join();
  }
  require(nextDescriptor() == before);
  return 0;
}
