// Fuzz target for Image::fromBytes: untrusted bytes through the allowed decoders,
// the completeness checks and the size cap.
#include <cstddef>
#include <cstdint>
#include <span>

#include "nk/system/image.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  nk::Ref<nk::Image> image = nk::Image::fromBytes(std::span<const uint8_t>(data, size));
  if (image) {
    // Touch the last pixel: the copied buffer must hold every row.
    const uint8_t* last = image->pixelAt(image->width() - 1, image->height() - 1);
    volatile uint8_t sink = last[image->channels() - 1];
    (void)sink;
  }
  return 0;
}
