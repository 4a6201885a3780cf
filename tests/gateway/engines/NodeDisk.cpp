#include "tests/gateway/engines/NodeDisk.h"

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/Descriptor.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Disks.h"

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

void NodeDisk::fill() const { fillDisk(_folder); }

void NodeDisk::unfill() const { unfillDisk(_folder); }

void NodeDisk::takePicture() { run({"cp", "--sparse=always", _image, _picture}); }

void NodeDisk::restorePicture() {
  unmount();
  std::filesystem::rename(_picture, _image);
  mount();
}

}  // namespace corvid::fleet
