#include "app/host/prompt_refusals.h"

#include <algorithm>
#include <utility>

namespace tarnlink {
namespace {

bool isByPerson(const AdminError& failure) {
  return failure.code == kAdminCancelled || failure.code == kAdminUnanswered;
}

}  // namespace

std::optional<AdminError> PromptRefusals::standing(const std::string& link, Instant now) {
  std::erase_if(recent_, [now](const Refusal& refusal) { return now - refusal.time >= kHolds; });
  auto standing = std::find_if(recent_.begin(), recent_.end(),
                               [&](const Refusal& refusal) { return refusal.link == link; });
  if (standing == recent_.end()) {
    const auto isCounted = [](const Refusal& refusal) { return isByPerson(refusal.failure); };
    if (std::count_if(recent_.begin(), recent_.end(), isCounted) < kMost) return {};
    standing = std::find_if(recent_.begin(), recent_.end(), isCounted);
  }
  AdminError failure = standing->failure;
  if (!isByPerson(failure)) return failure;
  const auto left = std::chrono::ceil<std::chrono::seconds>(standing->time + kHolds - now);
  failure.text += "; die nächste Abfrage ist in " + std::to_string(left.count()) + " s möglich";
  return failure;
}

void PromptRefusals::note(const std::string& link, const AdminError& failure, Instant now) {
  const bool isRefusal = isByPerson(failure) || failure.code == kAdminUnavailable;
  if (isRefusal) recent_.push_back({link, failure, now});
}

}  // namespace tarnlink
