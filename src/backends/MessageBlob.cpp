#include "backends/MessageBlob.h"

namespace zun {

Dictionary eventPayload(const std::optional<Dictionary>& message) {
  if (!message) return {};
  const Dictionary* const clientData = (*message)[kZunReportingMessageBlobClientData].dictionary();
  return clientData == nullptr ? *message : *clientData;
}

}  // namespace zun
