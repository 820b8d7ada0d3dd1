#include "kqimage/volume/file_system_probe.h"

#include <blkid/blkid.h>

#include <memory>

namespace kqimage {
namespace {

std::string Value(blkid_probe probe, const char* name) {
  const char* text = nullptr;
  return blkid_probe_lookup_value(probe, name, &text, nullptr) == 0 ? text : std::string();
}

}  // namespace

FileSystem ProbeFileSystem(int fd, std::uint64_t offset, std::uint64_t length) {
  const std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(blkid_new_probe(),
                                                                               blkid_free_probe);
  if (!probe || blkid_probe_set_device(probe.get(), fd, static_cast<blkid_loff_t>(offset),
                                       static_cast<blkid_loff_t>(length)) != 0) {
    return {};
  }
  blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL);
  if (blkid_do_safeprobe(probe.get()) != 0) return {};
  return {.name = Value(probe.get(), "TYPE"), .label = Value(probe.get(), "LABEL")};
}

}  // namespace kqimage
