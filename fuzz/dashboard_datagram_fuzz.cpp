// What a client's payload does to a dashboard datagram, and what a dashboard server can
// send back.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "backends/DashboardDatagram.h"
#include "values/Check.h"
#include "values/PropertyList.h"
#include "values/UTF8.h"

namespace {

using zun::DashboardDatagram;

constexpr zun::PropertyListLimits kLimits{size_t{1} << 18, 64, 20'000};
constexpr size_t kAcknowledgementBytes = 62;

/// A header whose fields come out of the input.
zun::DashboardHeader headerOf(std::string_view input) {
  uint64_t mixed = 1;
  for (const char byte : input.substr(0, 64)) mixed = mixed * 31 + static_cast<uint8_t>(byte);
  return {.formatMajorVersion = static_cast<uint8_t>(mixed),
          .clientType = static_cast<uint8_t>(mixed % 26),
          .timestamp = {static_cast<int64_t>(mixed), static_cast<int32_t>(mixed % 1'000'000)},
          .sessionID = static_cast<uint32_t>(mixed >> 3),
          .clientVersion = static_cast<uint16_t>(mixed >> 5),
          .method = static_cast<uint16_t>(mixed >> 7),
          .respCode = static_cast<uint16_t>(mixed >> 11),
          .deviceIdentifier = input.substr(0, mixed % 64),
          .eventNumber = static_cast<uint16_t>(mixed >> 13),
          .isReliable = (mixed & 1) != 0,
          .isWithoutProfile = (mixed & 2) != 0};
}

void makeDatagram(const zun::DashboardHeader& header, const zun::Dictionary& payload) {
  const auto datagram = DashboardDatagram::make(header, payload);
  ZUN_CHECK(datagram);
  const auto bytes = datagram->bytes();
  ZUN_CHECK(bytes.size() >= DashboardDatagram::kHeaderBytes);
  ZUN_CHECK(bytes.size() < DashboardDatagram::kBufferBytes);
  const auto declared = static_cast<uint16_t>(
      ~(std::to_integer<unsigned>(bytes[14]) << 8 | std::to_integer<unsigned>(bytes[15])));
  ZUN_CHECK(declared == bytes.size());
  ZUN_CHECK(zun::acknowledgedEventNumber(bytes) == header.eventNumber);
  ZUN_CHECK(zun::acknowledgedEventNumber(bytes.first(kAcknowledgementBytes)) == header.eventNumber);
  const auto text = bytes.subspan(DashboardDatagram::kHeaderBytes);
  ZUN_CHECK(std::find(text.begin(), text.end(), std::byte{0}) == text.end());
  ZUN_CHECK(text.empty() == payload.empty());
  ZUN_CHECK(zun::isValidUTF8(datagram->writeLocalLog("TREVANIC")));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto acknowledged = zun::acknowledgedEventNumber(std::as_bytes(std::span(data, size)));
  ZUN_CHECK(acknowledged.has_value() == (size >= kAcknowledgementBytes));

  const zun::DashboardHeader header = headerOf(input);
  // As one value: what property lists do not let through, such as broken UTF-8, comes too.
  makeDatagram(header, {{zun::Value(input.substr(0, size / 4)), zun::Value(input.substr(size / 4))}});
  const auto parsed = zun::parsePropertyList(input, kLimits);
  if (const zun::Dictionary* const payload = parsed ? parsed->dictionary() : nullptr)
    makeDatagram(header, *payload);
  return 0;
}
