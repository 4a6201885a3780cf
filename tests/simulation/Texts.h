// Fixed forms of answers, in which expected and seen ones are compared.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "base/Describe.h"
#include "base/Value.h"

namespace corvid::simulation {

// The names of the backends that report, whatever their order.
inline std::string textOfStates(std::vector<std::string> names) {
  std::ranges::sort(names);
  std::string text = "states";
  for (const std::string& name : names) text += " " + name;
  return text;
}

// What a message is answered with: the posts that the text tells of, by what their events carry as
// number, category and type.
inline std::string textOf(const std::vector<Dictionary>& bodies) {
  std::string text = "text of";
  for (const Dictionary& body : bodies) {
    text += " [";
    for (const Value& event : *body.find("events")->array())
      for (const char* const key : {"_eventNumber", "_method", "_status"})
        if (const Value* const value = event.dictionary()->find(key))
          text += description(*value) + " ";
    text += "]";
  }
  return text;
}

}  // namespace corvid::simulation
