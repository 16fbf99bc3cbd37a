#include "linux/service/ServiceManager.h"

#include <systemd/sd-daemon.h>

namespace zun {

void notifyServiceReady() {
  (void)sd_notify(0, "READY=1");
}

void notifyServiceStopping() {
  (void)sd_notify(0, "STOPPING=1");
}

}  // namespace zun
