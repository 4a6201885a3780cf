#include "tests/tools/lab/page/Picture.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <stdexcept>
#include <vector>

namespace corvid::lab {

namespace {

using Byte = unsigned char;
using Colour = std::array<Byte, 3>;

constexpr std::string_view signature("\x89PNG\r\n\x1a\n", 8);

Byte byteAt(std::string_view text, std::size_t at) { return static_cast<Byte>(text[at]); }

std::uint32_t numberAt(std::string_view text, std::size_t at) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < 4; ++i) number = number << 8 | byteAt(text, at + i);
  return number;
}

std::string bytesOf(std::uint32_t number) {
  std::string bytes;
  for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(number >> shift & 0xff);
  return bytes;
}

struct Image {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<Colour> pixels{};
};

std::string inflated(const std::string& deflated, std::size_t size) {
  std::string bytes(size, '\0');
  uLongf length = size;
  if (uncompress(reinterpret_cast<Bytef*>(bytes.data()), &length,
                 reinterpret_cast<const Bytef*>(deflated.data()), deflated.size()) != Z_OK ||
      length != size)
    throw std::runtime_error("the picture is damaged");
  return bytes;
}

// The byte that a filter of PNG foretells from those on the left, above, and above on the left.
int foretold(int filter, int left, int above, int corner) {
  switch (filter) {
    case 1: return left;
    case 2: return above;
    case 3: return (left + above) / 2;
    case 4: {
      const int sum = left + above - corner;
      const int fromLeft = std::abs(sum - left);
      const int fromAbove = std::abs(sum - above);
      const int fromCorner = std::abs(sum - corner);
      if (fromLeft <= fromAbove && fromLeft <= fromCorner) return left;
      return fromAbove <= fromCorner ? above : corner;
    }
    default: return 0;
  }
}

Image read(std::string_view png) {
  if (!png.starts_with(signature) || png.size() < 33) throw std::runtime_error("this is no PNG");
  Image image{.width = numberAt(png, 16), .height = numberAt(png, 20)};
  const std::size_t channels = byteAt(png, 25) == 2 ? 3 : 4;
  if (byteAt(png, 24) != 8 || (byteAt(png, 25) != 2 && byteAt(png, 25) != 6) ||
      byteAt(png, 28) != 0)
    throw std::runtime_error("this is a PNG of another kind");
  std::string deflated;
  for (std::size_t at = signature.size(); at + 12 <= png.size();) {
    const std::size_t length = numberAt(png, at);
    if (png.substr(at + 4, 4) == "IDAT") deflated += png.substr(at + 8, length);
    at += length + 12;
  }
  const std::size_t stride = image.width * channels;
  std::string bytes = inflated(deflated, (stride + 1) * image.height);
  std::string before(stride, '\0');
  for (std::uint32_t row = 0; row < image.height; ++row) {
    const std::size_t start = row * (stride + 1);
    const int filter = byteAt(bytes, start);
    std::string line = bytes.substr(start + 1, stride);
    for (std::size_t i = 0; i < stride; ++i) {
      const bool isFirst = i < channels;
      const int guess = foretold(filter, isFirst ? 0 : byteAt(line, i - channels),
                                 byteAt(before, i), isFirst ? 0 : byteAt(before, i - channels));
      line[i] = static_cast<char>(byteAt(line, i) + guess);
    }
    for (std::size_t i = 0; i < stride; i += channels)
      image.pixels.push_back({byteAt(line, i), byteAt(line, i + 1), byteAt(line, i + 2)});
    before = std::move(line);
  }
  return image;
}

int distance(const Colour& a, const Colour& b) {
  int sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return sum;
}

std::string chunk(std::string_view kind, std::string_view content) {
  std::string named(kind);
  named += content;
  const uLong check =
      crc32(0, reinterpret_cast<const Bytef*>(named.data()), static_cast<uInt>(named.size()));
  return bytesOf(static_cast<std::uint32_t>(content.size())) + named +
         bytesOf(static_cast<std::uint32_t>(check));
}

}  // namespace

std::string inFewColours(std::string_view png) {
  const Image image = read(png);
  std::map<Colour, std::size_t> counts;
  for (const Colour& pixel : image.pixels) ++counts[pixel];
  std::vector<Colour> palette;
  for (const auto& [colour, count] : counts) palette.push_back(colour);
  std::ranges::stable_sort(palette, std::greater(), [&](const Colour& one) { return counts[one]; });
  palette.resize(std::min<std::size_t>(palette.size(), 256));

  std::map<Colour, char> places;
  for (const auto& entry : counts) {
    const auto nearest = std::ranges::min_element(
        palette, {}, [&](const Colour& one) { return distance(one, entry.first); });
    places[entry.first] = static_cast<char>(nearest - palette.begin());
  }
  std::string indices;
  for (std::size_t i = 0; i < image.pixels.size(); ++i) {
    if (i % image.width == 0) indices += '\0';  // no filter
    indices += places.at(image.pixels[i]);
  }
  uLongf length = compressBound(indices.size());
  std::string deflated(length, '\0');
  compress2(reinterpret_cast<Bytef*>(deflated.data()), &length,
            reinterpret_cast<const Bytef*>(indices.data()), indices.size(), Z_BEST_COMPRESSION);
  deflated.resize(length);
  std::string colours;
  for (const Colour& colour : palette) colours.append(colour.begin(), colour.end());
  const std::string head =
      bytesOf(image.width) + bytesOf(image.height) + std::string("\x08\x03\0\0\0", 5);
  return std::string(signature) + chunk("IHDR", head) + chunk("PLTE", colours) +
         chunk("IDAT", deflated) + chunk("IEND", "");
}

}  // namespace corvid::lab
