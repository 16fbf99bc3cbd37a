#include "platform/SystemLog.h"

#include "values/UTF8.h"

namespace zun {

void SystemLog::cut(std::string& line) {
  cutLongText(line, kMaximumLineBytes);
}

}  // namespace zun
