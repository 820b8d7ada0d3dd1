#include "image/new_image_file.h"

namespace kq {

void DestroyNewImageFile(NewImageFile* image) { ObjectDeleter<NewImageFile>()(image); }

}  // namespace kq
