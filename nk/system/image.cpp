// Image: gdk-pixbuf loaders picked by our own sniffing (never the auto-detecting
// loader, which would reach SVG and a dozen other decoders), with the size cap
// enforced from the "size-prepared" signal.
#include "nk/system/image.hpp"

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <cstring>

#include "nk/foundation/class.hpp"
#include "nk/foundation/format.hpp"

namespace nk {

NK_DEFINE_CLASS(Image, "Image", Class::kCopyable);

namespace {

bool startsWith(std::span<const uint8_t> bytes, std::string_view magic, size_t at = 0) noexcept {
  return bytes.size() >= at + magic.size() &&
         std::memcmp(bytes.data() + at, magic.data(), magic.size()) == 0;
}

struct LoadState {
  bool refused = false;
  int rowsDecoded = 0;  // the end of the lowest area the decoder has filled
};

void onAreaUpdated(GdkPixbufLoader*, gint, gint y, gint, gint height, gpointer user) {
  auto* state = static_cast<LoadState*>(user);
  state->rowsDecoded = std::max(state->rowsDecoded, y + height);
}

void onSizePrepared(GdkPixbufLoader* loader, gint width, gint height, gpointer user) {
  auto* state = static_cast<LoadState*>(user);
  if (width <= 0 || height <= 0 || width > Image::kMaxSide || height > Image::kMaxSide ||
      int64_t{width} * int64_t{height} > Image::kMaxPixels) {
    state->refused = true;
    // A size of 0×0 tells the loader to stop before it allocates the pixels.
    gdk_pixbuf_loader_set_size(loader, 0, 0);
  }
}

uint32_t be32(const uint8_t* p) noexcept {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
uint32_t le32(const uint8_t* p) noexcept {
  return uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0];
}

// The marker of a JPEG's frame header, found as the decoder finds it: segment by
// segment from the start, skipping stray bytes between segments, up to the first
// scan. 0 if there is none.
uint8_t jpegFrameMarker(std::span<const uint8_t> b) noexcept {
  size_t at = 2;  // past the start-of-image marker
  for (;;) {
    while (at < b.size() && b[at] != 0xFF) ++at;
    while (at < b.size() && b[at] == 0xFF) ++at;
    if (at + 3 > b.size()) return 0;
    const uint8_t marker = b[at++];
    if (marker == 0x00 || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;
    if (marker == 0xD8 || marker == 0xD9 || marker == 0xDA) return 0;
    // C4 (Huffman tables), C8 (reserved) and CC (arithmetic conditioning) are not frames.
    if ((marker & 0xF0) == 0xC0 && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      return marker;
    }
    at += size_t{b[at]} << 8 | b[at + 1];  // the length counts its own two bytes
  }
}

// Checked here, from each format's own structure, before a decoder sees the bytes:
// that they are all there (the decoders forgive truncation: they hand back what
// they have, the rest left blank, and report success), and that the header sends
// no decoder astray.
bool vetted(std::string_view type, std::span<const uint8_t> b) noexcept {
  if (type == "png") {
    // Every chunk whole, up to and including IEND.
    size_t at = 8;
    while (b.size() - at >= 12) {
      const uint64_t length = be32(b.data() + at);
      if (length > 0x7FFFFFFF || length + 12 > b.size() - at) return false;
      if (std::memcmp(b.data() + at + 4, "IEND", 4) == 0) return true;
      at += 12 + static_cast<size_t>(length);
    }
    return false;
  }
  if (type == "jpeg") {
    // An end-of-image marker after the last start-of-scan: entropy-coded data
    // stuffs every 0xFF byte, so neither marker occurs there by chance.
    size_t lastScan = 0;
    for (size_t i = 2; i + 1 < b.size(); ++i) {
      if (b[i] == 0xFF && b[i + 1] == 0xDA) lastScan = i;
    }
    if (lastScan == 0) return false;
    bool ended = false;
    for (size_t i = lastScan + 2; !ended && i + 1 < b.size(); ++i) {
      ended = b[i] == 0xFF && b[i + 1] == 0xD9;
    }
    // Arithmetic-coded frames (C9-CB, CD-CF), all but unused, are refused: fed to
    // it in pieces, the decoder was seen to loop forever on a damaged one.
    const uint8_t frame = jpegFrameMarker(b);
    return ended && frame != 0 && (frame & 0x08) == 0;
  }
  if (type == "bmp") {
    // The BMP decoder buffers a whole header of whatever size the file claims and
    // takes dimensions before any size check, so the header is vetted here.
    if (b.size() < 26) return false;
    const uint32_t declared = le32(b.data() + 2);
    const uint32_t offset = le32(b.data() + 10);
    const uint32_t headerSize = le32(b.data() + 14);
    if (headerSize != 12 && headerSize != 40 && headerSize != 52 && headerSize != 56 &&
        headerSize != 64 && headerSize != 108 && headerSize != 124) {
      return false;
    }
    if (14 + uint64_t{headerSize} > b.size() || offset > b.size()) return false;
    int64_t width;
    int64_t height;
    uint32_t bits;
    uint32_t compression = 0;
    if (headerSize == 12) {
      width = b[18] | b[19] << 8;
      height = b[20] | b[21] << 8;
      bits = uint32_t{b[24]} | uint32_t{b[25]} << 8;
    } else {
      width = static_cast<int32_t>(le32(b.data() + 18));
      height = static_cast<int32_t>(le32(b.data() + 22));
      bits = uint32_t{b[28]} | uint32_t{b[29]} << 8;
      compression = le32(b.data() + 30);
    }
    if (height < 0) height = -height;
    if (width <= 0 || height <= 0 || width > Image::kMaxSide || height > Image::kMaxSide ||
        width * height > Image::kMaxPixels) {
      return false;
    }
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32) {
      return false;
    }
    // So is the palette size: the decoder allocates what the header says.
    if (headerSize >= 40 && le32(b.data() + 46) > 256) return false;
    if (compression == 0 || compression == 3) {  // uncompressed rows
      const uint64_t row = ((static_cast<uint64_t>(width) * bits + 31) / 32) * 4;
      return offset + row * static_cast<uint64_t>(height) <= b.size();
    }
    return declared == 0 || declared <= b.size();
  }
  if (type == "webp") {
    return b.size() >= 12 && uint64_t{le32(b.data() + 4)} + 8 <= b.size();
  }
  return true;  // GIF: its decoder reports a missing end itself
}

// Writes in slices so that a refusal stops the decoder early on big inputs.
constexpr size_t kSlice = 64 * 1024;

}  // namespace

std::string_view Image::sniffFormat(std::span<const uint8_t> bytes) noexcept {
  if (startsWith(bytes, "\x89PNG\r\n\x1a\n")) return "png";
  if (startsWith(bytes, "\xff\xd8\xff")) return "jpeg";
  if (startsWith(bytes, "GIF87a") || startsWith(bytes, "GIF89a")) return "gif";
  if (startsWith(bytes, "BM")) return "bmp";
  if (startsWith(bytes, "RIFF") && startsWith(bytes, "WEBP", 8)) return "webp";
  return {};
}

Ref<Image> Image::fromData(const Data* data) {
  if (data == nullptr) return nullptr;
  return fromBytes(data->span());
}

Ref<Image> Image::fromBytes(std::span<const uint8_t> bytes) {
  const std::string_view type = sniffFormat(bytes);
  if (type.empty() || !vetted(type, bytes)) return nullptr;

  GError* error = nullptr;
  // `type` points at a literal, so it is NUL-terminated.
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new_with_type(type.data(), &error);
  if (loader == nullptr) {  // e.g. no WebP loader installed
    g_clear_error(&error);
    return nullptr;
  }
  LoadState state;
  g_signal_connect(loader, "size-prepared", G_CALLBACK(onSizePrepared), &state);
  g_signal_connect(loader, "area-updated", G_CALLBACK(onAreaUpdated), &state);

  bool ok = true;
  for (size_t at = 0; ok && at < bytes.size(); at += kSlice) {
    const size_t n = std::min(kSlice, bytes.size() - at);
    ok = gdk_pixbuf_loader_write(loader, bytes.data() + at, n, &error) && !state.refused;
    g_clear_error(&error);
  }
  // Close even after a failure: a loader finalised unclosed complains on stderr.
  const bool closed = gdk_pixbuf_loader_close(loader, &error);
  g_clear_error(&error);
  ok = ok && closed && !state.refused;

  Ref<Image> image;
  GdkPixbuf* pixbuf = ok ? gdk_pixbuf_loader_get_pixbuf(loader) : nullptr;
  // A PNG whose data stream ends early, though whole, leaves its last rows as filler.
  if (pixbuf != nullptr && type == "png" && state.rowsDecoded < gdk_pixbuf_get_height(pixbuf)) {
    pixbuf = nullptr;
  }
  if (pixbuf != nullptr && gdk_pixbuf_get_colorspace(pixbuf) == GDK_COLORSPACE_RGB &&
      gdk_pixbuf_get_bits_per_sample(pixbuf) == 8) {
    const int channels = gdk_pixbuf_get_n_channels(pixbuf);
    const int width = gdk_pixbuf_get_width(pixbuf);
    const int height = gdk_pixbuf_get_height(pixbuf);
    const int rowstride = gdk_pixbuf_get_rowstride(pixbuf);
    const gsize length = gdk_pixbuf_get_byte_length(pixbuf);
    const guint8* pixels = gdk_pixbuf_read_pixels(pixbuf);
    if ((channels == 3 || channels == 4) && width > 0 && height > 0 && pixels != nullptr &&
        static_cast<int64_t>(rowstride) >= int64_t{width} * channels) {
      image = Ref<Image>::adopt(new Image());
      image->width_ = width;
      image->height_ = height;
      image->hasAlpha_ = gdk_pixbuf_get_has_alpha(pixbuf);
      image->channels_ = channels;
      image->rowstride_ = rowstride;
      image->format_ = type;
      image->pixels_.assign(pixels, pixels + length);
    }
  }
  g_object_unref(loader);
  return image;
}

Ref<String> Image::description() const {
  return nk::format("<Image: %p> %s %dx%d", static_cast<const void*>(this), format_, width_,
                    height_);
}

Id Image::copy() const { return Id(const_cast<Image*>(this)); }

}  // namespace nk
