#include "platform/SystemLog.h"

#include "values/UTF8.h"

namespace zun {

void SystemLog::writeCut(LogLevel level, std::string line) {
  cutLongText(line, kMaximumLineBytes);
  write(level, line);
  if (!hasToldOfCut_.exchange(true)) {
    error("log: lines of more than {} bytes are cut, and end with their length", kMaximumLineBytes);
  }
}

}  // namespace zun
