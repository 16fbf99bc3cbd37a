#pragma once

#include "values/Value.h"

namespace zun {

/// Fifteen entries such as a call's events have.
inline Dictionary benchPayload() {
  return {{"callID", "6F1E0E4C-3B57-4E0A-9C6C-4B2D4C9C3F11"},
          {"peer", "someone@example.org"},
          {"reason", "remote hangup"},
          {"durationSeconds", 182.25},
          {"packetsSent", 91125},
          {"packetsReceived", 90877},
          {"packetsLost", 248},
          {"jitterMilliseconds", 7.5},
          {"roundTripMilliseconds", 48.25},
          {"codec", "AAC-ELD"},
          {"isVideo", true},
          {"networkType", "wifi"},
          {"bitrate", 512000},
          {"frameRate", 29.97},
          {"relayed", false}};
}

}  // namespace zun
