#include "supervision/stream_event.h"

namespace tarnlink {
namespace {

using namespace happening;

// In the variant's order.
constexpr std::array<std::string_view, std::variant_size_v<Happening>> kNames{
    "appeared",
    "changed",
    "expired",
    "recovered",
    "lost",
    "stateSkipped",
    "duplicate",
    "outOfOrder",
    "restarted",
    "confRevChanged",
    "datasetChanged",
    "changedWithoutStNum",
    "sourceChanged",
    "entriesWrong",
    "timeAllowedToLiveZero",
    "needsCommission",
    "smpSynchChanged",
    "suppressed",
};

}  // namespace

std::string_view happeningName(std::size_t index) {
  return kNames.at(index);
}

void FaultCounts::add(const Happening& what) {
  if (std::holds_alternative<Appeared>(what) || std::holds_alternative<Changed>(what) ||
      std::holds_alternative<Recovered>(what) || std::holds_alternative<Suppressed>(what)) {
    return;
  }
  std::uint64_t count = 1;
  bool uncertain = false;
  if (const auto* lost = std::get_if<Lost>(&what)) {
    count = lost->count;
    uncertain = lost->uncertain;
  } else if (const auto* skipped = std::get_if<StateSkipped>(&what)) {
    uncertain = skipped->uncertain;
  }
  (uncertain ? uncertain_ : counts_[what.index()]) += count;
}

}  // namespace tarnlink
