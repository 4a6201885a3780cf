#include "gateway/uploads/UploadStore.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <system_error>
#include <utility>

#include "gateway/Limits.h"

namespace corvid::fleet {

namespace fs = std::filesystem;

namespace {

constexpr mode_t ours = 0600;

Rule diskRule() { return errno == ENOSPC || errno == EDQUOT ? Rule::diskFull : Rule::diskFailed; }

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// What a name in a folder stands for survives a power cut only when the folder was written too.
bool syncFolder(const std::string& path) {
  const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder && fsync(folder.get()) == 0;
}

std::string descriptionOf(const UploadQuery& query, std::size_t sent, std::size_t unpacked,
                          double received) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer writer(buffer);
  const auto text = [&](const char* key, const std::string& value) {
    writer.Key(key);
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  };
  writer.StartObject();
  text("uuid", query.uuid);
  text("sequence", query.sequence);
  text("filename", query.filename);
  text("description", query.description);
  writer.Key("sent");
  writer.Uint64(sent);
  writer.Key("unpacked");
  writer.Uint64(unpacked);
  writer.Key("received");
  writer.Double(received);
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

// Whole or not at all, whoever writes the same at the same time.
bool writeFile(const std::string& path, std::string_view temporary, std::string_view content) {
  const std::string aside(temporary);
  const Descriptor file(open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, ours));
  if (!file) return false;
  if (writeAll(file.get(), content) && fsync(file.get()) == 0 &&
      rename(aside.c_str(), path.c_str()) == 0)
    return true;
  const int error = errno;
  unlink(aside.c_str());
  errno = error;
  return false;
}

void removeLeftOver(const std::string& incoming) {
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(24);
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(incoming, error)) {
    const auto written = entry.last_write_time(error);
    if (!error && written < old) fs::remove(entry.path(), error);
  }
}

}  // namespace

UploadStore::UploadStore(std::string folder) : _folder(std::move(folder)) {
  const std::string incoming = _folder + "/incoming";
  fs::create_directories(incoming);
  if (access(incoming.c_str(), W_OK | X_OK) != 0)
    throw std::system_error(errno, std::generic_category(), incoming);
  removeLeftOver(incoming);
}

std::unique_ptr<UploadStore::File> UploadStore::begin() const {
  std::random_device random;
  std::string path =
      fmt::format("{}/incoming/{:08x}{:08x}{:08x}", _folder, random(), random(), random());
  Descriptor descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, ours));
  if (!descriptor) return nullptr;
  return std::unique_ptr<File>(new File(_folder, std::move(path), std::move(descriptor)));
}

std::optional<std::size_t> UploadStore::freeSpace() const {
  struct statvfs disk {};
  if (statvfs(_folder.c_str(), &disk) != 0) return std::nullopt;
  return std::size_t{disk.f_bavail} * disk.f_frsize;
}

UploadStore::File::File(std::string folder, std::string path, Descriptor descriptor)
    : _folder(std::move(folder)), _path(std::move(path)), _descriptor(std::move(descriptor)) {}

UploadStore::File::~File() {
  if (!_path.empty()) unlink(_path.c_str());
}

std::optional<Rule> UploadStore::File::write(std::string_view bytes) {
  if (const auto rule = check(bytes)) return rule;
  _sent += bytes.size();
  _digest.add(bytes);
  if (!writeAll(_descriptor.get(), bytes)) return diskRule();
  return std::nullopt;
}

std::optional<Rule> UploadStore::File::check(std::string_view bytes) {
  std::array<char, 65536> unpacked;
  for (;;) {
    if (_gunzip.state() == Gunzip::State::whole && !bytes.empty()) return Rule::damagedGzip;
    const std::size_t made = _gunzip.unpack(bytes, unpacked);
    if (_gunzip.state() == Gunzip::State::damaged) return Rule::damagedGzip;
    _unpacked += made;
    if (_unpacked > limits::fileBytes) return Rule::unpackedTooLarge;
    if (made < unpacked.size() && bytes.empty()) return std::nullopt;
  }
}

std::optional<Rule> UploadStore::File::store(const UploadQuery& query, double received) {
  if (_gunzip.state() != Gunzip::State::whole) return Rule::damagedGzip;
  if (_unpacked == 0) return Rule::emptyFile;
  // A zero byte ends each part: no name can hold one.
  for (const std::string* part : {&query.uuid, &query.sequence, &query.filename})
    _digest.add(std::string_view(part->c_str(), part->size() + 1));
  const std::string id = _digest.hexadecimal();
  const std::string folder = fmt::format("{}/{}", _folder, id.substr(0, 2));
  if (fsync(_descriptor.get()) != 0) return diskRule();
  std::error_code error;
  if (fs::create_directory(folder, error) && !syncFolder(_folder)) return diskRule();
  const std::string name = folder + "/" + id;
  // The description first: where a file has its name, its description is there.
  if (!writeFile(name + ".json", _path + ".json",
                 descriptionOf(query, _sent, _unpacked, received)) ||
      rename(_path.c_str(), (name + ".gz").c_str()) != 0)
    return diskRule();
  _path.clear();
  if (!syncFolder(folder)) return diskRule();
  return std::nullopt;
}

}  // namespace corvid::fleet
