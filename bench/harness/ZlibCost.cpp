#include "harness/ZlibCost.h"

#include <zlib.h>

#include <algorithm>
#include <ctime>

#include "values/Check.h"
#include "values/GzipReader.h"

namespace zun::bench {

namespace {

double threadMicroseconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

std::string decompressed(const std::string& body) {
  GzipReader reader;
  std::string text;
  ZUN_CHECK(reader.feed(body, [&text](std::string_view piece) {
    text += piece;
    return true;
  }));
  return text;
}

size_t compress(std::string& text) {
  constexpr int kMemoryLevel = 8;
  z_stream stream{};
  ZUN_CHECK(deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, MAX_WBITS + 16, kMemoryLevel,
                         Z_DEFAULT_STRATEGY) == Z_OK);
  std::string output(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(text.data());
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(output.data());
  stream.avail_out = static_cast<uInt>(output.size());
  ZUN_CHECK(deflate(&stream, Z_FINISH) == Z_STREAM_END);
  const size_t bytes = stream.total_out;
  deflateEnd(&stream);
  return bytes;
}

size_t eventsIn(const std::string& text) {
  size_t events = 0;
  for (size_t place = text.find("\"_eventNumber\""); place != std::string::npos;
       place = text.find("\"_eventNumber\"", place + 1))
    ++events;
  return events;
}

}  // namespace

ZlibCost zlibCostOf(const std::vector<std::string>& bodies) {
  ZlibCost cost;
  double events = 0;
  for (const std::string& body : bodies) {
    std::string text = decompressed(body);
    events += static_cast<double>(eventsIn(text));
    cost.bytesAnEvent += static_cast<double>(text.size());
    const double before = threadMicroseconds();
    cost.compressedBytesAnEvent += static_cast<double>(compress(text));
    cost.microsecondsAnEvent += threadMicroseconds() - before;
  }
  for (double* const sum : {&cost.microsecondsAnEvent, &cost.bytesAnEvent, &cost.compressedBytesAnEvent})
    *sum /= std::max(events, 1.0);
  return cost;
}

}  // namespace zun::bench
