// KQImageFileFixHeader: the one road on which a finished image file is ever changed.
//
// The header is read as stored and its checksums are compared before anything is deciphered: a file
// that is damaged already is no file to repair. All tests and repairs work in memory. The file is
// written once, at the end, and only if something has changed.
#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

#include "crypto/header_checksums.h"
#include "foundation/little_endian.h"
#include "header/extended_record.h"
#include "header/header_cipher.h"
#include "header/header_issues.h"
#include "header/header_reseal.h"
#include "header/read_header.h"

// The report crosses the library's boundary: clients of all versions rely on each place.
static_assert(offsetof(HeaderIssueReport, issueId) == 0);
static_assert(offsetof(HeaderIssueReport, message) == 8);
static_assert(offsetof(HeaderIssueReport, present) == 16);
static_assert(offsetof(HeaderIssueReport, skipped) == 17);
static_assert(offsetof(HeaderIssueReport, status) == 20);

namespace kq {
namespace {

constexpr char kModule[] = "kqimageapi";

// The most bytes that are deciphered though the file does not hold them, as when a header is read.
constexpr std::uint64_t kMostMissingBytes = 0x4000000;

// What a client asked for.
struct RepairRequest {
  const char* password;
  std::uint64_t* issues;
  bool checkOnly;
  HeaderIssueCallback callback;
  void* callbackArgument;
};

// Whether the later sectors are there in plain text.
struct LaterSectors {
  bool available = false;
  KQStatus failure{};  // of the decipher that should have made them so
};

// Finds the parts of a header that has just been read, and refuses one whose checksums are wrong.
// sectors: as stored.
KQStatus PrepareState(HeapBuffer* sectors, const ImageHeader& header, std::uint32_t headerBytes,
                      HeaderRepairState* state) {
  state->header = sectors->data();
  state->headerBytes = headerBytes;
  if ((header.Flags & KQ_FLAG_EXTENDED_RECORD) != 0) {
    const auto place =
        FindExtendedRecord(std::span(state->header, header.SectorSize), RecordLimit::kSectorEnd);
    if (!place) return KQ_FAIL(kFileCorrupt);
    state->extendedRecord = state->header + *place;
  }
  // A sector below the size of its fields has no room for them at the header's end.
  if (headerBytes > header.SectorSize &&
      sectors->size() - header.SectorSize >= sizeof(ProtectedSector)) {
    state->protectedSector = state->header + header.SectorSize;
  }
  if (state->extendedRecord != nullptr &&
      CheckHeaderChecksums(state->header, state->extendedRecord,
                           state->protectedSector != nullptr) != 0) {
    return KQ_FAIL(kFileCorrupt);
  }
  return Success();
}

// A blob may be longer than what has been read; what is missing is taken as zero, since every
// scheme refuses such a length. Empty if out of memory.
SecretBuffer CopyKeyBlob(const HeapBuffer& sectors, const ImageHeader& header) {
  SecretBuffer keyBlob = SecretBuffer::AllocateZeroed(header.KeyBlobLength);
  if (!keyBlob) return keyBlob;
  std::memcpy(keyBlob.data(), sectors.data() + sizeof header,
              std::min(keyBlob.size(), sectors.size() - sizeof header));
  return keyBlob;
}

// Deciphers the later sectors in place.
KQStatus Decipher(const OSFile* file, const HeaderRepairState& state, const ImageHeader& header,
                  const SecretBuffer& keyBlob, const char* password) {
  std::uint64_t fileBytes = 0;
  KQ_RETURN_IF_FAILED(OSFileGetSize(file, &fileBytes));
  const bool hasPassword = password != nullptr && *password != '\0';
  if (hasPassword && state.headerBytes > fileBytes &&
      state.headerBytes - fileBytes > kMostMissingBytes) {
    return KQ_FAIL(kNotEnoughMemory);
  }
  return DecipherHeaderRun(header.EncryptionType, keyBlob.data(), header.KeyBlobLength, password,
                           state.header + header.SectorSize, state.headerBytes - header.SectorSize);
}

// A key without a check opens with every password; a wrong one shows in what it makes of sector 1.
bool LooksDeciphered(const HeaderRepairState& state, const ImageHeader& header) {
  ProtectedSector fields;
  std::memcpy(&fields, state.protectedSector, sizeof fields);
  return (fields.DiskInfoPresent == 0 || fields.DiskInfoPresent == 0xFFFFFFFF) &&
         fields.TrailingSectors <= header.HeaderSectors - 2;
}

// Tests, and repairs in memory, what was asked for.
KQStatus RunIssues(const RepairRequest& request, const LaterSectors& laterSectors,
                   HeaderRepairState* state) {
  const std::uint64_t asked = *request.issues;
  for (const HeaderIssueRow& row : HeaderIssueTable()) {
    if (!request.checkOnly && (row.issue.id & asked) == 0) continue;
    HeaderIssueReport report{};
    report.issueId = row.issue.id;
    report.message = row.issue.message;
    if (row.needsProtectedSector && !laterSectors.available) {
      report.skipped = 1;
      if (state->protectedSector != nullptr) report.status = laterSectors.failure;
      if (request.callback == nullptr && !request.checkOnly) {
        if (state->protectedSector != nullptr) return laterSectors.failure;
        return KQ_FAIL(kInvalidParameter);
      }
    } else {
      const bool present = row.test(state, request.checkOnly);
      report.present = present ? 1 : 0;
      if (present && request.checkOnly) *request.issues |= row.issue.id;
      // With nobody listening, a repair that finds nothing to repair was asked for in error.
      if (!present && !request.checkOnly && request.callback == nullptr) {
        return KQ_FAIL(kInvalidParameter);
      }
    }
    if (request.callback != nullptr && !request.callback(request.callbackArgument, &report)) {
      return KQ_FAIL(kCancelled);
    }
  }
  return Success();
}

KQStatus CheckOrRepair(const OSAlignedFile& file, const RepairRequest& request) {
  HeapBuffer sectors;
  std::uint32_t headerBytes = 0;
  // Of an enciphered image the sectors come as stored, with a failure for the password that was
  // not given.
  const KQStatus read = ReadHeaderSectors(file, nullptr, 0, 0, true, &sectors, &headerBytes);
  if (!sectors) return read;
  if (Failed(read) && read.status != KQ_STATUS_INVALID_PASSWORD) return read;
  ImageHeader header;
  std::memcpy(&header, sectors.data(), sizeof header);
  HeaderRepairState state;
  KQ_RETURN_IF_FAILED(PrepareState(&sectors, header, headerBytes, &state));

  SecretBuffer keyBlob = CopyKeyBlob(sectors, header);
  if (!keyBlob) return KQ_FAIL(kNotEnoughMemory);
  LaterSectors laterSectors;
  if (state.protectedSector != nullptr) {
    if (header.EncryptionType != KQ_ENCRYPTION_NONE) {
      laterSectors.failure = Decipher(file.file, state, header, keyBlob, request.password);
      if (!Failed(laterSectors.failure) &&
          header.EncryptionType == KQ_ENCRYPTION_AES128_UNCHECKED &&
          !LooksDeciphered(state, header)) {
        laterSectors.failure = KQ_FAIL(kFileCorrupt);
        if (!request.checkOnly) return laterSectors.failure;
      }
    }
    laterSectors.available = !Failed(laterSectors.failure);
  }

  KQ_RETURN_IF_FAILED(RunIssues(request, laterSectors, &state));
  if (!state.firstSectorChanged && !state.laterSectorsChanged) return Success();
  std::uint32_t bytesToWrite = 0;
  KQ_RETURN_IF_FAILED(SealHeader(state, std::move(keyBlob), request.password, &bytesToWrite));
  return WriteHeader(file, state.header, bytesToWrite);
}

}  // namespace
}  // namespace kq

extern "C" KQ_API KQStatus KQImageFileFixHeader(const char* path, const char* password,
                                                uint64_t* issues, uint8_t checkOnly,
                                                HeaderIssueCallback callback,
                                                void* callbackArgument) {
  using namespace kq;
  if (path == nullptr || issues == nullptr) return KQ_FAIL(kInvalidParameter);
  if (checkOnly != 0) *issues = 0;
  OSFile* opened = nullptr;
  KQ_RETURN_IF_FAILED(OSFileOpen(path, checkOnly != 0 ? O_RDONLY : O_RDWR, 0, &opened));
  const OSFileOwner file(opened);
  return CheckOrRepair(MakeAlignedFile(opened),
                       {password, issues, checkOnly != 0, callback, callbackArgument});
}
