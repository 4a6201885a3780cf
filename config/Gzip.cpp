#include "config/Gzip.h"

#include "base/Log.h"
#include "config/DeflaterPool.h"
#include "platform/data/Deflater.h"

namespace corvid {

namespace {

// The compressor's result codes.
constexpr int progress = 0;
constexpr int streamEnd = 1;

constexpr std::string_view unknownError = "Unknown error code.";
constexpr std::string_view versionError =
    "The version of zlib.h and the version of the library linked do not match.";

std::string_view initialisationErrorText(int code) {
  switch (code) {
    case -6: return versionError;
    case -4: return "Insufficient memory.";
    case -2: return "Invalid parameter passed in to function.";
    default: return unknownError;
  }
}

std::string_view compressionErrorText(int code) {
  switch (code) {
    case -6: return versionError;
    case -5: return "Ran out of output buffer for writing compressed bytes.";
    case -4: return "Memory could not be allocated for processing.";
    case -3: return "The deflate data was invalid or incomplete.";
    case -2: return "The stream state was inconsistent (e.g., next_in or next_out was NULL).";
    case -1: return "Error occured while reading file.";
    default: return unknownError;
  }
}

}  // namespace

std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view data) {
  static DeflaterPool pool;
  const auto lease = pool.take();
  return compressDataWithZlibOrGzip(gzip, data, *lease);
}

std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view data,
                                                      Deflater& deflater) {
  if (data.empty()) {
    logError("compressDataWithZlibOrGzip: Cannot compress empty DataBuffer");
    return std::nullopt;
  }
  const int begun = deflater.begin(gzip ? DeflateFormat::gzip : DeflateFormat::zlib);
  if (begun != progress) {
    logError("compressDataWithZlibOrGzip: deflateInit2() Error: \"{}\" Message: \"{}\"",
             initialisationErrorText(begun), deflater.message());
    return std::nullopt;
  }

  std::string output(deflater.bound(data.size()), '\0');
  std::size_t produced = 0;
  int result = progress;
  while (result == progress)
    result = deflater.finish(data, output.data() + produced, output.size() - produced, produced);
  if (result != streamEnd) {
    logError(
        "compressDataWithZlibOrGzip: zlib error while attempting compression: \"{}\" Message: \"{}\"",
        compressionErrorText(result), deflater.message());
    deflater.end();
    return std::nullopt;
  }
  deflater.end();
  output.resize(produced);
  logDebug("compressDataWithZlibOrGzip: Compressed file from {} to {}", data.size(), produced);
  return output;
}

std::optional<std::string> gzipDeflate(std::string_view data) {
  return compressDataWithZlibOrGzip(true, data);
}

}  // namespace corvid
