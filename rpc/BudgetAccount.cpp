#include "rpc/BudgetAccount.h"

#include <utility>

namespace corvid {

std::shared_ptr<void> BudgetAccount::admitMessage(std::size_t bytes) {
  std::optional<SharedBudget::Share> share = _budgets.incoming->take(_user, costOfAByte * bytes);
  if (!share) return nullptr;
  _message = std::make_shared<SharedBudget::Share>(*std::move(share));
  return _message;
}

bool BudgetAccount::keepInfos(std::size_t bytes) {
  return bytes <= _infos.amount() || _infos.grow(bytes - _infos.amount());
}

}  // namespace corvid
