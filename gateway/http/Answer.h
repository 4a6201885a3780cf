// Answers as they go out.
#pragma once

#include <string>
#include <string_view>

#include "gateway/body/Exchange.h"

namespace corvid::fleet {

struct Answer {
  int status = 200;
  std::string body{};
  std::string_view type = "text/plain; charset=utf-8";
  std::string_view allow{};  // the methods that are taken, with 405
};

// The line that says which rule was broken. `whenFull` is the status of failures that have none of
// their own.
Answer answerTo(const Refusal& refusal, int whenFull);
Answer answerTo(Verdict verdict, int whenFull);

// The bytes of the answer. `keepsAlive`: whether another request may follow.
std::string wireForm(const Answer& answer, bool keepsAlive);

}  // namespace corvid::fleet
