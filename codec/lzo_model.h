// A plain model of the block codec for its tests: positions instead of pointers, one byte at a
// time, every byte looked at before it is used.
#ifndef KQ_CODEC_LZO_MODEL_H
#define KQ_CODEC_LZO_MODEL_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kqtest {

using Bytes = std::vector<std::uint8_t>;

// What a hash table remembers: positions in the input, which may be those of an earlier call on the
// same memory.
using LzoModelTable = std::vector<std::optional<std::size_t>>;
inline LzoModelTable LzoModelEmptyTable() { return LzoModelTable(0x8000); }

class LzoModelCompressor {
 public:
  LzoModelCompressor(std::span<const std::uint8_t> input, std::size_t outputLimit,
                     LzoModelTable* table)
      : input_(input), limit_(outputLimit), table_(*table) {}

  // Nothing if the output limit doesn't suffice.
  std::optional<Bytes> Run() {
    Bytes output;
    std::size_t start = 0;
    std::size_t left = limit_;
    while (start < input_.size()) {
      if (left < 70) return std::nullopt;
      left -= 3;
      const std::size_t size =
          std::min({input_.size() - start, std::size_t{0xFFFFFF}, (left - 67) * 16 / 17});
      const Bytes frame = Frame(start, start + size);
      for (const unsigned shift : {0u, 8u, 16u}) {
        output.push_back(static_cast<std::uint8_t>(frame.size() >> shift));
      }
      output.insert(output.end(), frame.begin(), frame.end());
      left -= frame.size();
      start += size;
    }
    return output;
  }

 private:
  std::optional<std::size_t> Usable(std::size_t slot, std::size_t start, std::size_t p) const {
    const std::optional<std::size_t> c = table_[slot];
    if (!c || *c < start || *c >= p || p - *c > 0xBFFF) return std::nullopt;
    return c;
  }
  bool Promising(std::size_t c, std::size_t p) const {
    return p - c <= 0x800 || input_[c + 3] == input_[p + 3];
  }

  // The candidate for a match at p; p goes into the slot that was looked at last.
  std::optional<std::size_t> Search(std::size_t start, std::size_t p) {
    std::uint32_t h = input_[p + 3];
    h = h << 6 ^ input_[p + 2];
    h = h << 5 ^ input_[p + 1];
    h = h << 5 ^ input_[p];
    h = h * 33 >> 5;
    std::size_t slot = h & 0x7FFF;
    std::optional<std::size_t> candidate = Usable(slot, start, p);
    if (candidate && !Promising(*candidate, p)) {
      slot = (h & 0x7FF) ^ 0x401F;
      candidate = Usable(slot, start, p);
      if (candidate && !Promising(*candidate, p)) candidate.reset();
    }
    table_[slot] = p;
    return candidate;
  }

  static void Extension(Bytes* frame, std::size_t rest) {
    while (rest > 255) {
      frame->push_back(0);
      rest -= 255;
    }
    frame->push_back(static_cast<std::uint8_t>(rest));
  }

  void Literals(Bytes* frame, std::size_t from, std::size_t to, bool tail) const {
    const std::size_t count = to - from;
    if (tail && frame->empty() && count <= 238) {
      frame->push_back(static_cast<std::uint8_t>(17 + count));
    } else if (count <= 3) {
      if (count != 0) {
        std::uint8_t& byte = (*frame)[frame->size() - 2];
        byte = static_cast<std::uint8_t>(byte + count);  // the bits are still 0
      }
    } else if (count <= 18) {
      frame->push_back(static_cast<std::uint8_t>(count - 3));
    } else {
      frame->push_back(0);
      Extension(frame, count - 18);
    }
    for (std::size_t i = from; i < to; ++i) frame->push_back(input_[i]);
  }

  static void Match(Bytes* frame, std::size_t length, std::size_t distance) {
    if (length <= 8 && distance <= 0x800) {
      frame->push_back(static_cast<std::uint8_t>((length - 1) * 32 + (distance - 1) % 8 * 4));
      frame->push_back(static_cast<std::uint8_t>((distance - 1) / 8));
      return;
    }
    const bool middle = distance <= 0x4000;
    const std::size_t part = middle ? distance - 1 : distance - 0x4000;
    const std::size_t direct = middle ? 33 : 9;
    const std::size_t code = middle ? 32 : 16 + part / 0x4000 * 8;
    frame->push_back(static_cast<std::uint8_t>(length <= direct ? code + length - 2 : code));
    if (length > direct) Extension(frame, length - direct);
    frame->push_back(static_cast<std::uint8_t>(part % 64 * 4));
    frame->push_back(static_cast<std::uint8_t>(part % 0x4000 / 64));
  }

  Bytes Frame(std::size_t start, std::size_t end) {
    Bytes frame;
    std::size_t pending = start;
    std::size_t p = start + 4;
    while (end - start > 13 && p < end - 13) {
      const std::optional<std::size_t> c = Search(start, p);
      std::size_t length = 0;
      while (c && p + length < end && input_[*c + length] == input_[p + length]) ++length;
      if (length < 3) {
        ++p;
        continue;
      }
      Literals(&frame, pending, p, false);
      Match(&frame, length, p - *c);
      p += length;
      pending = p;
    }
    Literals(&frame, pending, end, true);
    frame.insert(frame.end(), {0x11, 0, 0});
    return frame;
  }

  std::span<const std::uint8_t> input_;
  std::size_t limit_;
  LzoModelTable& table_;
};

inline std::optional<Bytes> LzoModelCompress(std::span<const std::uint8_t> input,
                                             std::size_t outputLimit) {
  LzoModelTable table = LzoModelEmptyTable();
  return LzoModelCompressor(input, outputLimit, &table).Run();
}

struct LzoModelDecoded {
  int result = 0;
  Bytes output;  // of the whole frames
  std::size_t consumed = 0;
};

class LzoModelDecoder {
 public:
  LzoModelDecoder(std::span<const std::uint8_t> input, std::size_t outputLimit)
      : input_(input), limit_(outputLimit) {}

  LzoModelDecoded Run() {
    LzoModelDecoded decoded;
    while (input_.size() - decoded.consumed >= 3) {
      at_ = decoded.consumed;
      const std::size_t size =
          input_[at_] + std::size_t{256} * input_[at_ + 1] + std::size_t{65536} * input_[at_ + 2];
      at_ += 3;
      if (size != 0 && size > input_.size() - at_) break;
      frameEnd_ = at_ + size;
      frameStart_ = output_.size();
      const Outcome outcome = size == 0 ? kBad : Frame();
      if (outcome != kEnd) {
        decoded.result = outcome == kBad ? -2 : 0;
        break;
      }
      decoded.consumed = frameEnd_;
      decoded.output = output_;
    }
    return decoded;
  }

 private:
  enum Outcome { kGoOn, kEnd, kFull, kBad };

  std::optional<std::size_t> Byte() {
    if (at_ >= frameEnd_) return std::nullopt;
    return input_[at_++];
  }

  // The sum of an extension: 255 for each 0 byte, and the byte that ends it.
  std::optional<std::size_t> Extension() {
    std::size_t sum = 0;
    while (true) {
      const std::optional<std::size_t> byte = Byte();
      if (!byte) return std::nullopt;
      if (*byte != 0) return sum + *byte;
      sum += 255;
    }
  }

  // A run is looked at as a whole: first whether there is room for it, then whether it is there.
  Outcome Literals(std::size_t count) {
    if (count > limit_ - output_.size()) return kFull;
    if (count > frameEnd_ - at_) return kBad;
    for (; count > 0; --count) output_.push_back(input_[at_++]);
    return kGoOn;
  }

  Outcome Copy(std::size_t from, std::size_t count) {
    if (count > limit_ - output_.size()) return kFull;
    for (; count > 0; --count) {
      const std::uint8_t byte = output_[from++];
      output_.push_back(byte);
    }
    sourceEnd_ = from;
    return kGoOn;
  }

  Outcome Match(std::size_t t) {
    std::size_t length = 0;
    std::size_t distance = 0;
    if (t >= 64) {
      const std::optional<std::size_t> high = Byte();
      if (!high) return kBad;
      length = t / 32 + 1;
      distance = t / 4 % 8 + *high * 8 + 1;
    } else if (t >= 16) {
      const std::size_t direct = t % (t >= 32 ? 32 : 8);
      length = direct + 2;
      if (direct == 0) {
        const std::optional<std::size_t> sum = Extension();
        if (!sum) return kBad;
        length = *sum + (t >= 32 ? 33 : 9);
      }
      const std::optional<std::size_t> low = Byte();
      const std::optional<std::size_t> high = Byte();
      if (!low || !high) return kBad;
      distance = *low / 4 + *high * 64;
      if (t >= 32) {
        distance += 1;
      } else {
        distance += t / 8 % 2 * 0x4000;
        if (distance == 0) return kEnd;
        distance += 0x4000;
      }
    } else {
      // No short matches: what the last match was copied from goes on.
      if (t == 0 || !sourceEnd_) return kBad;
      return Copy(*sourceEnd_, t + 2);
    }
    if (distance > output_.size() - frameStart_) return kBad;
    return Copy(output_.size() - distance, length);
  }

  Outcome Frame() {
    output_.resize(frameStart_);
    sourceEnd_.reset();
    bool boundary = true;
    std::optional<std::size_t> t = Byte();
    if (*t > 17) {
      const Outcome outcome = Literals(*t - 17);
      if (outcome != kGoOn) return outcome;
      boundary = false;
      t = Byte();
    }
    while (t) {
      Outcome outcome = kGoOn;
      if (boundary && *t < 16) {
        std::size_t count = *t + 3;
        if (*t == 0) {
          const std::optional<std::size_t> sum = Extension();
          if (!sum) return kBad;
          count = *sum + 18;
        }
        outcome = Literals(count);
        boundary = false;
      } else {
        outcome = Match(*t);
        if (outcome == kGoOn) {
          const std::size_t trailing = input_[at_ - 2] % 4;
          if (trailing > 0) outcome = Literals(trailing);
          boundary = trailing == 0;
        }
      }
      if (outcome != kGoOn) return outcome;
      t = Byte();
    }
    return kBad;
  }

  std::span<const std::uint8_t> input_;
  std::size_t limit_;
  std::size_t at_ = 0;
  std::size_t frameEnd_ = 0;
  Bytes output_;
  std::size_t frameStart_ = 0;
  std::optional<std::size_t> sourceEnd_;
};

inline LzoModelDecoded LzoModelDecompress(std::span<const std::uint8_t> input,
                                          std::size_t outputLimit) {
  return LzoModelDecoder(input, outputLimit).Run();
}

}  // namespace kqtest

#endif
