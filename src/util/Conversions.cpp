#include "util/Conversions.h"

#include <cmath>

#include "values/UTF8.h"
#include "zunreporting/Keys.h"

namespace zun {

std::string connectivityUserInfoKey(const Dictionary& userInfo) {
  std::string key(userInfo[zunreporting::kZunReportingUserInfoClientName].stringValue());
  key += ':';
  key += userInfo[zunreporting::kZunReportingUserInfoServiceName].stringValue();
  return lowerCased(key);
}

Error reportingError(std::string message, int32_t code) {
  return {std::string(zunreporting::kZunReportingErrorDomain), code, std::move(message)};
}

double finiteOrMinusOne(double value) {
  return std::isfinite(value) ? value : -1.0;
}

int64_t wholeMinutes(int64_t seconds) {
  return seconds / 60 * 60;
}

IPv4SocketAddress dashboardSocketAddress(std::string_view dottedAddress, uint16_t port) {
  constexpr size_t kAddressCharacters = 16;
  return {parseDottedQuad(std::string(dottedAddress.substr(0, kAddressCharacters))),
          {static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port)}};
}

}  // namespace zun
