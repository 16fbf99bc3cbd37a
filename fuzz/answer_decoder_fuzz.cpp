// Bodies of answers: what a server says of their coding, and what it sends as gzip. Whole and
// split input mean the same, nothing is given out beyond what was asked for, and what is
// whole is what another decompressor makes of it.

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "linux/http/AnswerDecoder.h"

namespace {

constexpr size_t kMostBytes = size_t{1} << 18;

struct Outcome {
  std::string bytes;
  bool isWhole = false;
};

/// `body` in pieces of `pieceBytes`, until the sink has had enough.
Outcome decode(const zun::URLResponse& response, std::string_view body, size_t pieceBytes) {
  zun::AnswerDecoder decoder(response, true);
  Outcome outcome;
  bool isFull = false;
  const auto sink = [&](std::string_view piece) {
    check(!isFull, "a sink that has stopped is asked again");
    const size_t room = kMostBytes - outcome.bytes.size();
    isFull = piece.size() > room;
    outcome.bytes += piece.substr(0, room);
    return !isFull;
  };
  bool isGood = true;
  while (isGood && !body.empty()) {
    isGood = decoder.take(body.substr(0, pieceBytes), sink);
    body.remove_prefix(std::min(pieceBytes, body.size()));
  }
  check(isGood || isFull || !decoder.problem().empty(), "what is refused has a reason");
  outcome.isWhole = isGood && decoder.isWhole();
  return outcome;
}

/// What zlib itself makes of one whole gzip stream; false where it is none.
bool inflateAll(std::string_view body, std::string& bytes) {
  z_stream stream{};
  check(inflateInit2(&stream, 16 + MAX_WBITS) == Z_OK, "zlib");
  bytes.resize(kMostBytes + 1);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
  stream.avail_in = static_cast<uInt>(body.size());
  stream.next_out = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_out = static_cast<uInt>(bytes.size());
  const int result = ::inflate(&stream, Z_FINISH);
  const bool isWhole = result == Z_STREAM_END && stream.avail_in == 0;
  bytes.resize(stream.total_out);
  inflateEnd(&stream);
  return isWhole;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 20'000) return 0;
  FuzzInput input(data, size);
  const size_t pieceBytes = size_t{input.byte()} + 1;
  zun::URLResponse response;
  if (input.byte() % 2 == 0) {
    response.headers.emplace_back("Content-Encoding", "gzip");
  } else {
    for (int count = input.below(3); count > 0; --count)
      response.headers.emplace_back("content-encoding", std::string(input.text()));
  }
  const std::string_view body = input.rest();
  const Outcome whole = decode(response, body, body.size() + 1);
  const Outcome split = decode(response, body, pieceBytes);
  check(whole.isWhole == split.isWhole, "split and whole are equally good");
  check(!whole.isWhole || whole.bytes == split.bytes, "split and whole mean the same");
  std::string theirs;
  if (response.headers.size() == 1 && response.headers[0].second == "gzip" && whole.isWhole)
    check(inflateAll(body, theirs) ? theirs == whole.bytes : body.empty(),
          "zlib decompresses to something else");
  return 0;
}
