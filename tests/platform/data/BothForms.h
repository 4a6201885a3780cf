// A property list as both writers write it.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "platform/data/PropertyList.h"

namespace corvid {

// The value in XML and in the binary form.
inline std::array<std::string, 2> bothForms(const Value& value) {
  std::array forms{writeXMLPropertyList(value), writeBinaryPropertyList(value)};
  EXPECT_TRUE(forms[0].starts_with("<?xml ")) << forms[0];
  EXPECT_TRUE(forms[1].starts_with("bplist00")) << forms[1];
  return forms;
}

}  // namespace corvid
