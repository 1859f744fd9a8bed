// A kept page of the flight recorder, through the walk over its events and the decoder.
#include "fuzz/event_formats.h"
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "kelvane/recording/trace_page.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kelvane::EventDecoder decoder = kelvane_fuzz::decoderOfAll();
  kelvane::TracePage page(std::span(data, size));
  size_t bytes = 0;
  while (const auto event = page.next()) {
    bytes += event->bytes.size() + sizeof(uint32_t);
    if (bytes > size) std::abort();  // no event twice
    decoder.decode(event->bytes, event->atNs, 0);
  }
  decoder.takeTexts();
  decoder.takeNames();
  return 0;
}
