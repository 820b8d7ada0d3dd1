#include "kqimage/image/chunk_pipeline.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "codec/huffman_stage.h"
#include "image/header_tail.h"
#include "image/new_image_file.h"
#include "kqimage/image/sha256.h"
#include "kqimage/terminal/interrupt.h"

namespace kqimage {
namespace {

constexpr char kModule[] = "utimagefile";

// The Huffman stage may count a byte behind its input, which tells in the file what the codec has
// worked on before. Here that would be whichever chunk a thread had last.
void ForgetLastChunk(kq::Compressor* codec) {
  if (codec == nullptr || codec->type != KQ_COMPRESSION_LZO_HUFFMAN) return;
  std::memset(codec->workArea.data() + kq::kHuffmanInputOffset, 0, kq::kHuffmanInputLimit);
}

}  // namespace

class ChunkPipeline::State {
 public:
  ~State() { Stop(); }

  KQStatus Open(const std::string& path, std::span<const std::byte> headerTemplate,
                const char* password, std::uint64_t volumeSize, const char* comment,
                const ChunkPipelineOptions& options) {
    path_ = path;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(headerTemplate.data());
    KQ_RETURN_IF_FAILED(
        kq::CreateNewImageFile({.headerTemplate = bytes,
                                .templateBytes = static_cast<std::uint32_t>(headerTemplate.size()),
                                .password = password,
                                .fileName = path.c_str(),
                                .sourceSize = &volumeSize,
                                .imageId = reinterpret_cast<const std::uint8_t*>(options.imageId)},
                               &image_));
    kq::CompleteHeaderSector(image_.get(), comment);
    image_->HeaderIsComplete = true;
    if (options.withSum) {
      sum_.emplace();
      sum_->Update(std::as_bytes(image_->Header.bytes()));
      summedBytes_ = image_->headerBytes();
    }
    return Start(options.threads != 0 ? options.threads : std::thread::hardware_concurrency());
  }

  KQStatus Write(std::uint64_t offset, std::span<const std::byte> bytes) {
    const auto copy = [&](std::uint32_t position, std::uint8_t* target, std::uint32_t count) {
      std::memcpy(target, bytes.data() + position, count);
      return kq::Success();
    };
    return kq::AppendPieces(
        &image_->Chunk, copy, [this] { return Submit(); }, static_cast<std::uint32_t>(bytes.size()),
        offset);
  }

  KQStatus Flush() {
    if (!image_->Chunk.IsEmpty()) KQ_RETURN_IF_FAILED(Submit());
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return Released() == submitted_ || isStopping_; });
    }
    Stop();
    return failure_;
  }

  KQStatus Finish() { return kq::FinishNewImageFile(&image_, nullptr); }

  std::string Sum() {
    if (!sum_) return {};
    // What stands behind the chunks: the index and the sector that points to it.
    sum_->UpdateFromFile(path_, summedBytes_);
    return sum_->Digits();
  }

 private:
  struct Slot {
    kq::NewChunk chunk;
    kq::EncodedChunk encoded;
    KQStatus status = {};
    bool isEncoded = false;  // guarded by mutex_
  };

  KQStatus Start(std::size_t encoders) {
    encoders = std::max<std::size_t>(encoders, 1);
    const std::uint32_t type = image_->header()->CompressionType;
    slots_.resize(2 * encoders + 1);
    for (Slot& slot : slots_) {
      KQ_RETURN_IF_FAILED(
          kq::PrepareChunk(&slot.chunk, image_->SectorSize, image_->Chunk.ChunkBufferSize));
    }
    // A codec is large, and belongs to a thread rather than to a chunk; the first one is there.
    codecs_.push_back(std::move(image_->Chunk.Compressor));
    while (codecs_.size() < encoders) {
      kq::NewChunk made;
      KQ_RETURN_IF_FAILED(kq::MakeCompressor(&made, type));
      codecs_.push_back(std::move(made.Compressor));
    }
    const BlockSignals blocked;
    threads_.emplace_back([this] { Append(); });
    if (sum_) threads_.emplace_back([this] { AddToSum(); });
    for (auto& codec : codecs_) threads_.emplace_back([this, &codec] { Encode(codec); });
    return kq::Success();
  }

  void Stop() {
    {
      const std::lock_guard lock(mutex_);
      isStopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  // Hands the filled chunk to the threads, and puts an empty one in its place.
  KQStatus Submit() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return submitted_ - Released() < slots_.size() || isStopping_; });
    if (isStopping_) return failure_;
    Slot& slot = SlotOf(submitted_);
    std::swap(slot.chunk, image_->Chunk);
    slot.isEncoded = false;
    ++submitted_;
    lock.unlock();
    changed_.notify_all();
    kq::ResetChunk(&image_->Chunk);
    return kq::Success();
  }

  void Encode(kq::Owned<kq::Compressor>& codec) {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return taken_ < submitted_ || isStopping_; });
      if (isStopping_) return;
      Slot& slot = SlotOf(taken_++);
      lock.unlock();
      ForgetLastChunk(codec.get());
      slot.chunk.Compressor = std::move(codec);
      slot.status = kq::EncodeChunk(&slot.chunk, &slot.encoded);
      codec = std::move(slot.chunk.Compressor);
      if (!kq::Failed(slot.status)) {
        slot.status = kq::EncipherChunk(image_->Key.get(), slot.chunk, slot.encoded);
      }
      lock.lock();
      slot.isEncoded = true;
      changed_.notify_all();
    }
  }

  void Append() {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] {
        return (appended_ < submitted_ && SlotOf(appended_).isEncoded) || isStopping_;
      });
      if (isStopping_) return;
      const Slot& slot = SlotOf(appended_);
      lock.unlock();
      const KQStatus status =
          kq::Failed(slot.status) ? slot.status : kq::AppendChunk(image_.get(), slot.encoded);
      lock.lock();
      if (kq::Failed(status)) return Fail(status);
      ++appended_;
      changed_.notify_all();
    }
  }

  void AddToSum() {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return summed_ < appended_ || isStopping_; });
      if (isStopping_) return;
      const kq::EncodedChunk& chunk = SlotOf(summed_).encoded;
      lock.unlock();
      const std::size_t length = std::size_t{chunk.storedSectors} * image_->SectorSize;
      bool isDone = false;
      try {
        sum_->Update(std::as_bytes(std::span(chunk.source, length)));
        isDone = true;
      } catch (const std::bad_alloc&) {
      }
      summedBytes_ += length;
      lock.lock();
      if (!isDone) return Fail(KQ_FAIL(kNotEnoughMemory));
      ++summed_;
      changed_.notify_all();
    }
  }

  // With mutex_ held.
  void Fail(const KQStatus& status) {
    if (!isStopping_) failure_ = status;
    isStopping_ = true;
    changed_.notify_all();
  }

  Slot& SlotOf(std::uint64_t chunk) { return slots_[chunk % slots_.size()]; }
  std::uint64_t Released() const { return sum_ ? summed_ : appended_; }

  std::string path_;
  // Its Chunk is the one being filled, and belongs to the caller's thread; all else to the thread
  // that appends, until that has ended. The key is only read.
  kq::NewImageFileOwner image_;
  std::vector<kq::Owned<kq::Compressor>> codecs_;  // one for each thread that encodes
  std::optional<Sha256> sum_;                      // of the thread that computes it
  std::uint64_t summedBytes_ = 0;

  // Chunk n is in slot n % slots_.size(). It belongs to each of the threads in turn: it is filled
  // while n == submitted_, then waits to be taken, appended and summed.
  std::vector<Slot> slots_;
  std::mutex mutex_;  // guards all below while threads run
  std::condition_variable changed_;
  std::uint64_t submitted_ = 0;
  std::uint64_t taken_ = 0;
  std::uint64_t appended_ = 0;
  std::uint64_t summed_ = 0;
  bool isStopping_ = false;
  KQStatus failure_ = kq::Success();
  std::vector<std::thread> threads_;
};

ChunkPipeline::ChunkPipeline() = default;
ChunkPipeline::~ChunkPipeline() = default;

KQStatus ChunkPipeline::Open(const std::string& path, std::span<const std::byte> headerTemplate,
                             const char* password, std::uint64_t volumeSize, const char* comment,
                             const ChunkPipelineOptions& options) {
  state_ = std::make_unique<State>();
  return state_->Open(path, headerTemplate, password, volumeSize, comment, options);
}

KQStatus ChunkPipeline::Write(std::uint64_t offset, std::span<const std::byte> bytes) {
  return state_->Write(offset, bytes);
}

KQStatus ChunkPipeline::Flush() { return state_->Flush(); }

KQStatus ChunkPipeline::Finish() { return state_->Finish(); }

std::string ChunkPipeline::Sum() { return state_->Sum(); }

}  // namespace kqimage
