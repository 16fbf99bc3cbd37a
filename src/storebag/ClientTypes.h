#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "values/Value.h"

namespace zun {

/// One more than the largest client type.
inline constexpr int32_t kClientTypeCount = 26;

/// The client type of a session; 0 where it says none. One that 32 bits do not hold becomes
/// the nearest limit, so that it is no other type.
[[nodiscard]] int32_t clientTypeOfSessionInfo(const Dictionary& sessionInfo);

/// The name under which a client type's storebag is fetched and cached; none for types
/// that never get one (0 to 4, and everything outside the table).
[[nodiscard]] std::optional<std::string_view> storebagNameForClientType(int32_t clientType);

/// Short codes that name client types in outgoing records, indexed by client type.
/// Not checked: nothing outside the table may get as far as a record.
[[nodiscard]] const std::array<const char*, kClientTypeCount>& senderCodes();

}  // namespace zun
