// Keeps the user interface alive while an administrator is asked.
#pragma once

#include "app/host/capture_access.h"

namespace tarnlink {

/// The thread that draws. install() returns when the inner one has, but runs it on a thread of its
/// own while events go on; when the program quits meanwhile, it is cancelled. The inner one's
/// isGranted() must be free for use during its install().
class BackgroundAccess final : public CaptureAccess {
 public:
  explicit BackgroundAccess(CaptureAccess& inner) : inner_(inner) {}

  bool isGranted() override { return inner_.isGranted(); }
  AdminResult install() override;
  void cancel() override { inner_.cancel(); }
  std::optional<CapabilityGrant> grant() const override { return inner_.grant(); }

 private:
  CaptureAccess& inner_;
};

}  // namespace tarnlink
