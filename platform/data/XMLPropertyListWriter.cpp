#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <optional>
#include <string>

#include "base/Text.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

void appendCharacter(std::string& out, char c) {
  switch (c) {
    case '<': out += "&lt;"; break;
    case '>': out += "&gt;"; break;
    case '&': out += "&amp;"; break;
    case '\r': out += "&#13;"; break;  // bare, it would be read as a line end
    default:
      // XML has no way at all to write the other control characters.
      if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n')
        appendUTF8(out, 0xFFFD);
      else
        out.push_back(c);
  }
}

// Cut to the whole second. Nothing outside the years 0 to 9999.
std::optional<std::string> xmlFromDate(Date date) {
  using namespace std::chrono;
  constexpr double first = -62167219200.0;  // 0000-01-01 00:00:00
  constexpr double past = 253402300800.0;   // 10000-01-01 00:00:00
  if (!(date.secondsSince1970 >= first && date.secondsSince1970 < past)) return std::nullopt;
  const sys_seconds moment{seconds(static_cast<std::int64_t>(std::floor(date.secondsSince1970)))};
  const sys_days midnight = floor<days>(moment);
  const year_month_day day(midnight);
  const hh_mm_ss time(moment - midnight);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(day.year()),
                     static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                     time.hours().count(), time.minutes().count(), time.seconds().count());
}

// Null and dates outside the years that the form has are left out.
bool isWritable(const Value& value) {
  const auto date = value.date();
  return date ? xmlFromDate(*date).has_value() : !value.isNull();
}

class XMLWriter {
 public:
  std::string write(const Value& root) {
    _out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    writeValue(root, 0);
    _out += "</plist>\n";
    return std::move(_out);
  }

 private:
  void writeValue(const Value& value, std::size_t level) {
    if (!isWritable(value)) return;
    switch (value.type()) {
      case Value::Type::null: break;
      case Value::Type::boolean: writeLine(level, *value.boolean() ? "<true/>" : "<false/>"); break;
      case Value::Type::integer:
        writeElement(level, "integer", fmt::to_string(*value.integer()));
        break;
      case Value::Type::real: writeElement(level, "real", fmt::to_string(*value.real())); break;
      case Value::Type::date: writeElement(level, "date", *xmlFromDate(*value.date())); break;
      case Value::Type::string: writeElement(level, "string", *value.string()); break;
      case Value::Type::data: writeElement(level, "data", base64Encode(*value.data())); break;
      case Value::Type::array: writeArray(level, *value.array()); break;
      case Value::Type::dictionary: writeDictionary(level, *value.dictionary()); break;
    }
  }

  void writeArray(std::size_t level, const Array& array) {
    writeLine(level, "<array>");
    for (const Value& value : array) writeValue(value, level + 1);
    writeLine(level, "</array>");
  }

  void writeDictionary(std::size_t level, const Dictionary& dictionary) {
    writeLine(level, "<dict>");
    for (const auto& [key, value] : dictionary) {
      if (!isWritable(value)) continue;
      writeElement(level + 1, "key", key);
      writeValue(value, level + 1);
    }
    writeLine(level, "</dict>");
  }

  void indent(std::size_t level) { _out.append(level, '\t'); }

  void writeLine(std::size_t level, std::string_view tag) {
    indent(level);
    _out += tag;
    _out += '\n';
  }

  void writeElement(std::size_t level, std::string_view name, std::string_view content) {
    indent(level);
    _out += fmt::format("<{}>", name);
    for (const char c : replacingInvalidUTF8(content)) appendCharacter(_out, c);
    _out += fmt::format("</{}>\n", name);
  }

  std::string _out;
};

}  // namespace

std::string writeXMLPropertyList(const Value& value) { return XMLWriter().write(value); }

}  // namespace corvid
