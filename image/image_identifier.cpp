#include "image/image_identifier.h"

#include <uuid/uuid.h>

#include <utility>

namespace kq {

void SwapIdentifierOrder(std::uint8_t* identifier) {
  std::swap(identifier[0], identifier[3]);
  std::swap(identifier[1], identifier[2]);
  std::swap(identifier[4], identifier[5]);
  std::swap(identifier[6], identifier[7]);
}

void GenerateIdentifier(std::uint8_t* identifier) {
  static_assert(sizeof(uuid_t) == kIdentifierBytes);
  uuid_generate(identifier);
  SwapIdentifierOrder(identifier);
}

}  // namespace kq
