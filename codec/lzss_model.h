// A plain model of the streams of compression type 4 for tests: whole input, absolute positions.
#ifndef KQ_CODEC_LZSS_MODEL_H
#define KQ_CODEC_LZSS_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace kqtest {

struct LzssItem {
  std::size_t distance = 0;  // 0: a literal
  std::size_t length = 1;
  std::uint8_t literal = 0;
  bool operator==(const LzssItem&) const = default;
};

inline std::vector<LzssItem> LzssModelItems(const std::vector<std::uint8_t>& input) {
  std::vector<LzssItem> items;
  std::map<unsigned, std::vector<std::size_t>> chains;  // positions by hash, oldest first
  const std::size_t size = input.size();
  std::size_t base = 0;  // position of the window's first byte

  // Behind the data the window holds what it held there before its last move.
  const auto byteAt = [&](std::size_t position) -> unsigned {
    if (position >= base + 8192) return 0;
    if (position < size) return input[position];
    return base == 0 ? 0 : input[position - 4096];
  };
  const auto chainOf = [&](std::size_t position) -> std::vector<std::size_t>& {
    return chains[(byteAt(position) << 8 ^ byteAt(position + 1) << 4 ^ byteAt(position + 2)) &
                  0x7FF];
  };

  for (std::size_t position = 0; position < size;) {
    if (base + 8192 < size && base + 8192 - position < 26) base += 4096;
    const std::size_t lookahead = std::min(size, base + 8192) - position;

    std::vector<std::size_t>& chain = chainOf(position);
    std::size_t best = 2;
    std::size_t match = 0;
    for (std::size_t link = 0; link < 4 && link < chain.size(); ++link) {
      const std::size_t candidate = chain[chain.size() - 1 - link];
      const std::size_t distance = position - candidate;
      if (candidate <= base || distance >= 4096) break;
      if (distance < 3) continue;
      std::size_t length = 0;
      while (length < 18 && byteAt(candidate + length) == byteAt(position + length)) ++length;
      if (length <= best) continue;
      best = length;
      match = candidate;
      if (length >= 8) break;
    }
    chain.push_back(position);

    LzssItem item;
    if (std::min(best, lookahead) > 2) {
      item.distance = position - match;
      item.length = std::min({item.distance, std::size_t{18}, best, lookahead});
    } else {
      item.literal = input[position];
    }
    if (item.length <= 4) {
      for (std::size_t i = 1; i < item.length; ++i) chainOf(position + i).push_back(position + i);
    }
    position += item.length;
    items.push_back(item);
  }
  return items;
}

inline std::vector<std::uint8_t> LzssModelEncode(const std::vector<std::uint8_t>& input) {
  const std::vector<LzssItem> items = LzssModelItems(input);
  std::vector<std::uint8_t> stream;
  std::size_t flags = 0;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i % 8 == 0) {
      flags = stream.size();
      stream.push_back(0);
    }
    if (items[i].distance == 0) {
      stream.push_back(items[i].literal);
      continue;
    }
    stream[flags] = static_cast<std::uint8_t>(stream[flags] + (128 >> (i % 8)));
    const std::size_t match = items[i].distance + 4096 * (items[i].length - 3);
    stream.push_back(static_cast<std::uint8_t>(match % 256));
    stream.push_back(static_cast<std::uint8_t>(match / 256));
  }
  return stream;
}

// The items of a good stream.
inline std::vector<LzssItem> LzssModelParse(const std::vector<std::uint8_t>& stream) {
  std::vector<LzssItem> items;
  std::size_t position = 0;
  while (position < stream.size()) {
    const unsigned flags = stream[position++];
    for (unsigned i = 0; i < 8 && position < stream.size(); ++i) {
      LzssItem item;
      if ((flags >> (7 - i) & 1) != 0) {
        const std::size_t match = stream.at(position) + std::size_t{256} * stream.at(position + 1);
        item.distance = match % 4096;
        item.length = match / 4096 + 3;
        position += 2;
      } else {
        item.literal = stream[position++];
      }
      items.push_back(item);
    }
  }
  return items;
}

inline std::vector<std::uint8_t> LzssModelDecode(const std::vector<std::uint8_t>& stream) {
  std::vector<std::uint8_t> data;
  for (const LzssItem& item : LzssModelParse(stream)) {
    if (item.distance == 0) {
      data.push_back(item.literal);
      continue;
    }
    for (std::size_t i = 0; i < item.length; ++i)
      data.push_back(data.at(data.size() - item.distance));
  }
  return data;
}

}  // namespace kqtest

#endif
