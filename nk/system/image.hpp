// Image: a raster decoded from untrusted bytes (PNG, JPEG other than arithmetic-coded,
// GIF, BMP, and WebP where its decoder is installed), its pixels copied out of the
// decoder.
//
// Only those formats are decoded, recognised by their own leading bytes; no other
// decoder (vector formats above all) is ever reached from bytes given here.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "nk/foundation/data.hpp"
#include "nk/foundation/object.hpp"

namespace nk {

class Image final : public Object {
  NK_DECLARE_CLASS(Image, Object)

 public:
  // Images larger than these are refused as soon as their header is read, before
  // any pixel memory is allocated.
  static constexpr int kMaxSide = 32768;
  static constexpr int64_t kMaxPixels = int64_t{256} * 1024 * 1024;

  // The decoded first frame of `bytes`, or nil when they are not a complete
  // image in an allowed format, the decoder reports any error, or the image is
  // over the size limits.
  static Ref<Image> fromData(const Data* data);
  static Ref<Image> fromBytes(std::span<const uint8_t> bytes);

  // The format the leading bytes announce: "png", "jpeg", "gif", "bmp", "webp",
  // or the empty view when they announce none of them.
  static std::string_view sniffFormat(std::span<const uint8_t> bytes) noexcept;

  int width() const noexcept { return width_; }
  int height() const noexcept { return height_; }
  bool hasAlpha() const noexcept { return hasAlpha_; }
  // 3 (RGB) or 4 (RGBA), 8 bits each.
  int channels() const noexcept { return channels_; }
  // Bytes from one row to the next; the last row may be shorter (width × channels).
  int rowstride() const noexcept { return rowstride_; }
  std::span<const uint8_t> pixels() const noexcept { return pixels_; }
  // The channel bytes of the pixel at (x, y); the coordinates must be in range.
  const uint8_t* pixelAt(int x, int y) const noexcept {
    return pixels_.data() + static_cast<size_t>(y) * static_cast<size_t>(rowstride_) +
           static_cast<size_t>(x) * static_cast<size_t>(channels_);
  }
  // "png" and so on, as sniffFormat gave it.
  std::string_view format() const noexcept { return format_; }

  // "<Image: 0x…> png 16x16"
  Ref<String> description() const override;
  // Images are immutable: copy returns the image itself.
  Id copy() const override;

 private:
  Image() noexcept = default;

  int width_ = 0;
  int height_ = 0;
  bool hasAlpha_ = false;
  int channels_ = 0;
  int rowstride_ = 0;
  std::string_view format_;
  std::vector<uint8_t> pixels_;
};

}  // namespace nk
