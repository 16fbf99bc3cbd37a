#pragma once

namespace zun {

/// Makes the calling thread, and those that it starts from now on, give way to what
/// people are waiting for: nice 5 and batch scheduling, unless it does so even more.
/// Refusal is no failure.
void setThreadQualityOfServiceUtility();

}  // namespace zun
