#pragma once

namespace zun {

/// Tells the service manager, where there is one, that the service is up.
void notifyServiceReady();
/// ... that it is on its way out.
void notifyServiceStopping();

}  // namespace zun
