// Writes the answers of calls.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/Complaint.h"
#include "protocol/ClientSessionInterface.h"
#include "protocol/Limits.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/ValueCodec.h"
#include "rpc/BudgetAccount.h"

namespace corvid {

// Writes what one call answers into its results, texts as far as there is room for them.
class AnswerWriter {
 public:
  // Both are borrowed. `client` names the client in log lines.
  AnswerWriter(BudgetAccount& account, const std::string& client)
      : _account(account), _client(client) {}

  // `setText` sets it, where there is one that finds room.
  template <class SetText>
  void writeText(const std::optional<std::string>& text, SetText setText) {
    if (!text) return;
    if (text->size() > _room) {
      logComplaint("SessionServer: A text of {} bytes for {} is too large and is left out",
                   text->size(), _client);
      return;
    }
    if (!_account.addAnswer(text->size())) {
      logComplaint(
          "SessionServer: A text of {} bytes for {} finds no room beside the answers that its user has not taken and is left out",
          text->size(), _client);
      return;
    }
    _room -= text->size();
    setText(wire::textReader(*text));
  }
  void writeText(wire::TextResult::Builder result, const std::optional<std::string>& text) {
    result.setNone();
    writeText(text, [&](auto content) { result.setText(content); });
  }
  void writeMessage(wire::TextResult::Builder result, const MessageAnswer& answer,
                    bool reasonWanted) {
    result.setIsReasoned(reasonWanted);
    if (!reasonWanted || !answer.dropped) return writeText(result, answer);
    auto dropped = result.initDropped();
    const std::string_view word = wordOf(*answer.dropped);
    dropped.setReason({word.data(), word.size()});
    writeText(answer, [&](auto content) { dropped.setText(content); });
  }

  template <class Results>
  void write(Results results, const std::optional<std::string>& text) {
    if constexpr (requires { results.initUrl(); })
      writeText(results.initUrl(), text);
    else
      writeText(results.initResult(), text);
  }
  template <class Results>
  void write(Results results, bool success) {
    results.setAnswered(true);
    results.setSuccess(success);
  }
  // The builder keeps the error absent where there is none.
  template <class Results>
  void write(Results results, const std::optional<CorvidError>& error) {
    if (!error) return;
    wire::Error::Builder target = results.initError();
    target.setDomain(wire::textReader(error->domain));
    target.setCode(error->code);
    target.setDescription(wire::textReader(error->localizedDescription));
  }

 private:
  BudgetAccount& _account;
  const std::string& _client;
  std::size_t _room = limits::answerTextBytes;
};

}  // namespace corvid
