#include "platform/SystemLog.h"

namespace zun {

void SystemLog::cut(std::string& line) {
  const auto isContinuation = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; };
  const size_t length = line.size();
  size_t end = kMaximumLineBytes;
  while (end > kMaximumLineBytes - 3 && isContinuation(line[end])) --end;
  line.resize(end);
  fmt::format_to(std::back_inserter(line), "... ({} bytes)", length);
}

}  // namespace zun
