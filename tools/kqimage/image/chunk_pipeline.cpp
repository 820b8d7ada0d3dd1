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

// No more than the fewest slots.
constexpr std::uint64_t kKeptChunks = 2;

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
      Remember({offset + position, count});
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
      HelpUntil(lock, [this] { return Released() == submitted_; });
    }
    Stop();
    return failure_;
  }

  std::vector<WrittenPiece> LastPieces() const {
    std::vector<WrittenPiece> pieces;
    for (std::uint64_t n = submitted_ - std::min(submitted_, kKeptChunks); n < submitted_; ++n) {
      const Slot& slot = slots_[n % slots_.size()];
      const std::span<const std::uint8_t> chunk = slot.chunk.ChunkBuffer.bytes();
      std::size_t at = slot.chunk.SectorSize;
      for (const Stored& stored : slot.stored) {
        pieces.push_back({stored.offset, std::as_bytes(chunk.subspan(at, stored.length))});
        at += stored.length;
      }
    }
    return pieces;
  }

  KQStatus Finish() { return kq::FinishNewImageFile(&image_, nullptr); }

  std::string Sum() {
    if (!sum_) return {};
    // What stands behind the chunks: the index and the sector that points to it.
    sum_->UpdateFromFile(path_, summedBytes_);
    return sum_->Digits();
  }

 private:
  // Bytes of the volume that a chunk holds.
  struct Stored {
    std::uint64_t offset = 0;
    std::size_t length = 0;
  };

  struct Slot {
    kq::NewChunk chunk;
    std::vector<Stored> stored;  // in chunk, one behind the other
    kq::EncodedChunk encoded;
    KQStatus status = {};
    bool isEncoded = false;  // guarded by mutex_
  };

  void Remember(const Stored& piece) {
    if (!filled_.empty() && filled_.back().offset + filled_.back().length == piece.offset) {
      filled_.back().length += piece.length;
    } else {
      filled_.push_back(piece);
    }
  }

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
    while (threads_.size() < encoders) threads_.emplace_back([this] { Work(); });
    return kq::Success();
  }

  void Stop() {
    {
      const std::lock_guard lock(mutex_);
      isStopping_ = true;
    }
    WakeAll();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  // Hands the filled chunk to the threads, and puts an empty one in its place.
  KQStatus Submit() {
    {
      std::unique_lock lock(mutex_);
      HelpUntil(lock, [this] { return submitted_ - Released() < slots_.size(); });
      if (isStopping_) return failure_;
      Slot& slot = SlotOf(submitted_);
      std::swap(slot.chunk, image_->Chunk);
      std::swap(slot.stored, filled_);
      slot.isEncoded = false;
      ++submitted_;
      WakeOne();
    }
    filled_.clear();
    kq::ResetChunk(&image_->Chunk);
    return kq::Success();
  }

  // The caller's thread works with the others until isDone holds; but with as many as there are
  // processors it would only take the time of one that adds to the sum, which all else waits for.
  template <class IsDone>
  void HelpUntil(std::unique_lock<std::mutex>& lock, IsDone isDone) {
    while (!isDone() && !isStopping_) {
      if (MayCallerHelp() && WorkOnce(lock)) continue;
      isCallerWaiting_ = true;
      callerWaits_.wait(lock);
      isCallerWaiting_ = false;
    }
  }

  void Work() {
    std::unique_lock lock(mutex_);
    while (!isStopping_) {
      if (WorkOnce(lock)) continue;
      ++idle_;
      idleWait_.wait(lock);
      --idle_;
    }
  }

  // All below with mutex_ held, but for what stands between unlock and lock.

  bool CanSum() const { return sum_ && !isSumming_ && summed_ < appended_; }
  bool CanAppend() {
    return !isAppending_ && appended_ < submitted_ && SlotOf(appended_).isEncoded;
  }
  bool CanEncode() const { return taken_ < submitted_ && !codecs_.empty(); }

  // False if there is nothing to do. Who takes some work wakes another thread if there is more, so
  // that none sleeps while there is work.
  bool WorkOnce(std::unique_lock<std::mutex>& lock) {
    if (CanSum()) {
      AddToSum(lock);
    } else if (CanAppend()) {
      Append(lock);
    } else if (CanEncode()) {
      Encode(lock);
    } else {
      return false;
    }
    return true;
  }

  // An append may wait for the file's device.
  bool MayCallerHelp() const { return computing_ < threads_.size(); }

  void WakeOne() {
    if (!CanSum() && !CanAppend() && !CanEncode()) return;
    if (idle_ > 0) {
      idleWait_.notify_one();
    } else if (isCallerWaiting_ && MayCallerHelp()) {
      callerWaits_.notify_one();
    }
  }

  void WakeAll() {
    idleWait_.notify_all();
    callerWaits_.notify_all();
  }

  void Encode(std::unique_lock<std::mutex>& lock) {
    Slot& slot = SlotOf(taken_++);
    kq::NewChunk& chunk = slot.chunk;
    chunk.Compressor = std::move(codecs_.back());
    codecs_.pop_back();
    ++computing_;
    WakeOne();
    lock.unlock();
    ForgetLastChunk(chunk.Compressor.get());
    slot.status = kq::EncodeChunk(&chunk, &slot.encoded);
    if (!kq::Failed(slot.status) && image_->Key) slot.status = Encipher(slot);
    lock.lock();
    codecs_.push_back(std::move(chunk.Compressor));
    slot.isEncoded = true;
    --computing_;
  }

  // A chunk that is stored as it is is enciphered in a copy: LastPieces tells what was written.
  KQStatus Encipher(Slot& slot) const {
    kq::NewChunk& chunk = slot.chunk;
    if (slot.encoded.source == chunk.ChunkBuffer.data()) {
      if (!chunk.ChunkScratch) {
        chunk.ChunkScratch = kq::HeapBuffer::Allocate(chunk.ChunkBuffer.size());
      }
      const std::size_t length = std::size_t{slot.encoded.storedSectors} * chunk.SectorSize;
      if (chunk.ChunkScratch.size() < length) return KQ_FAIL(kNotEnoughMemory);
      std::memcpy(chunk.ChunkScratch.data(), chunk.ChunkBuffer.data(), length);
      slot.encoded.source = chunk.ChunkScratch.data();
    }
    return kq::EncipherChunk(image_->Key.get(), chunk, slot.encoded);
  }

  void Append(std::unique_lock<std::mutex>& lock) {
    const Slot& slot = SlotOf(appended_);
    isAppending_ = true;
    WakeOne();
    lock.unlock();
    const KQStatus status =
        kq::Failed(slot.status) ? slot.status : kq::AppendChunk(image_.get(), slot.encoded);
    lock.lock();
    isAppending_ = false;
    if (kq::Failed(status)) return Fail(status);
    ++appended_;
    if (!sum_ && isCallerWaiting_) callerWaits_.notify_one();
  }

  void AddToSum(std::unique_lock<std::mutex>& lock) {
    const kq::EncodedChunk& chunk = SlotOf(summed_).encoded;
    isSumming_ = true;
    ++computing_;
    WakeOne();
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
    isSumming_ = false;
    --computing_;
    if (!isDone) return Fail(KQ_FAIL(kNotEnoughMemory));
    ++summed_;
    if (isCallerWaiting_) callerWaits_.notify_one();
  }

  void Fail(const KQStatus& status) {
    if (!isStopping_) failure_ = status;
    isStopping_ = true;
    WakeAll();
  }

  Slot& SlotOf(std::uint64_t chunk) { return slots_[chunk % slots_.size()]; }
  std::uint64_t Released() const { return sum_ ? summed_ : appended_; }

  std::string path_;
  // Its Chunk is the one being filled, and belongs to the caller's thread; all else to the thread
  // that appends. The key is only read.
  kq::NewImageFileOwner image_;
  std::vector<Stored> filled_;  // what image_->Chunk holds
  std::optional<Sha256> sum_;   // of the thread that adds to it
  std::uint64_t summedBytes_ = 0;

  // Chunk n is in slot n % slots_.size(). It belongs to each kind of work in turn: it is filled
  // while n == submitted_, then waits to be taken, appended and summed.
  std::vector<Slot> slots_;
  std::mutex mutex_;  // guards all below while threads run
  std::condition_variable idleWait_;
  std::condition_variable callerWaits_;
  std::vector<kq::Owned<kq::Compressor>> codecs_;  // which no thread uses
  std::uint64_t submitted_ = 0;
  std::uint64_t taken_ = 0;
  std::uint64_t appended_ = 0;
  std::uint64_t summed_ = 0;
  bool isAppending_ = false;
  bool isSumming_ = false;
  std::size_t idle_ = 0;       // threads that wait
  std::size_t computing_ = 0;  // threads that encode or sum
  bool isCallerWaiting_ = false;
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

std::vector<WrittenPiece> ChunkPipeline::LastPieces() const { return state_->LastPieces(); }

KQStatus ChunkPipeline::Finish() { return state_->Finish(); }

std::string ChunkPipeline::Sum() { return state_->Sum(); }

}  // namespace kqimage
