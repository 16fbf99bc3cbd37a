#pragma once

namespace zun {

/// Lets the process open as many descriptors as its hard limit allows: each client
/// connection takes two. Refusal is no failure.
void raiseDescriptorLimit();

/// Descriptors from here on are the daemon's own: what clients can make it open, be it as
/// many as they like, gets lower ones or none, and some are left for connections, transfers
/// and files. The lowest free number is always taken, so a high one says that nearly all
/// are. Any thread.
[[nodiscard]] int firstReservedDescriptor();

}  // namespace zun
