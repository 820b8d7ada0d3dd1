#include "kqimage/verify/verify_losses.h"

#include <algorithm>

namespace kqimage {
namespace {

class Painter {
 public:
  void Paint(const ImageLayout& layout, const FileFindings& findings,
             const std::function<void()>& interrupt) {
    const bool isSuspect = findings.sum == SumVerdict::kWrong;
    const bool isSound = findings.lostChunks.empty() && findings.lostRanges.empty() && !isSuspect;
    if (isSound && lost_.IsEmpty() && suspect_.IsEmpty()) return;
    for (const VolumeRange& range : findings.lostRanges) MarkLost(range);
    for (std::size_t i = layout.chunks.size(); i-- > 0;) {
      interrupt();
      const auto chunk = static_cast<std::uint32_t>(i);
      const auto lost = findings.lostChunks.find(chunk);
      if (lost != findings.lostChunks.end() && !lost->second) {
        MarkLost(SpanOfChunk(layout, chunk));
        continue;
      }
      const ChunkHeadReading head = ReadChunkHead(layout, chunk);
      const bool isZero = head.storedSectors == 1;
      for (const VolumeRange& run : head.runs) {
        if (lost != findings.lostChunks.end()) {
          MarkLost(run);
        } else {
          lost_.Remove(run);
          isSuspect && !isZero ? suspect_.Add(run) : suspect_.Remove(run);
        }
      }
    }
  }

  static std::vector<VolumeRange> Within(RangeSet set, std::uint64_t volumeSize) {
    set.CutAt(volumeSize);
    return set.Ranges();
  }

  const RangeSet& Lost() const { return lost_; }
  const RangeSet& Suspect() const { return suspect_; }

 private:
  void MarkLost(const VolumeRange& range) {
    lost_.Add(range);
    suspect_.Remove(range);
  }

  RangeSet lost_;
  RangeSet suspect_;
};

}  // namespace

std::vector<ImageLoss> ComputeLosses(const VerifiedChain& chain, const LayoutStore& store,
                                     const std::vector<FileFindings>& findings,
                                     const std::function<void()>& interrupt) {
  std::vector<ImageLoss> losses;
  Painter painter;
  const auto lacks = [&](DamageKind kind, const ImageId& image) {
    return std::any_of(chain.missing.begin(), chain.missing.end(), [&](const MissingFile& file) {
      return file.damage.kind == kind &&
             (kind == DamageKind::kMissingParent || file.image == image);
    });
  };
  bool opens = !lacks(DamageKind::kMissingParent, {});
  ImageId id = {};
  for (std::size_t i = 0; i < chain.files.size(); ++i) {
    const std::size_t file = chain.files[i];
    const ImageLayout& layout = store.At(file);
    const ImageId next = ImageIdOf(layout.header.ImageId);
    if (i == 0 || next != id) {
      losses.push_back({.file = file, .volumeSize = 0, .opens = false, .lost = {}, .suspect = {}});
    }
    id = next;
    opens = opens && layout.Opens() && !lacks(DamageKind::kMissingPart, id);
    if (opens) painter.Paint(layout, findings[file], interrupt);
    ImageLoss& loss = losses.back();
    loss.volumeSize = layout.hasHeader ? layout.header.SourceSize : 0;
    loss.opens = opens;
    if (opens) {
      loss.lost = Painter::Within(painter.Lost(), loss.volumeSize);
      loss.suspect = Painter::Within(painter.Suspect(), loss.volumeSize);
    } else if (loss.volumeSize != 0) {
      loss.lost = {{0, loss.volumeSize}};
      loss.suspect.clear();
    }
  }
  return losses;
}

}  // namespace kqimage
