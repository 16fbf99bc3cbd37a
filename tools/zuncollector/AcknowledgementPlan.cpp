#include "AcknowledgementPlan.h"

namespace zun {

namespace {

constexpr size_t kEventNumberOffset = 60;

}  // namespace

std::string_view nameOf(AcknowledgementFate fate) {
  switch (fate) {
    case AcknowledgementFate::kNone: return "none";
    case AcknowledgementFate::kSend: return "sent";
    case AcknowledgementFate::kCorrupt: return "corrupted";
    case AcknowledgementFate::kDrop: return "dropped";
  }
  return "";
}

AcknowledgementFate AcknowledgementPlan::next() {
  if (options_.silent || isLost()) return AcknowledgementFate::kDrop;
  if (corrupted_ == options_.corruptFirst) return AcknowledgementFate::kSend;
  ++corrupted_;
  return AcknowledgementFate::kCorrupt;
}

bool AcknowledgementPlan::isLost() {
  ++asked_;
  // Drawn every time, so that the other options do not shift what is lost by chance. Not by
  // a distribution of the library, which draws as it likes.
  const double draw = static_cast<double>(random_() >> 11) / static_cast<double>(uint64_t{1} << 53);
  return asked_ <= options_.dropFirst || (options_.dropEvery != 0 && asked_ % options_.dropEvery == 0) ||
         draw < options_.loss;
}

std::string acknowledgementOf(std::string_view datagram, AcknowledgementFate fate,
                              const AcknowledgementOptions& options) {
  std::string bytes(options.bytes == 0 ? datagram : datagram.substr(0, options.bytes));
  if (fate == AcknowledgementFate::kCorrupt) {
    for (size_t i = kEventNumberOffset; i < kEventNumberOffset + 2 && i < bytes.size(); ++i) {
      bytes[i] = static_cast<char>(~bytes[i]);
    }
  }
  return bytes;
}

}  // namespace zun
