#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

namespace zun {

/// How a dashboard acknowledges, and what goes wrong with it on purpose.
struct AcknowledgementOptions {
  bool silent = false;        // none at all
  uint32_t dropFirst = 0;     // the first so many are lost
  uint32_t dropEvery = 0;     // every so manyth is lost; 0: none
  double loss = 0;            // share that is lost, 0 to 1
  uint32_t seed = 1;          // of what `loss` draws
  uint32_t corruptFirst = 0;  // the first so many that are not lost are spoilt
  bool duplicate = false;     // each is sent twice
  std::chrono::milliseconds delay{0};
  uint32_t bytes = 0;  // how much of the datagram is returned; 0: all of it
};

/// What becomes of one acknowledgement; none is asked for by senders in plain mode.
enum class AcknowledgementFate { kNone, kSend, kCorrupt, kDrop };

/// "none", "sent", "corrupted" or "dropped".
[[nodiscard]] std::string_view nameOf(AcknowledgementFate fate);

/// Decides on one acknowledgement after the other. Equal options give equal decisions.
/// One thread.
class AcknowledgementPlan final {
 public:
  explicit AcknowledgementPlan(const AcknowledgementOptions& options)
      : options_(options), random_(options.seed) {}

  AcknowledgementFate next();

 private:
  bool isLost();

  const AcknowledgementOptions options_;
  std::mt19937_64 random_;
  uint64_t asked_ = 0;
  uint64_t corrupted_ = 0;
};

/// The acknowledgement of `datagram`: the datagram itself or its beginning. A corrupt one
/// names another event: the bits of the event number are inverted.
[[nodiscard]] std::string acknowledgementOf(std::string_view datagram, AcknowledgementFate fate,
                                            const AcknowledgementOptions& options);

}  // namespace zun
