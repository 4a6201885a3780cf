#include "tools/lab/ReceivedLog.h"

#include <stdexcept>

#include "platform/data/JSON.h"

namespace corvid::lab {

ReceivedLog::ReceivedLog(const std::string& path) : _file(path, std::ios::binary | std::ios::app) {
  if (!_file) throw std::runtime_error("cannot write " + path);
}

void ReceivedLog::append(const Dictionary& entry) {
  const std::string line =
      writeJSON(entry).value_or("{\"error\":\"received something that JSON cannot hold\"}");
  const MutexLock lock(_mutex);
  _file << line << '\n' << std::flush;
}

}  // namespace corvid::lab
