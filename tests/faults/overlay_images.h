// A chain and a sparse file to lay over it, or to make an increment of.
#ifndef KQ_TESTS_FAULTS_OVERLAY_IMAGES_H
#define KQ_TESTS_FAULTS_OVERLAY_IMAGES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tests/faults/fault_images.h"
#include "tests/faults/scenario.h"

namespace kqtest {

struct Overlay {
  std::string chain;  // one image, RawImage
  const char* password = nullptr;
  std::string prepared;  // a sparse file with two extents, not touched
  std::string sparse;    // its copy
  std::string newImage;
  std::uint64_t sparseHandle = 0;
  std::uint64_t handle = 0;
  Bytes buffer;
  std::uint32_t count = 0;

  static constexpr std::uint64_t kLower = 512;     // over the image's first chunk
  static constexpr std::uint64_t kUpper = 0x8000;  // where the image has a hole
  static Bytes LowerData() { return PatternBytes(21, 1024); }
  static Bytes UpperData() { return PatternBytes(22, 1024); }
  // The volume up to the end of the upper extent.
  static Bytes Volume();

  void CopyPrepared() const;
  KQStatus OpenSparse();
  KQStatus OpenChain();
  // begin of what works on an open chain with its overlay.
  void OpenBoth();
  KQStatus Read();
  void ExpectVolume() const;
  void ExpectZeros() const;
  KQStatus CloseChain(const char* name, bool deleteSparse);
  // The chain, if it is open, and the files that were made.
  void CleanUp();

  // What a conversion must have made, and what it may have made where it has failed or has left
  // something out: no image at all, one that no reader accepts, or a sound one.
  void ExpectNewImage() const;
  void ExpectNoBrokenImage() const;
};

std::shared_ptr<Overlay> PrepareOverlay(const TempDir& folder, std::uint32_t encryptionType);

// The calls of a conversion behind the creation of its file.
bool IsBehindCreation(std::span<const MadeCall> calls, std::size_t i);
// The data that can't be read is left out, and so is a last chunk that can't be written.
std::optional<Effect> EffectInConversion(std::span<const MadeCall> calls, std::size_t i);

}  // namespace kqtest

#endif
