#include "util/Identifiers.h"

#include <algorithm>
#include <cmath>

#include "values/UTF8.h"
#include "zunreporting/Keys.h"

namespace zun {

namespace {

bool isSameLetter(char left, char right) {
  return lowerCasedASCII(left) == lowerCasedASCII(right);
}

}  // namespace

std::string connectivityUserInfoKey(const Dictionary& userInfo) {
  std::string key(userInfo[zunreporting::kZunReportingUserInfoClientName].stringValue());
  key += ':';
  key += userInfo[zunreporting::kZunReportingUserInfoServiceName].stringValue();
  return lowerCased(key);
}

Error reportingError(std::string message, int32_t code) {
  return {std::string(zunreporting::kZunReportingErrorDomain), code, std::move(message)};
}

double secondsFromTimeValue(const TimeValue& time) {
  return static_cast<double>(time.seconds) + static_cast<double>(time.microseconds) / 1'000'000.0;
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

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  if (part.empty()) return false;
  if (!isASCII(part)) return lowerCased(text).find(lowerCased(part)) != std::string::npos;
  return std::search(text.begin(), text.end(), part.begin(), part.end(), isSameLetter) != text.end();
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
  if (std::equal(left.begin(), left.end(), right.begin(), right.end(), isSameLetter)) return true;
  return !isASCII(left) && !isASCII(right) && lowerCased(left) == lowerCased(right);
}

}  // namespace zun
