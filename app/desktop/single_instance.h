// One desktop program a session: a second start shows the first.
#pragma once

#include <functional>

namespace tarnlink {

/// The thread that draws, once the application is made. True when this is the session's first, on
/// which `activated` is called from the event loop at each further start; false when there is one,
/// which has been called. Without a session bus every start is the first.
bool becomeOnlyInstance(std::function<void()> activated);

}  // namespace tarnlink
