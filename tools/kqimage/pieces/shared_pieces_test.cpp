#include "kqimage/pieces/shared_pieces.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>

#include "kqimage/pieces/read_ahead.h"

namespace kqimage {
namespace {

constexpr std::uint64_t kPiece = kSharedPieceBytes;
constexpr std::uint64_t kCell = kPieceBytes;
constexpr std::uint64_t kStretch = kSharedStretchBytes;

void IgnoreProgress(std::uint64_t) {}

// What works were called with.
class Calls {
 public:
  PieceWork Work(std::size_t thread) {
    return [this, thread](std::uint64_t offset, std::span<std::byte> bytes) {
      std::fill(bytes.begin(), bytes.end(), std::byte{0xAB});
      const std::lock_guard lock(mutex_);
      EXPECT_TRUE(lengths.emplace(offset, bytes.size()).second) << "twice: " << offset;
      threads[offset] = thread;
    };
  }
  std::vector<PieceWork> Works(std::size_t count) {
    std::vector<PieceWork> works;
    for (std::size_t i = 0; i < count; ++i) works.push_back(Work(i));
    return works;
  }

  std::map<std::uint64_t, std::uint64_t> lengths;
  std::map<std::uint64_t, std::size_t> threads;

 private:
  std::mutex mutex_;
};

TEST(SharedPieces, EachPieceIsWorkedOnOnce) {
  for (const std::size_t threads : {1U, 2U, 5U}) {
    for (const std::uint64_t size : {std::uint64_t{1}, kPiece, kPiece + 1, kStretch - 1, kStretch,
                                     kStretch + 1, 3 * kStretch + 2 * kPiece + 77}) {
      SCOPED_TRACE(std::to_string(threads) + " threads, " + std::to_string(size));
      Calls calls;
      WorkOnPieces(size, nullptr, calls.Works(threads), IgnoreProgress);
      std::uint64_t next = 0;
      for (const auto& [offset, length] : calls.lengths) {
        EXPECT_EQ(offset, next);
        EXPECT_EQ(length, std::min(kPiece, size - offset));
        next += length;
      }
      EXPECT_EQ(next, size);
    }
  }
}

TEST(SharedPieces, AVolumeWithoutBytesHasNoPiece) {
  Calls calls;
  WorkOnPieces(0, nullptr, calls.Works(2), IgnoreProgress);
  EXPECT_TRUE(calls.lengths.empty());
}

TEST(SharedPieces, AStretchIsOneThreads) {
  Calls calls;
  WorkOnPieces(9 * kStretch + 1, nullptr, calls.Works(3), IgnoreProgress);
  for (const auto& [offset, thread] : calls.threads) {
    EXPECT_EQ(thread, calls.threads.at(offset / kStretch * kStretch)) << offset;
  }
}

TEST(SharedPieces, ThreadsWorkAtTheSameTime) {
  DataCells cells(kStretch + kPiece);
  cells.Mark(0, 1);
  cells.Mark(kStretch, 1);
  std::latch bothWork(2);
  const PieceWork work = [&](std::uint64_t offset, std::span<std::byte>) {
    if (offset % kStretch == 0) bothWork.arrive_and_wait();
  };
  WorkOnPieces(kStretch + kPiece, &cells, {work, work}, IgnoreProgress);
}

TEST(SharedPieces, WhatHasNoDataIsLeftOutAndCountsAsDone) {
  constexpr std::uint64_t kSize = std::uint64_t{8} << 40;
  DataCells cells(kSize);
  cells.Mark(kCell, 1);
  cells.Mark(2 * kStretch - 1, 2);
  cells.Mark(kSize / 2 + 3 * kCell, 2 * kCell);
  cells.Mark(kSize - 1, 1);
  for (const std::size_t threads : {1U, 3U}) {
    Calls calls;
    std::uint64_t done = 0;
    WorkOnPieces(kSize, &cells, calls.Works(threads), [&done](std::uint64_t now) {
      EXPECT_GE(now, done);
      done = now;
    });
    std::map<std::uint64_t, std::uint64_t> expected;
    for (const std::uint64_t cell : {kCell, 2 * kStretch - kCell, 2 * kStretch,
                                     kSize / 2 + 3 * kCell, kSize / 2 + 4 * kCell, kSize - kCell}) {
      for (std::uint64_t at = 0; at < kCell; at += kPiece) expected[cell + at] = kPiece;
    }
    EXPECT_EQ(calls.lengths, expected);
    EXPECT_EQ(done, kSize);
  }
}

std::string FailureOf(std::uint64_t size, const std::vector<PieceWork>& works) {
  try {
    WorkOnPieces(size, nullptr, works, IgnoreProgress);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "none";
}

TEST(SharedPieces, TheFailureAtTheLowestOffsetComesOutWhateverThreadIsFirst) {
  // The second stretch fails before the first one, whose pieces are all worked on until its own.
  std::latch laterHasFailed(1);
  std::atomic<int> pieces = 0;
  const PieceWork work = [&](std::uint64_t offset, std::span<std::byte>) {
    if (offset >= kStretch) {
      laterHasFailed.count_down();
      throw std::runtime_error("later");
    }
    if (offset == 0) laterHasFailed.wait();
    ++pieces;
    if (offset == kStretch - kPiece) throw std::runtime_error("first");
  };
  EXPECT_EQ(FailureOf(2 * kStretch - kPiece, {work, work}), "first");
  EXPECT_EQ(pieces, static_cast<int>(kStretch / kPiece));
}

TEST(SharedPieces, BehindAFailureNothingIsBegun) {
  std::uint64_t last = 0;
  const PieceWork work = [&](std::uint64_t offset, std::span<std::byte>) {
    last = offset;
    if (offset == kStretch + kPiece) throw std::runtime_error("here");
  };
  EXPECT_EQ(FailureOf(9 * kStretch, {work}), "here");
  EXPECT_EQ(last, kStretch + kPiece);
}

TEST(SharedPieces, WhatProgressThrowsEndsTheWork) {
  struct Enough {};
  constexpr std::uint64_t kPieces = std::uint64_t{1} << 32;  // nobody waits for the last of them
  std::atomic<std::uint64_t> pieces = 0;
  const PieceWork work = [&](std::uint64_t, std::span<std::byte>) { ++pieces; };
  EXPECT_THROW(WorkOnPieces(kPieces * kPiece, nullptr, {work, work},
                            [&](std::uint64_t) {
                              if (pieces != 0) throw Enough();
                            }),
               Enough);
  EXPECT_LT(pieces, kPieces);
}

}  // namespace
}  // namespace kqimage
