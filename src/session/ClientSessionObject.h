#pragma once

#include <memory>

#include "platform/ServiceConnection.h"
#include "session/ReportingdSession.h"

namespace zun {

/// The object that turns a connection's calls into the session's operations.
[[nodiscard]] std::shared_ptr<ExportedObject> makeClientSessionObject(
    std::shared_ptr<ReportingdSession> session);

}  // namespace zun
