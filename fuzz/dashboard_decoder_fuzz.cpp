// What anybody on the network can send to a dashboard.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "values/Check.h"
#include "values/JSONReader.h"
#include "values/JSONWriter.h"
#include "zuncollector/DashboardDatagram.h"

namespace {

std::string escaped(std::string_view value) {
  std::string text;
  for (const char character : value) {
    if (character == '\\' || character == '=') text += '\\';
    text += character;
  }
  return text;
}

/// Fields that are written again as a sender does read the same.
void readText(std::string_view text) {
  const auto fields = zun::dashboardFields(text);
  std::string again;
  for (const auto& [key, value] : fields) again += " " + key + "=" + escaped(value);
  ZUN_CHECK(zun::dashboardFields(again) == fields);
}

void readDatagram(std::string_view bytes) {
  const auto datagram = zun::DashboardDatagram::decode(bytes);
  if (!datagram) return;
  ZUN_CHECK(bytes.size() == zun::DashboardDatagram::kHeaderBytes + datagram->text.size());
  const std::string line = zun::writeJSON(datagram->record(), zun::JSONFormat::kCompact);
  ZUN_CHECK(line.find('\n') == std::string::npos);
  ZUN_CHECK(zun::parseJSON(line));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  readDatagram(bytes);
  // Nothing but a right length passes the header: any text is read as well.
  readText(bytes.substr(bytes.size() < 64 ? 0 : 64));
  return 0;
}
