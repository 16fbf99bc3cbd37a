#pragma once

#include "zunreporting/Keys.h"
#include "zunreporting/PropertyValue.h"
#include "zunreporting/ReportingSession.h"

namespace zunreporting {

/// The client library.
class ZunReporting final {
 public:
  /// Version of the library, "major.minor.patch".
  static const char* version();
};

}  // namespace zunreporting
