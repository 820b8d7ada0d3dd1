// A plain model of the Huffman stage for its tests: whole numbers, vectors and one bit at a time.
#ifndef KQ_CODEC_HUFFMAN_MODEL_H
#define KQ_CODEC_HUFFMAN_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace kqtest {

struct HuffmanModelResult {
  int status = 0;
  std::vector<std::uint8_t> bytes;
};

// Code lengths of symbols with these counts, in their order.
inline std::vector<unsigned> HuffmanModelLengths(const std::vector<std::uint64_t>& counts) {
  const std::size_t n = counts.size();
  std::vector<std::uint64_t> leafWeights;
  leafWeights.reserve(n);
  for (const std::uint64_t count : counts) {
    leafWeights.push_back((count << 8) == 0 ? 256 : count << 8);
  }
  for (;;) {
    std::vector<std::uint64_t> weight(1, 0);
    weight.insert(weight.end(), leafWeights.begin(), leafWeights.end());
    std::vector<std::size_t> parent(n + 1, 0);
    std::vector<std::size_t> heap(1, 0);

    const auto insert = [&](std::size_t node) {
      heap.push_back(node);
      std::size_t at = heap.size() - 1;
      while (weight[heap[at]] < weight[heap[at / 2]]) {
        std::swap(heap[at], heap[at / 2]);
        at /= 2;
      }
    };
    const auto take = [&]() {
      const std::size_t taken = heap[1];
      heap[1] = heap.back();
      heap.pop_back();
      std::size_t at = 1;
      while (2 * at < heap.size()) {
        std::size_t child = 2 * at;
        if (child + 1 < heap.size() && weight[heap[child + 1]] < weight[heap[child]]) child += 1;
        if (weight[heap[at]] < weight[heap[child]]) break;
        std::swap(heap[at], heap[child]);
        at = child;
      }
      return taken;
    };

    for (std::size_t symbol = 1; symbol <= n; ++symbol) insert(symbol);
    while (heap.size() > 2) {
      const std::size_t a = take();
      const std::size_t b = take();
      parent[a] = parent[b] = weight.size();
      const std::uint64_t depth = 1 + std::max(weight[a] % 256, weight[b] % 256);
      weight.push_back((weight[a] - weight[a] % 256 + weight[b] - weight[b] % 256) | depth);
      parent.push_back(0);
      insert(weight.size() - 1);
    }

    std::vector<unsigned> lengths;
    for (std::size_t symbol = 1; symbol <= n; ++symbol) {
      unsigned links = 0;
      for (std::size_t node = symbol; parent[node] != 0; node = parent[node]) ++links;
      lengths.push_back(links);
    }
    if (*std::max_element(lengths.begin(), lengths.end()) <= 20) return lengths;
    for (std::uint64_t& w : leafWeights) w = ((w >> 9) + 1) << 8;
  }
}

// The canonical code: symbols by length and then by place, values counted up. One value a symbol.
inline std::vector<std::uint64_t> HuffmanModelCodes(const std::vector<unsigned>& lengths) {
  std::vector<std::uint64_t> codes(lengths.size());
  std::uint64_t next = 0;
  for (unsigned length = 1; length <= 31; ++length) {
    next *= 2;
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      if (lengths[i] == length) codes[i] = next++;
    }
  }
  return codes;
}

// The stream for an input; behind is the byte that stands behind it, if any.
inline std::vector<std::uint8_t> HuffmanModelEncode(const std::vector<std::uint8_t>& input,
                                                    std::optional<std::uint8_t> behind) {
  std::map<std::uint8_t, std::uint64_t> counts;
  for (const std::uint8_t byte : input) ++counts[byte];
  if (input.size() > 8 && input.size() % 8 == 0 && behind) ++counts[*behind];

  std::vector<std::uint8_t> bitmap(32);
  std::vector<std::uint64_t> inOrder;
  for (const auto& [value, count] : counts) {
    bitmap[value / 8] = static_cast<std::uint8_t>(bitmap[value / 8] + (1 << (value % 8)));
    inOrder.push_back(count);
  }
  inOrder.push_back(1);
  const std::vector<unsigned> lengths = HuffmanModelLengths(inOrder);
  const std::vector<std::uint64_t> codes = HuffmanModelCodes(lengths);

  std::vector<std::uint8_t> stream(1);
  for (std::size_t group = 0; group < 8; ++group) {
    const auto first = bitmap.begin() + static_cast<std::ptrdiff_t>(4 * group);
    if (std::all_of(first, first + 4, [](std::uint8_t b) { return b == 0; })) continue;
    stream[0] = static_cast<std::uint8_t>(stream[0] + (1 << group));
    stream.insert(stream.end(), first, first + 4);
  }

  std::vector<bool> lengthBits;
  for (const unsigned length : lengths) {
    for (unsigned bit = 0; bit < 5; ++bit) lengthBits.push_back((length >> bit & 1) != 0);
  }
  while (lengthBits.size() % 8 != 0) lengthBits.push_back(false);
  for (std::size_t i = 0; i < lengthBits.size(); i += 8) {
    unsigned byte = 0;
    for (std::size_t bit = 0; bit < 8; ++bit) byte += (lengthBits[i + bit] ? 1U : 0U) << bit;
    stream.push_back(static_cast<std::uint8_t>(byte));
  }

  std::vector<bool> bits;
  const auto put = [&](std::size_t symbol) {
    for (unsigned bit = lengths[symbol]; bit > 0; --bit) {
      bits.push_back((codes[symbol] >> (bit - 1) & 1) != 0);
    }
  };
  std::vector<std::size_t> symbolOf(256);
  std::size_t symbol = 0;
  for (const auto& [value, count] : counts) symbolOf[value] = symbol++;
  for (const std::uint8_t byte : input) put(symbolOf[byte]);
  put(lengths.size() - 1);
  if (bits.size() % 8 == 0) bits.insert(bits.end(), 8, false);  // one byte more than needed
  while (bits.size() % 8 != 0) bits.push_back(false);
  for (std::size_t i = 0; i < bits.size(); i += 8) {
    unsigned byte = 0;
    for (std::size_t bit = 0; bit < 8; ++bit) byte = byte * 2 + (bits[i + bit] ? 1U : 0U);
    stream.push_back(static_cast<std::uint8_t>(byte));
  }
  return stream;
}

// Decodes a stream step by step. limit is the room for decoded bytes.
inline HuffmanModelResult HuffmanModelDecode(const std::vector<std::uint8_t>& stream,
                                             std::size_t limit) {
  constexpr int kInvalidData = -13;
  constexpr int kNotEnoughMemory = -8;
  if (stream.empty()) return {kInvalidData, {}};
  std::size_t position = 1;
  std::vector<std::uint8_t> values;
  for (unsigned group = 0; group < 8; ++group) {
    if ((stream[0] >> group & 1) == 0) continue;
    for (unsigned i = 0; i < 32; ++i) {
      if (position + i / 8 >= stream.size()) return {kInvalidData, {}};
      if ((stream[position + i / 8] >> (i % 8) & 1) != 0) {
        values.push_back(static_cast<std::uint8_t>(32 * group + i));
      }
    }
    position += 4;
  }
  const std::size_t lengthBytes = (5 * (values.size() + 1) + 7) / 8;
  if (position + lengthBytes + 1 > stream.size()) return {kInvalidData, {}};
  std::vector<unsigned> lengths;
  for (std::size_t i = 0; i <= values.size(); ++i) {
    unsigned length = 0;
    for (std::size_t bit = 0; bit < 5; ++bit) {
      const std::size_t at = 5 * i + bit;
      length += static_cast<unsigned>(stream[position + at / 8] >> (at % 8) & 1) << bit;
    }
    lengths.push_back(length);
  }
  position += lengthBytes;
  const unsigned shortest = *std::min_element(lengths.begin(), lengths.end());
  const unsigned longest = *std::max_element(lengths.begin(), lengths.end());
  if (shortest == 0) return {kInvalidData, {}};

  const std::vector<std::uint64_t> codes = HuffmanModelCodes(lengths);
  std::map<std::uint64_t, std::uint8_t> byteOf;  // the values are distinct over all lengths
  for (std::size_t i = 0; i < values.size(); ++i) byteOf[codes[i]] = values[i];

  // For each length one past its last code, or where its codes would begin if it has none.
  std::vector<std::uint64_t> limitOf(longest + 1);
  for (unsigned length = shortest; length <= longest; ++length) {
    limitOf[length] = 2 * limitOf[length - 1];
    for (const unsigned other : lengths) limitOf[length] += other == length ? 1 : 0;
  }

  HuffmanModelResult result;
  const std::size_t bitCount = 8 * (stream.size() - position);
  std::size_t bitPosition = 0;
  for (;;) {
    // Beyond the stream's end the bits read as zero, but a code may not reach there.
    std::uint64_t value = 0;
    bool found = false;
    unsigned length = 0;
    while (!found && length < longest) {
      const std::size_t at = bitPosition + length++;
      const unsigned bit =
          at < bitCount ? static_cast<unsigned>(stream[position + at / 8] >> (7 - at % 8) & 1) : 0;
      value = 2 * value + bit;
      found = length >= shortest && value < limitOf[length];
    }
    if (!found || bitPosition + length > bitCount) {
      result.status = kInvalidData;
      return result;
    }
    bitPosition += length;
    if (value == codes.back()) return result;
    if (result.bytes.size() == limit) {
      result.status = kNotEnoughMemory;
      return result;
    }
    result.bytes.push_back(byteOf.at(value));
  }
}

}  // namespace kqtest

#endif
