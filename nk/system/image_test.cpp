// Tests for Image: decoding of each allowed format, and refusal of everything else.
#include "nk/system/image.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace nk {
namespace {

// The fuzz corpus's small images: 2×2 ones of red, green / blue, white (the PNG's white
// at alpha 128), a 1×1 PNG of (10, 20, 30) and an 8×8 JPEG of (32, 128, 192).
std::vector<uint8_t> corpusFile(const char* name) {
  const char* root = std::getenv("NK_SOURCE_DIR");  // set by ctest
  const std::filesystem::path dir =
      root ? std::filesystem::path(root) : std::filesystem::path(__FILE__).parent_path() / "../..";
  std::ifstream in(dir / "fuzz/corpus/image" / name, std::ios::binary);
  std::vector<uint8_t> out{std::istreambuf_iterator<char>(in), {}};
  EXPECT_FALSE(out.empty()) << name << " not found under " << dir;
  return out;
}

struct Samples {
  std::vector<uint8_t> png2x2 = corpusFile("rgba_2x2.png"), png1x1 = corpusFile("rgb_1x1.png"),
                       bmp2x2 = corpusFile("rgb_2x2.bmp"), gif2x2 = corpusFile("palette_2x2.gif"),
                       jpeg8x8 = corpusFile("solid_8x8.jpg");
};
const Samples& samples() {
  static const Samples loaded;
  return loaded;
}

// A PNG whose header claims 100000×100000.
const uint8_t kPngHuge[] = {0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d,
                            0x49, 0x48, 0x44, 0x52, 0x00, 0x01, 0x86, 0xa0, 0x00, 0x01, 0x86, 0xa0,
                            0x08, 0x06, 0x00, 0x00, 0x00, 0xa8, 0x52, 0x0b, 0xc8, 0x00, 0x00, 0x00,
                            0x0c, 0x49, 0x44, 0x41, 0x54, 0x78, 0x9c, 0x63, 0x60, 0xa0, 0x0c, 0x00,
                            0x00, 0x00, 0x40, 0x00, 0x01, 0xb7, 0x34, 0x7c, 0xef, 0x00, 0x00, 0x00,
                            0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

std::span<const uint8_t> bytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

using RGB = std::vector<uint8_t>;
RGB rgbAt(const Image& image, int x, int y) {
  const uint8_t* p = image.pixelAt(x, y);
  return {p[0], p[1], p[2]};
}

// A complete 24-bit BMP of grey pixels.
std::vector<uint8_t> makeBmp(int width, int height) {
  const uint32_t row = (static_cast<uint32_t>(width) * 3 + 3) & ~3u;
  const uint32_t size = row * static_cast<uint32_t>(height);
  std::vector<uint8_t> b(54, 0);
  auto put32 = [&](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
  b[0] = 'B';
  b[1] = 'M';
  put32(2, 54 + size);
  put32(10, 54);
  put32(14, 40);
  put32(18, static_cast<uint32_t>(width));
  put32(22, static_cast<uint32_t>(height));
  b[26] = 1;
  b[28] = 24;
  put32(34, size);
  b.resize(54 + size, 0x80);
  return b;
}

TEST(Image, DecodesEachAllowedFormat) {
  const Samples& s = samples();
  // The 2×2 images pixel by pixel (BMP rows are stored bottom-up, GIF's as palette indices).
  for (const auto& [bytes, format] :
       {std::pair{&s.png2x2, "png"}, std::pair{&s.bmp2x2, "bmp"}, std::pair{&s.gif2x2, "gif"}}) {
    SCOPED_TRACE(format);
    Ref<Image> image = Image::fromBytes(*bytes);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->format(), format);
    EXPECT_EQ(image->width(), 2);
    EXPECT_EQ(image->height(), 2);
    EXPECT_EQ(rgbAt(*image, 0, 0), (RGB{255, 0, 0}));
    EXPECT_EQ(rgbAt(*image, 1, 0), (RGB{0, 255, 0}));
    EXPECT_EQ(rgbAt(*image, 0, 1), (RGB{0, 0, 255}));
    EXPECT_EQ(rgbAt(*image, 1, 1), (RGB{255, 255, 255}));
  }
  Ref<Image> alpha = Image::fromBytes(s.png2x2);
  ASSERT_TRUE(alpha);
  EXPECT_TRUE(alpha->hasAlpha());
  EXPECT_EQ(alpha->channels(), 4);
  EXPECT_EQ(alpha->pixelAt(1, 1)[3], 128);
  EXPECT_GE(alpha->pixels().size(),
            static_cast<size_t>(alpha->rowstride()) + 2 * alpha->channels());
  Ref<Image> opaque = Image::fromBytes(s.png1x1);
  ASSERT_TRUE(opaque);
  EXPECT_FALSE(opaque->hasAlpha());
  EXPECT_EQ(opaque->channels(), 3);
  EXPECT_EQ(rgbAt(*opaque, 0, 0), (RGB{10, 20, 30}));
  EXPECT_NE(opaque->description()->utf8().find("png 1x1"), std::string::npos);
  // JPEG is lossy: colours within a small tolerance.
  Ref<Image> jpeg = Image::fromData(Data::fromBytes(s.jpeg8x8).get());
  ASSERT_TRUE(jpeg);
  EXPECT_EQ(jpeg->format(), "jpeg");
  EXPECT_EQ(jpeg->width(), 8);
  EXPECT_EQ(jpeg->height(), 8);
  const RGB c = rgbAt(*jpeg, 7, 7);
  EXPECT_NEAR(c[0], 32, 8);
  EXPECT_NEAR(c[1], 128, 8);
  EXPECT_NEAR(c[2], 192, 8);
}

TEST(Image, RefusesBrokenInput) {
  const Samples& s = samples();
  // every proper prefix of a valid image, the empty one included, is nil
  for (const auto* file : {&s.png2x2, &s.bmp2x2, &s.gif2x2, &s.jpeg8x8}) {
    std::span<const uint8_t> image(*file);
    for (size_t n = 0; n < image.size(); ++n) {
      EXPECT_FALSE(Image::fromBytes(image.first(n))) << "prefix " << n << " of " << image.size();
    }
  }
  // Right magic, garbage after it; a corrupted IHDR checksum.
  std::vector<uint8_t> garbage(s.png2x2.begin(), s.png2x2.begin() + 8);
  for (int i = 0; i < 200; ++i) garbage.push_back(static_cast<uint8_t>(i * 37 + 11));
  EXPECT_FALSE(Image::fromBytes(garbage));
  std::vector<uint8_t> png = s.png2x2;
  png[29] ^= 0xFF;
  EXPECT_FALSE(Image::fromBytes(png));
  // Every chunk whole, but the pixel data holds two rows of four.
  EXPECT_FALSE(Image::fromBytes(corpusFile("rows_missing_4x4.png")));
  EXPECT_FALSE(Image::fromData(nullptr));
  EXPECT_FALSE(Image::fromData(Data::empty().get()));
}

TEST(Image, NeverReachesOtherDecoders) {
  // an SVG document, which the auto-detecting loader would render, and formats
  // gdk-pixbuf reads but the allow-list leaves out: XPM, PNM, TIFF, ICO
  for (std::string_view text :
       {std::string_view("<?xml version=\"1.0\"?><svg xmlns=\"http://www.w3.org/2000/svg\" "
                         "width=\"4\" height=\"4\"><rect width=\"4\" height=\"4\" "
                         "fill=\"red\"/></svg>"),
        std::string_view("/* XPM */\nstatic char *x[] = {\"1 1 1 1\", \"a c #FF0000\", \"a\"};\n"),
        std::string_view("P3\n1 1\n255\n255 0 0\n"), std::string_view("II*\0", 4),
        std::string_view("\0\0\1\0", 4)}) {
    EXPECT_EQ(Image::sniffFormat(bytes(text)), "") << text;
    EXPECT_FALSE(Image::fromBytes(bytes(text))) << text;
  }
  // WebP is named from its RIFF form type, not from "RIFF" alone
  EXPECT_EQ(Image::sniffFormat(bytes(std::string_view("RIFF\0\0\0\0WEBP", 12))), "webp");
  EXPECT_EQ(Image::sniffFormat(bytes(std::string_view("RIFF\0\0\0\0WAVE", 12))), "");
}

TEST(Image, RefusesOversizedAndHostileHeaders) {
  // 100000×100000 would need 40 GB; refused from the header (the decoder would
  // otherwise try the allocation)
  EXPECT_FALSE(Image::fromBytes(kPngHuge));
  // a complete BMP one pixel wider than the cap is refused; at the cap it decodes
  EXPECT_FALSE(Image::fromBytes(makeBmp(Image::kMaxSide + 1, 1)));
  EXPECT_FALSE(Image::fromBytes(makeBmp(1, Image::kMaxSide + 1)));
  Ref<Image> edge = Image::fromBytes(makeBmp(Image::kMaxSide, 1));
  ASSERT_TRUE(edge);
  EXPECT_EQ(edge->width(), Image::kMaxSide);
  // found by fuzzing: a header that claims to be 4 GB long (the decoder tried to
  // buffer it), and a palette of four thousand million colours
  std::vector<uint8_t> bmp = makeBmp(2, 2);
  bmp[14] = 0x00;
  bmp[17] = 0xF5;
  EXPECT_FALSE(Image::fromBytes(bmp));
  bmp = makeBmp(2, 2);
  for (int i = 46; i < 50; ++i) bmp[i] = 0xFF;
  EXPECT_FALSE(Image::fromBytes(bmp));
  // negative height (top-down rows) is fine; zero width or an odd bit depth is not
  bmp = makeBmp(2, 2);
  for (int i = 22; i < 26; ++i) bmp[i] = 0xFF;  // height -1
  Ref<Image> topDown = Image::fromBytes(bmp);
  ASSERT_TRUE(topDown);
  EXPECT_EQ(topDown->height(), 1);
  EXPECT_FALSE(Image::fromBytes(makeBmp(0, 2)));
  bmp = makeBmp(2, 2);
  bmp[28] = 7;
  EXPECT_FALSE(Image::fromBytes(bmp));
  // found by fuzzing: a damaged arithmetic-coded JPEG of 175 bytes kept the decoder
  // busy for good. Arithmetic-coded frames are refused, whole or not.
  EXPECT_FALSE(Image::fromBytes(corpusFile("arithmetic_damaged.jpg")));
  std::vector<uint8_t> jpeg = samples().jpeg8x8;
  bool found = false;
  for (size_t i = 2; !found && i + 1 < jpeg.size(); ++i) {
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {
      jpeg[i + 1] = 0xC9;
      found = true;
    }
  }
  ASSERT_TRUE(found);
  EXPECT_FALSE(Image::fromBytes(jpeg));
}

}  // namespace
}  // namespace nk
