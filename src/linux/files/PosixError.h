#pragma once

#include <system_error>

#include "values/Error.h"

namespace zun {

/// The error that an errno stands for, in kPOSIXErrorDomain.
[[nodiscard]] inline Error posixError(int number) {
  return {kPOSIXErrorDomain, number, std::generic_category().message(number)};
}

}  // namespace zun
