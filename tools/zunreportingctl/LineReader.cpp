#include "LineReader.h"

namespace zun {

bool LineReader::next() {
  while (readLine()) {
    ++number_;
    if (line_.find_first_not_of(" \t\r") != std::string::npos) return true;
  }
  return false;
}

bool LineReader::readLine() {
  line_.clear();
  for (int character = input_.get(); character != std::istream::traits_type::eof();
       character = input_.get()) {
    if (character == '\n') return true;
    if (line_.size() <= kLongestLine) line_ += static_cast<char>(character);
  }
  return !line_.empty();
}

}  // namespace zun
