#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "zunreporting/PropertyValue.h"

namespace zunreporting {

/// A message that the daemon sends back to a client that aggregates: one that this
/// session, or a session below it in its hierarchy, has reported.
struct AggregatedMessage {
  /// Of the session that reported it. None: the aggregation has ended.
  std::optional<PropertyDictionary> sessionInfo;
  double timestamp = 0;  // seconds since 1970
  uint16_t category = 0;
  uint16_t type = 0;
  /// The message's payload with the reporting session's user information over it; none
  /// when the message had none.
  std::optional<PropertyDictionary> payload;

  /// The last message: a session above this one aggregates in its place, until the
  /// session's information is set again.
  [[nodiscard]] bool isEndOfAggregation() const { return !sessionInfo.has_value(); }
};

using AggregationHandler = std::function<void(const AggregatedMessage&)>;

}  // namespace zunreporting
