#include "backends/upload/UploadBackend.h"

#include <fmt/format.h>

#include <chrono>
#include <string_view>
#include <utility>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "base/URL.h"
#include "platform/Platform.h"
#include "protocol/Limits.h"

namespace corvid {

namespace {

// "b" of "/a/b" and of "/a/b/"; "/" of the root.
std::string_view lastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return path.size() > 1 ? path.substr(path.rfind('/') + 1) : path;
}

std::chrono::milliseconds timeoutFor(std::size_t bytes) {
  const auto seconds = static_cast<std::int64_t>(bytes / UploadBackend::leastBytesPerSecond);
  return std::chrono::minutes(1) + std::chrono::seconds(seconds);
}

}  // namespace

std::shared_ptr<UploadBackend> UploadBackend::initWithName(const std::string& name,
                                                           const Dictionary* profile,
                                                           const SharedIdentity& identity) {
  if (!profile || !stringAt(*profile, "post_url")) {
    logError("UploadBackend(initWithName): can't resolve upload post URL.");
    return nullptr;
  }
  return std::make_shared<UploadBackend>(name, *profile, identity);
}

UploadBackend::UploadBackend(const std::string& name, const Dictionary& profile,
                             const SharedIdentity& identity)
    : CorvidBackend(name, profile, identity, textAt(profile, "display_url")),
      _uploadURL(textAt(profile, "post_url")) {}

std::optional<std::string> UploadBackend::uploadURL() const {
  const MutexLock lock(_lock);
  return _uploadURL;
}

void UploadBackend::setUploadURL(std::optional<std::string> uploadURL) {
  const MutexLock lock(_lock);
  _uploadURL = std::move(uploadURL);
}

bool UploadBackend::uploadFileAtPath(const std::string& path, const std::string& extensionToken) {
  logDebug("UploadBackend(uploadFileAtPath): Uploading file {}", path);
  const std::optional<std::string> target = uploadURL();
  if (!target) return false;
  ExtensionTokens::Handle file = _platform.extensionTokens().consume(extensionToken);

  HTTPRequest request;
  if (!compressInto(request, file)) return false;
  request.url = requestURL(*target, path);
  if (!parseURL(request.url)) {
    logError("UploadBackend(uploadFileAtPath): Unable to create URL request");
    return false;
  }
  request.method = "POST";
  const std::size_t size = request.body.size() + (request.rest ? request.rest->size() : 0);
  request.timeout = timeoutFor(size);
  file.claim(size);
  request.headers = {{"Content-Type", "application/octet-stream"}, {"Content-Encoding", "gzip"}};

  const HTTPOutcome outcome = performAndWait(_platform.http(), std::move(request));
  if (!outcome.response) {
    logError("UploadBackend(uploadFileAtPath): post {}",
             outcome.error ? std::string_view(outcome.error->description) : nullDescription);
    return true;
  }
  const std::string reply = replacingInvalidUTF8(outcome.response->body);
  logDebug("UploadBackend(uploadFileAtPath): sending to |{}|, Json output: {}", *target, reply);
  if (reply.find("success") != std::string::npos) file.remove();
  return true;
}

bool UploadBackend::compressInto(HTTPRequest& request, ExtensionTokens::Handle& file) const {
  const FileAttributes attributes = file.attributes();
  if (!attributes.isRegularFile) {
    logError("UploadBackend(uploadFileAtPath): Only upload a regular file.");
    return false;
  }
  if (attributes.size > limits::uploadBytes) {
    logError(
        "UploadBackend(uploadFileAtPath): Input file has {} bytes, more than the {} of the limit",
        attributes.size, limits::uploadBytes);
    return false;
  }
  const auto size = static_cast<std::size_t>(attributes.size);
  if (!file.claim(Compressor::mostBytesFor(size))) {
    logError(
        "UploadBackend(uploadFileAtPath): {} bytes are too many beside what is being uploaded already",
        size);
    return false;
  }
  bool isEmpty = true;
  const auto read = [&](std::size_t offset, std::size_t bytes) {
    auto piece = file.read(offset, bytes);
    isEmpty = !piece || (offset == 0 && piece->empty());
    return piece;
  };
  std::shared_ptr<UnnamedFile> rest;
  const auto keep = [&](std::string_view bytes) { return append(request, rest, bytes); };
  const bool isWhole = _platform.compressor.gzipDeflate(size, read, keep);
  if (isEmpty) logError("UploadBackend(uploadFileAtPath): Input file is empty");
  return isWhole;
}

bool UploadBackend::append(HTTPRequest& request, std::shared_ptr<UnnamedFile>& rest,
                           std::string_view bytes) const {
  if (!rest && request.body.size() + bytes.size() <= mostBytesInMemory) {
    request.body += bytes;
    return true;
  }
  std::optional<Failure> failure;
  if (!rest) {
    auto created = _platform.files().createUnnamedFile(_platform.paths().home);
    if (created)
      request.rest = rest = std::move(created).value();
    else
      failure = created.failure();
  }
  if (!failure) failure = rest->append(bytes);
  if (failure)
    logError("UploadBackend(uploadFileAtPath): There is no room for the compressed file: {}",
             failure->message);
  return !failure;
}

std::string UploadBackend::requestURL(const std::string& uploadURL, const std::string& path) const {
  return fmt::format(
      "{}?uuid={}&sequence={}&description={}%20(Uploaded%20by%20Mantle)&filename={}&raw=true",
      uploadURL, orNull(identity().udid), identity().sessionID,
      percentEncodedForQuery("Parley AFRC log"),
      percentEncodedForQuery(std::string(lastPathComponent(path)) + ".gz"));
}

}  // namespace corvid
