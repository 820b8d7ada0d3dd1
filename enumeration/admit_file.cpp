#include "enumeration/admit_file.h"

#include "enumeration/enumerated_image.h"

namespace kq {
namespace {

constexpr char kModule[] = "ImageFilesEnumer";

}  // namespace

KQStatus AdmitFile(ImageFilesEnumeration* enumeration, const EnumeratedDirectory& directory,
                   const std::string& name) {
  ImageFileInfo2 info;
  KQ_RETURN_IF_FAILED(ReadImageInfo(directory, name, &info));
  if (!IsFitForEnumeration(info)) return KQ_FAIL(kInvalidData);
  std::unique_ptr<EnumeratedFile> file = MakeEnumeratedFile(directory, name, info);
  if (file->lastPart == 0) CollectParts(file.get());
  enumeration->Admit(std::move(file));
  return Success();
}

}  // namespace kq
