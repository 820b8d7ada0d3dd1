#include "tests/support/expand_stream.h"

#include <algorithm>
#include <map>
#include <utility>

#include "tests/support/image_parser.h"

namespace kqtest {
namespace {

constexpr unsigned kEndSymbol = 256;

// Single bits out of a byte string; behind its end they are zero and counted as missing.
class BitReader {
 public:
  BitReader(const Bytes& bytes, std::size_t firstByte, bool mostSignificantFirst)
      : bytes_(bytes), bit_(firstByte * 8), mostSignificantFirst_(mostSignificantFirst) {}

  unsigned Bit() {
    const std::size_t byte = bit_ / 8;
    const std::size_t inByte = bit_ % 8;
    ++bit_;
    if (byte >= bytes_.size()) return 0;
    return (bytes_[byte] >> (mostSignificantFirst_ ? 7 - inByte : inByte)) & 1u;
  }
  // Least significant bit first.
  unsigned Number(unsigned width) {
    unsigned value = 0;
    for (unsigned i = 0; i < width; ++i) value |= Bit() << i;
    return value;
  }
  bool HasBits(std::size_t count) const { return bit_ + count <= bytes_.size() * 8; }
  bool Overrun() const { return bit_ > bytes_.size() * 8; }
  std::size_t BytesTouched() const { return (bit_ + 7) / 8; }

 private:
  const Bytes& bytes_;
  std::size_t bit_;
  bool mostSignificantFirst_;
};

}  // namespace

std::optional<Bytes> ExpandHuffman(const Bytes& stream) {
  if (stream.empty()) return {};
  std::size_t place = 1;
  Bytes bitmap(32);
  for (std::size_t group = 0; group < 8; ++group) {
    if ((stream[0] >> group & 1) == 0) continue;
    for (std::size_t i = 0; i < 4; ++i) {
      if (place >= stream.size()) return {};
      bitmap[4 * group + i] = stream[place++];
    }
  }
  std::vector<unsigned> symbols;
  for (unsigned value = 0; value < 256; ++value) {
    if ((bitmap[value / 8] >> (value % 8) & 1) != 0) symbols.push_back(value);
  }
  symbols.push_back(kEndSymbol);

  BitReader lengthBits(stream, place, false);
  std::vector<unsigned> lengths;
  for (std::size_t i = 0; i < symbols.size(); ++i) lengths.push_back(lengthBits.Number(5));
  place += (5 * symbols.size() + 7) / 8;
  if (place > stream.size()) return {};

  std::map<std::pair<unsigned, unsigned>, unsigned> symbolOf;  // by length and code
  unsigned code = 0;
  for (unsigned length = 1; length <= 20; ++length, code <<= 1) {
    for (std::size_t i = 0; i < symbols.size(); ++i) {
      if (lengths[i] != length) continue;
      if (code >> length != 0) return {};
      symbolOf[{length, code++}] = symbols[i];
    }
  }

  Bytes result;
  BitReader bits(stream, place, true);
  while (true) {
    unsigned value = 0;
    unsigned length = 0;
    auto found = symbolOf.end();
    while (found == symbolOf.end()) {
      if (length == 20 || bits.Overrun()) return {};
      value = value << 1 | bits.Bit();
      found = symbolOf.find({++length, value});
    }
    if (found->second == kEndSymbol) break;
    result.push_back(static_cast<std::uint8_t>(found->second));
  }
  // Behind an end on a byte's boundary stands one more byte.
  if (bits.Overrun() || stream.size() - bits.BytesTouched() > 1) return {};
  return result;
}

std::optional<Bytes> ExpandLzw(const Bytes& stream) {
  constexpr unsigned kClear = 256;
  constexpr unsigned kTableSize = 65536;
  Bytes result;
  if (stream.empty()) return result;
  std::vector<Bytes> strings(kTableSize);
  for (unsigned i = 0; i < 256; ++i) strings[i] = {static_cast<std::uint8_t>(i)};
  BitReader bits(stream, 0, false);
  unsigned width = 9;
  unsigned next = 257;
  unsigned code = bits.Number(width);
  if (code > 255) return {};
  Bytes old = strings[code];
  Append(&result, old);
  // Less than a byte of padding is left at the end, so a whole further code is a code.
  while (bits.HasBits(width)) {
    code = bits.Number(width);
    if (code == kClear) {
      width = 9;
      next = 256;
      continue;
    }
    if (code > next || (code == next && next == kTableSize)) return {};
    Bytes string = old;
    string.push_back(old.front());
    if (code < next) string = strings[code];
    Append(&result, string);
    if (next < kTableSize) {
      strings[next] = old;
      strings[next].push_back(string.front());
      ++next;
    }
    if (next >> width != 0 && width < 16) ++width;
    old = std::move(string);
  }
  return result;
}

std::optional<Bytes> ExpandLzss(const Bytes& stream) {
  Bytes result;
  std::size_t place = 0;
  while (place < stream.size()) {
    const unsigned flags = stream[place++];
    for (unsigned mask = 128; mask != 0 && place < stream.size(); mask >>= 1) {
      if ((flags & mask) == 0) {
        result.push_back(stream[place++]);
        continue;
      }
      if (place + 2 > stream.size()) return {};
      const unsigned pair = Get16(stream, place);
      place += 2;
      const std::size_t distance = pair & 0xFFF;
      const std::size_t length = (pair >> 12) + 3;
      if (distance > result.size() || length > distance) return {};
      const std::size_t from = result.size() - distance;
      for (std::size_t i = 0; i < length; ++i) result.push_back(result[from + i]);
    }
  }
  return result;
}

std::optional<Bytes> ExpandStream(std::uint32_t compressionType, const Bytes& stream,
                                  std::uint64_t expandedBytes) {
  switch (compressionType) {
    case 3:
      return ExpandLzw(stream);
    case 4:
      return ExpandLzss(stream);
    case 5:
      return ExpandLzoFrames(stream, expandedBytes);
    case 6: {
      const std::optional<Bytes> frames = ExpandHuffman(stream);
      return frames ? ExpandLzoFrames(*frames, expandedBytes) : std::nullopt;
    }
    default:
      return {};
  }
}

}  // namespace kqtest
