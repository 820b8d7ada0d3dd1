#include "kqimage/commands/chain_argument.h"

#include <algorithm>
#include <cstring>

#include "kqimage/image/chain_finder.h"
#include "kqimage/terminal/failure.h"

namespace kqimage {

Chain ResolveChain(const std::vector<std::string>& files, const std::vector<std::string>& folders) {
  if (files.size() == 1) return FindChain(files.front(), folders);
  if (!folders.empty()) {
    throw UsageFailure("--search looks for the files behind one FILE, and here all are named");
  }
  return OrderChain(files);
}

const ImageFile& NewestImage(const Chain& chain) {
  const ImageFileInfo& last = chain.back().info;
  return *std::find_if(chain.begin(), chain.end(), [&](const ImageFile& file) {
    return std::memcmp(file.info.imageId, last.imageId, sizeof last.imageId) == 0;
  });
}

}  // namespace kqimage
