// What the address of an upload says of its file.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvid::fleet {

// The values with their escapes resolved.
struct UploadQuery {
  std::string uuid;      // of the device
  std::string sequence;  // the client's session
  std::string filename;
  std::string description;

  // As docs/uploads.md has it; what else stands in the query is passed over. Nothing where uuid,
  // sequence or filename is missing or empty, where one of the four stands twice, or where the
  // query is longer than limits::queryBytes.
  static std::optional<UploadQuery> parse(std::string_view query);
};

}  // namespace corvid::fleet
