// What a call asks of the daemon.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/Value.h"
#include "client/include/corvid/corvid.h"

namespace corvid::library {

class UploadedFile;

struct Request {
  corvid_operation_t operation;
  // What belongs to other operations is absent.
  std::optional<Dictionary> sessionInfo{};
  std::optional<Dictionary> userInfo{};
  std::optional<Dictionary> content{};  // a message, or a payload
  Array array{};                        // frameworks, or log data
  bool hasAggregationBlock = false;
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::string fileURL{};
  std::shared_ptr<UploadedFile> file{};  // null where there is none that may be read

  // Events travel together, other calls alone.
  bool isEvent() const {
    return operation == CORVID_OPERATION_SEND_MESSAGE ||
           operation == CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY;
  }
};

}  // namespace corvid::library
