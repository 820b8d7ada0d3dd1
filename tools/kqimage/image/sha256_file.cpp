#include "kqimage/image/sha256_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "kqimage/image/sha256.h"
#include "kqimage/pieces/read_ahead.h"
#include "kqimage/system/read_at.h"
#include "kqimage/system/unique_fd.h"
#include "kqimage/terminal/failure.h"
#include "kqimage/terminal/text.h"

namespace kqimage {
namespace {

constexpr std::size_t kDigits = 64;
// A file of sums is small; what is larger is none.
constexpr std::size_t kMaxSumFile = std::size_t{1} << 20;

std::string NameOf(const std::string& path) {
  return std::filesystem::path(path).filename().string();
}

std::string Unescaped(std::string_view text) {
  std::string name;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      name += text[i];
      continue;
    }
    const char next = text[++i];
    name += next == 'n' ? '\n' : next == 'r' ? '\r' : next;
  }
  return name;
}

// The digest in a line, if it is one about the name.
std::optional<std::string> DigestIn(std::string_view line, const std::string& name) {
  const bool isEscaped = line.starts_with('\\');
  if (isEscaped) line.remove_prefix(1);
  if (line.size() < kDigits + 3 || line[kDigits] != ' ') return std::nullopt;
  if (line[kDigits + 1] != ' ' && line[kDigits + 1] != '*') return std::nullopt;
  std::string digest(line.substr(0, kDigits));
  for (char& digit : digest) {
    if (std::isxdigit(static_cast<unsigned char>(digit)) == 0) return std::nullopt;
    digit = static_cast<char>(std::tolower(static_cast<unsigned char>(digit)));
  }
  const std::string_view rest = line.substr(kDigits + 2);
  std::string told = isEscaped ? Unescaped(rest) : std::string(rest);
  if (told.starts_with("./")) told.erase(0, 2);
  if (told != name) return std::nullopt;
  return digest;
}

bool Exists(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

void WriteText(const std::string& path, std::string_view text) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd) FailErrno(errno, "open", path);
  while (!text.empty()) {
    const ssize_t written = write(fd.Get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) FailErrno(errno, "write", path);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

std::string SumPath(const std::string& path) { return path + ".sha256"; }

std::string Sha256OfFile(const std::string& path, const HashProgress& progress) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) FailErrno(errno, "open", path);
  posix_fadvise(fd.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  Sha256 sum;
  std::uint64_t next = 0;
  ReadAhead pieces([&fd, &path, &next](Piece& piece) {
    piece.offset = next;
    piece.length = ReadAt(fd.Get(), next, std::span(piece.buffer, kPieceBytes), path);
    next += piece.length;
    return piece.length != 0;
  });
  while (const Piece* piece = pieces.Next()) {
    progress(piece->offset);
    sum.Update(piece->Bytes());
  }
  return sum.Digits();
}

std::string SumLine(const std::string& digest, const std::string& name) {
  std::string told;
  for (const char c : name) {
    told += c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\\' ? "\\\\" : std::string(1, c);
  }
  return (told == name ? "" : "\\") + digest + "  " + told + "\n";
}

StoredSum ReadStoredSum(const std::string& path) {
  StoredSum sum;
  const std::string sumPath = SumPath(path);
  // O_NONBLOCK so that a pipe under that name keeps nobody waiting.
  const UniqueFd fd(open(sumPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd && errno == ENOENT) return sum;
  if (!fd) FailErrno(errno, "open", sumPath);
  sum.exists = true;
  std::vector<std::byte> bytes(kMaxSumFile);
  bytes.resize(ReadAt(fd.Get(), 0, bytes, sumPath));
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::string name = NameOf(path);
  while (!text.empty() && !sum.digest) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    sum.digest = DigestIn(text.substr(0, end), name);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return sum;
}

void RefuseExistingSum(const std::string& path, OutputFile::Existing existing) {
  if (existing == OutputFile::Existing::kReplace || !Exists(SumPath(path))) return;
  throw Failure(fmt::format("{} exists already; --force replaces it, --no-sha256 leaves it alone",
                            Printable(SumPath(path))));
}

void CommitWithSum(OutputFile& image, const std::string& path, OutputFile::Existing existing,
                   const std::optional<std::string>& digest) {
  const std::string sumPath = SumPath(path);
  const bool isReplaced = existing == OutputFile::Existing::kReplace && Exists(path);
  std::optional<OutputFile> sum;
  if (digest) {
    sum.emplace(sumPath, existing, OutputFile::Growth::kUnderPartialName);
    WriteText(sum->WritePath(), SumLine(*digest, NameOf(path)));
  }
  // At no moment a sum stands beside an image that it is not about.
  if (isReplaced && Exists(sumPath) && unlink(sumPath.c_str()) != 0) {
    FailErrno(errno, "remove", sumPath);
  }
  image.Commit();
  if (sum) sum->Commit();
}

MendedSum::MendedSum(const std::string& path, const HashProgress& progress) : path_(path) {
  const StoredSum sum = ReadStoredSum(path);
  if (!sum.digest) return;
  const std::string line = SumLine(*sum.digest, NameOf(path));
  wasGood_ = std::filesystem::file_size(SumPath(path)) == line.size() &&
             Sha256OfFile(path, progress) == *sum.digest;
}

void MendedSum::Complete(const HashProgress& progress) const {
  if (!wasGood_) return;
  const std::string digest = Sha256OfFile(path_, progress);
  OutputFile sum(SumPath(path_), OutputFile::Existing::kReplace,
                 OutputFile::Growth::kUnderPartialName);
  WriteText(sum.WritePath(), SumLine(digest, NameOf(path_)));
  sum.Commit();
}

}  // namespace kqimage
