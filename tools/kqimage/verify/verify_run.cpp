#include "kqimage/verify/verify_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>
#include <utility>

#include "kqimage/image/sha256_file.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/interrupt.h"
#include "kqimage/verify/ordered_sum.h"

namespace kqimage {
namespace {

// What a thread takes at a time: enough to be worth the taking, and little enough that all threads
// end together.
constexpr std::size_t kBatchChunks = 16;
constexpr std::size_t kKeptDamages = 1000;  // for each file

// The chunks of a task that nobody has taken yet, or its sum.
struct Job {
  std::size_t task = 0;
  std::size_t begin = 0;  // in the task's chunks
  std::size_t end = 0;
  bool isSum = false;
};

std::size_t ThreadCount() { return std::max(std::thread::hardware_concurrency(), 1u); }

class Stopped {};

class VerifyRun {
 public:
  VerifyRun(const std::vector<FileTask>& tasks, const VerifyScope& scope)
      : tasks_(tasks),
        ordered_(tasks.size()),
        findings_(tasks.size()),
        chunks_(tasks.size()),
        stored_(tasks.size()) {
    for (std::size_t i = 0; i < tasks.size(); ++i) AddJobs(i, scope);
  }

  std::vector<FileFindings> Run(const VerifyProgress& progress) {
    {
      const BlockSignals blocked;
      const std::size_t count = ThreadCount();
      running_ = count;
      for (std::size_t i = 0; i < count; ++i) threads_.emplace_back([this] { Work(); });
    }
    try {
      Wait(progress);
    } catch (...) {
      Stop();
      Join();
      throw;
    }
    Join();
    if (failure_) std::rethrow_exception(failure_);
    for (std::size_t i = 0; i < tasks_.size(); ++i) Complete(i);
    return std::move(findings_);
  }

 private:
  void AddJobs(std::size_t task, const VerifyScope& scope) {
    const ImageLayout& layout = *tasks_[task].layout;
    FileFindings& findings = findings_[task];
    if (scope.withSums && !scope.sample) {
      const StoredSum sum = ReadStoredSum(layout.path);
      findings.sum = !sum.exists ? SumVerdict::kAbsent : SumVerdict::kNoLine;
      sums_.push_back(sum.digest.value_or(""));
      if (sum.digest && OrderedSum::IsFor(layout)) {
        ordered_[task] = std::make_unique<OrderedSum>(layout, ThreadCount());
      }
      // First, since nobody can help with it.
      if (sum.digest && !ordered_[task]) jobs_.insert(jobs_.begin(), {.task = task, .isSum = true});
    } else {
      sums_.emplace_back();
    }
    if (!layout.Opens()) return;
    const auto count = static_cast<std::uint32_t>(layout.chunks.size());
    if (scope.sample) {
      chunks_[task] = SampledChunks(count, *scope.sample);
    } else {
      chunks_[task].resize(count);
      std::iota(chunks_[task].begin(), chunks_[task].end(), 0u);
      stored_[task].resize(count);
    }
    jobs_.push_back({.task = task, .end = chunks_[task].size()});
  }

  // Takes a part of the next job; none if all is taken.
  std::optional<Job> Claim() {
    const std::lock_guard lock(mutex_);
    while (nextJob_ < jobs_.size()) {
      Job& job = jobs_[nextJob_];
      Job part = job;
      // One by one where the sum needs them in their order.
      const std::size_t batch = ordered_[job.task] ? 1 : kBatchChunks;
      part.end = std::min(job.begin + batch, job.end);
      job.begin = part.end;
      if (job.isSum || job.begin == job.end) ++nextJob_;
      if (part.isSum || part.begin != part.end) return part;
    }
    return std::nullopt;
  }

  void Stop() {
    isStopping_ = true;
    for (const auto& sum : ordered_) {
      if (sum) sum->Stop();
    }
  }

  void Join() {
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  void Wait(const VerifyProgress& progress) {
    constexpr std::chrono::milliseconds kInterval{50};
    std::unique_lock lock(mutex_);
    while (running_ != 0) {
      changed_.wait_for(lock, kInterval);
      lock.unlock();
      progress(done_);
      lock.lock();
    }
  }

  void Work() {
    try {
      ChunkChecker checker;
      while (const std::optional<Job> job = Claim()) {
        job->isSum ? CheckSum(job->task) : CheckChunks(checker, *job);
      }
    } catch (const Stopped&) {
    } catch (...) {
      Stop();
      const std::lock_guard lock(mutex_);
      failure_ = std::current_exception();
    }
    const std::lock_guard lock(mutex_);
    --running_;
    changed_.notify_all();
  }

  void CheckSum(std::size_t task) {
    const ImageLayout& layout = *tasks_[task].layout;
    std::uint64_t told = 0;
    std::string digest;
    try {
      digest = Sha256OfFile(layout.path, [&](std::uint64_t hashed) {
        if (isStopping_) throw Stopped();
        done_ += hashed - std::exchange(told, hashed);
      });
    } catch (const Failure&) {
      // What can't be read is not what was written; the chunk that it hits is told of as well.
    }
    done_ += layout.fileSize - std::min(told, layout.fileSize);
    const std::lock_guard lock(mutex_);
    findings_[task].sum = digest == sums_[task] ? SumVerdict::kGood : SumVerdict::kWrong;
  }

  void CheckChunks(ChunkChecker& checker, const Job& job) {
    const FileTask& task = tasks_[job.task];
    for (std::size_t at = job.begin; at < job.end; ++at) {
      if (isStopping_) throw Stopped();
      const std::uint32_t chunk = chunks_[job.task][at];
      const ChunkVerdict verdict = CheckChunk(checker, job.task, chunk);
      if (!stored_[job.task].empty()) stored_[job.task][chunk] = verdict.storedSectors;
      done_ += ChunkBytes(*task.layout, chunk);
      const std::lock_guard lock(mutex_);
      Take(*task.layout, chunk, verdict, findings_[job.task]);
    }
  }

  ChunkVerdict CheckChunk(ChunkChecker& checker, std::size_t task, std::uint32_t chunk) {
    const auto& [layout, key] = tasks_[task];
    OrderedSum* const sum = ordered_[task].get();
    if (sum == nullptr) return checker.Check(*layout, chunk, key);
    // Bytes that can't be read are read again for their verdict.
    const std::span<const std::uint8_t> bytes = sum->Read(chunk);
    if (isStopping_) throw Stopped();
    ChunkVerdict verdict = checker.Check(*layout, chunk, key, bytes);
    done_ += sum->Done(chunk);
    return verdict;
  }

  static std::uint64_t ChunkBytes(const ImageLayout& layout, std::uint32_t chunk) {
    const std::uint64_t begin = layout.chunks[chunk].fileOffset;
    const std::uint64_t end = std::min(layout.ChunkLimit(chunk), layout.fileSize);
    return end > begin ? end - begin : 0;
  }

  static void Take(const ImageLayout& layout, std::uint32_t chunk, const ChunkVerdict& verdict,
                   FileFindings& findings) {
    ++findings.checkedChunks;
    if (verdict.isStream) ++findings.streams;
    if (!verdict.damage) return;
    ++findings.damageCount;
    if (verdict.isStream && verdict.isLost) ++findings.badStreams;
    if (findings.damages.size() < kKeptDamages) findings.damages.push_back(*verdict.damage);
    if (verdict.isLost) {
      findings.lostChunks.emplace(chunk, ReadChunkHead(layout, chunk).hasAllRuns);
    }
  }

  // What only shows when all chunks have been seen.
  void Complete(std::size_t task) {
    const ImageLayout& layout = *tasks_[task].layout;
    FileFindings& findings = findings_[task];
    if (ordered_[task]) {
      findings.sum =
          ordered_[task]->Digits() == sums_[task] ? SumVerdict::kGood : SumVerdict::kWrong;
    }
    if (layout.Opens()) FindGaps(task);
    std::stable_sort(findings.damages.begin(), findings.damages.end(),
                     [](const Damage& a, const Damage& b) { return a.chunk < b.chunk; });
    if (findings.sum == SumVerdict::kWrong) {
      ++findings.damageCount;
      findings.damages.push_back(
          {.kind = DamageKind::kSum,
           .text = "its bytes are not those that its .sha256 file was made of",
           .chunk = {},
           .fileOffset = {},
           .closesChain = false});
    }
  }

  // Chunks stand behind each other from the header to the index without a gap. In a sample only
  // the chunks that a damaged index has lost are looked for.
  void FindGaps(std::size_t task) {
    const ImageLayout& layout = *tasks_[task].layout;
    const std::uint64_t sector = layout.header.SectorSize;
    const std::size_t count = layout.chunks.size();
    std::uint64_t end = layout.HeaderBytes();
    if (stored_[task].empty() && count != 0) {
      if (layout.isIndexWhole) return;
      const auto last = static_cast<std::uint32_t>(count - 1);
      end = layout.chunks.back().fileOffset + sector * ReadChunkHead(layout, last).storedSectors;
    } else {
      bool isKnown = true;
      for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t begin = layout.chunks[i].fileOffset;
        if (isKnown && begin != end) AddGap(layout, end, begin, findings_[task]);
        isKnown = stored_[task][i] != 0;
        end = begin + sector * stored_[task][i];
      }
      if (!isKnown && layout.isIndexWhole) return;
    }
    if (end != layout.indexOffset) AddGap(layout, end, layout.indexOffset, findings_[task]);
  }

  static void AddGap(const ImageLayout& layout, std::uint64_t begin, std::uint64_t end,
                     FileFindings& findings) {
    Damage damage = {.kind = DamageKind::kGap,
                     .text = {},
                     .chunk = {},
                     .fileOffset = begin,
                     .closesChain = false};
    if (begin > end) {
      damage.text =
          fmt::format("two chunks overlap: one ends at byte {}, the next begins at {}", begin, end);
    } else {
      const UnlistedChunks unlisted = FindUnlistedChunks(layout, begin, end);
      findings.lostRanges.insert(findings.lostRanges.end(), unlisted.runs.begin(),
                                 unlisted.runs.end());
      if (unlisted.count != 0) {
        damage.kind = DamageKind::kIndex;
        damage.text =
            fmt::format("its index lacks {} chunks, which no reader finds", unlisted.count);
      } else {
        damage.text = fmt::format("{} bytes between its chunks belong to none", end - begin);
      }
      if (!unlisted.fill && !layout.isIndexWhole) AddUnknown(layout, findings);
    }
    ++findings.damageCount;
    findings.damages.push_back(std::move(damage));
  }

  // Nobody can tell what the chunks held that neither the index nor a walk finds: all that the
  // volume has behind the last chunk that is known.
  static void AddUnknown(const ImageLayout& layout, FileFindings& findings) {
    std::uint64_t begin = 0;
    for (const VolumeRange& run : findings.lostRanges) {
      begin = std::max(begin, run.offset + run.length);
    }
    if (begin == 0 && !layout.chunks.empty()) {
      const auto last = static_cast<std::uint32_t>(layout.chunks.size() - 1);
      for (const VolumeRange& run : ReadChunkHead(layout, last).runs) {
        begin = std::max(begin, run.offset + run.length);
      }
    }
    if (begin < layout.header.SourceSize) {
      findings.lostRanges.push_back({begin, layout.header.SourceSize - begin});
    }
  }

  const std::vector<FileTask>& tasks_;
  std::vector<std::string> sums_;  // what the .sha256 files tell
  // Of each task whose sum is computed while its chunks are checked.
  std::vector<std::unique_ptr<OrderedSum>> ordered_;
  std::atomic<std::uint64_t> done_ = 0;
  std::atomic<bool> isStopping_ = false;
  std::vector<std::thread> threads_;

  std::mutex mutex_;  // guards all below while threads run
  std::condition_variable changed_;
  std::size_t running_ = 0;
  std::vector<Job> jobs_;
  std::size_t nextJob_ = 0;
  std::exception_ptr failure_;
  std::vector<FileFindings> findings_;
  std::vector<std::vector<std::uint32_t>> chunks_;  // of each task, those to check
  // The sizes that the heads tell, of all chunks of a task; empty in a sample. Each is written by
  // the one thread that checks its chunk.
  std::vector<std::vector<std::uint32_t>> stored_;
};

}  // namespace

std::vector<std::uint32_t> SampledChunks(std::uint32_t count, double share) {
  std::vector<std::uint32_t> chunks;
  if (count == 0) return chunks;
  const double wanted = std::ceil(static_cast<double>(count) * share);
  const auto sampled = std::clamp<std::uint64_t>(static_cast<std::uint64_t>(wanted), 1, count);
  chunks.reserve(sampled);
  for (std::uint64_t i = 0; i < sampled; ++i) {
    chunks.push_back(static_cast<std::uint32_t>((2 * i + 1) * count / (2 * sampled)));
  }
  return chunks;
}

std::uint64_t VerifyTotal(const std::vector<FileTask>& tasks, const VerifyScope& scope) {
  std::uint64_t total = 0;
  for (const FileTask& task : tasks) {
    const ImageLayout& layout = *task.layout;
    if (scope.withSums && !scope.sample && ReadStoredSum(layout.path).digest) {
      total += layout.fileSize;
    }
    if (!layout.Opens() || layout.indexOffset < layout.HeaderBytes()) continue;
    const auto bytes = static_cast<double>(layout.indexOffset - layout.HeaderBytes());
    total += static_cast<std::uint64_t>(bytes * scope.sample.value_or(1));
  }
  return total;
}

std::vector<FileFindings> VerifyFiles(const std::vector<FileTask>& tasks, const VerifyScope& scope,
                                      const VerifyProgress& progress) {
  return VerifyRun(tasks, scope).Run(progress);
}

}  // namespace kqimage
