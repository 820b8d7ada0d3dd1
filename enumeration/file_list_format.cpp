#include "enumeration/file_list_format.h"

#include <cstring>
#include <limits>

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

// Hands the text of a list, piece by piece, to append.
template <class Append>
class ListWriter {
 public:
  ListWriter(std::uint32_t flags, const char* separator, const Append& append)
      : flags_(flags), separator_(separator != nullptr ? separator : " "), append_(append) {}

  void Write(const FileList& files) {
    for (const EnumeratedFile* file : files) {
      WriteItem(*file, isFirst_ || Has(KQ_LIST_FULL_PATHS));
      if (!Has(KQ_LIST_WITH_PARTS) || file->lastPart != 0) continue;
      for (const auto& part : file->parts) WriteItem(*part, Has(KQ_LIST_FULL_PATHS));
    }
  }

 private:
  bool Has(std::uint32_t flag) const { return (flags_ & flag) != 0; }

  void WriteItem(const EnumeratedFile& file, bool withDirectory) {
    if (!isFirst_) append_(separator_);
    isFirst_ = false;
    if (!Has(KQ_LIST_NO_QUOTES)) append_("\"");
    if (withDirectory) {
      append_(Has(KQ_LIST_PLAIN_PATHS) ? file.directory->plainPath : file.directory->path);
    }
    append_(file.name);
    if (!Has(KQ_LIST_NO_QUOTES)) append_("\"");
  }

  std::uint32_t flags_;
  std::string_view separator_;
  const Append& append_;
  bool isFirst_ = true;
};

// Whether a text of that length, with its NUL, fits. If it does not, the size needed is stored.
KQStatus CheckSize(std::uint64_t length, const char* buffer, std::uint32_t* size) {
  if (length >= std::numeric_limits<std::uint32_t>::max()) return KQ_FAIL(kNotEnoughMemory);
  const auto needed = static_cast<std::uint32_t>(length + 1);
  if (buffer != nullptr && *size >= needed) return Success();
  *size = needed;
  return KQ_FAIL(kMoreData);
}

}  // namespace

KQStatus FileListFormat(const FileList& files, std::uint32_t flags, const char* separator,
                        char* buffer, std::uint32_t* size) {
  std::uint64_t length = 0;
  const auto measure = [&](std::string_view piece) { length += piece.size(); };
  ListWriter(flags, separator, measure).Write(files);
  KQ_RETURN_IF_FAILED(CheckSize(length, buffer, size));

  char* end = buffer;
  const auto copy = [&](std::string_view piece) {
    end = static_cast<char*>(mempcpy(end, piece.data(), piece.size()));
  };
  ListWriter(flags, separator, copy).Write(files);
  *end = '\0';
  return Success();
}

KQStatus DeliverText(std::string_view text, char* buffer, std::uint32_t* size) {
  KQ_RETURN_IF_FAILED(CheckSize(text.size(), buffer, size));
  std::memcpy(buffer, text.data(), text.size());
  buffer[text.size()] = '\0';
  return Success();
}

}  // namespace kq
