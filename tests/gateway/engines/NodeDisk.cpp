#include "tests/gateway/engines/NodeDisk.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/Descriptor.h"
#include "tests/support/ChildProcess.h"

namespace corvid::fleet {

namespace {

void run(const std::vector<std::string>& command) {
  ChildProcess program(ChildProcess::Program{.command = command});
  const auto status = program.waitForExit();
  if (status != 0) throw std::runtime_error(fmt::format("{}: status {}", command[0], *status));
}

std::string temporaryImage() {
  std::string name = "/dev/shm/corvid-disk-XXXXXX";
  const Descriptor file(mkstemp(name.data()));
  if (!file) throw std::runtime_error("no file can be made in /dev/shm");
  return name;
}

}  // namespace

NodeDisk::NodeDisk(std::string folder, std::size_t megabytes)
    : _folder(std::move(folder)), _image(temporaryImage()), _picture(_image + ".picture") {
  std::filesystem::create_directories(_folder);
  std::filesystem::resize_file(_image, megabytes << 20);
  run({"mkfs.ext4", "-q", "-m", "0", _image});
  mount();
}

NodeDisk::~NodeDisk() {
  ChildProcess({.command = {"umount", "-l", _folder}}).waitForExit();
  unlink(_image.c_str());
  unlink(_picture.c_str());
}

void NodeDisk::mount() const { run({"mount", "-o", "loop,nosuid,nodev", _image, _folder}); }

void NodeDisk::unmount() const { run({"umount", _folder}); }

void NodeDisk::fill() const {
  const Descriptor file(open((_folder + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  std::array<char, 65536> piece{};
  while (write(file.get(), piece.data(), piece.size()) > 0) continue;
  while (write(file.get(), piece.data(), 1) > 0) continue;
}

void NodeDisk::unfill() const { unlink((_folder + "/filler").c_str()); }

void NodeDisk::takePicture() { run({"cp", "--sparse=always", _image, _picture}); }

void NodeDisk::restorePicture() {
  unmount();
  std::filesystem::rename(_picture, _image);
  mount();
}

}  // namespace corvid::fleet
