#include "platform/MemoryBudget.h"

namespace zun {

bool MemoryBudget::take(size_t bytes, BudgetHolder holder) {
  if (bytes == 0) return true;  // no entry is made, since none would be given back
  const MutexLock lock(mutex_);
  if (bytes > total_ - parts_ && holder.isDaemon()) return false;
  if (holder.isDaemon()) {
    parts_ += bytes;
  } else if (bytes > total_ || !takeOfPart(bytes, holder)) {
    return false;
  }
  kept_ += bytes;
  return true;
}

bool MemoryBudget::takeOfPart(size_t bytes, BudgetHolder holder) {
  const auto [found, isNewUser] = users_.try_emplace(holder.user);
  User& user = found->second;
  const auto [member, isNewMember] = user.members.try_emplace(holder.member);
  const size_t wanted = user.kept + member->second + 2 * bytes;
  const bool isGranted = wanted <= user.part || wanted <= (total_ - (parts_ - user.part)) / 2;
  if (isGranted) {
    const size_t part = std::max(user.part, wanted);
    parts_ += part - user.part;
    user.part = part;
    user.kept += bytes;
    member->second += bytes;
    return true;
  }
  if (isNewMember) user.members.erase(member);
  if (isNewUser) users_.erase(found);
  return false;
}

void MemoryBudget::giveBack(size_t bytes, BudgetHolder holder) {
  if (bytes == 0) return;
  const MutexLock lock(mutex_);
  kept_ -= bytes;
  if (holder.isDaemon()) {
    parts_ -= bytes;
    return;
  }
  const auto found = users_.find(holder.user);
  User& user = found->second;
  const auto member = user.members.find(holder.member);
  member->second -= bytes;
  if (member->second == 0) user.members.erase(member);
  user.kept -= bytes;
  const size_t part = std::min(user.part, 2 * user.kept);
  parts_ -= user.part - part;
  user.part = part;
  if (user.kept == 0) users_.erase(found);
}

size_t MemoryBudget::left() const {
  const MutexLock lock(mutex_);
  return total_ - kept_;
}

}  // namespace zun
