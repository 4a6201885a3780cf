// What one connection holds of what all clients share.
//
// Threads: the connection's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/SharedBudget.h"

namespace corvid {

class BudgetAccount {
 public:
  // A large message costs as much several times over, at most, until all that it set going has run:
  // its bytes, the values they are decoded into, and what is made of those on the way to a backend.
  static constexpr std::size_t costOfAByte = 4;

  BudgetAccount(const Budgets& budgets, std::uint32_t user)
      : _budgets(budgets),
        _user(user),
        _answers(budgets.answers->none(user)),
        _infos(budgets.kept->none(user)) {}

  // Memory for a message, which the message then holds; null where there is none now.
  std::shared_ptr<void> admitMessage(std::size_t bytes);
  // All that the last message set going has run.
  void messageIsDone() { _message = nullptr; }

  // Whether an answer of so many bytes more may wait for the client.
  bool addAnswer(std::size_t bytes) { return _answers.grow(bytes); }
  // No answer waits.
  void answersAreTaken() { _answers.shrink(0); }

  // Whether the session may keep infos of so many bytes. Counts the most that it ever had.
  bool keepInfos(std::size_t bytes);

  // For one open file that the client passed.
  std::optional<SharedBudget::Share> takeFile() { return _budgets.files->take(_user, 1); }

 private:
  const Budgets& _budgets;
  const std::uint32_t _user;
  std::shared_ptr<void> _message;
  SharedBudget::Share _answers;
  SharedBudget::Share _infos;
};

}  // namespace corvid
