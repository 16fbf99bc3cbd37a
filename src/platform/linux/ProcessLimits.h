#pragma once

namespace zun {

/// Lets the process open as many descriptors as its hard limit allows: each client
/// connection takes two. Refusal is no failure.
void raiseDescriptorLimit();

}  // namespace zun
