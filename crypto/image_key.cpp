#include "crypto/image_key.h"

#include <cstring>
#include <type_traits>

namespace kq {

static_assert(std::is_trivial_v<AES_KEY> && std::is_trivial_v<Rc4State>,
              "the union's members need no construction");

CryptoContext::CryptoContext() {
  std::memset(&rc4, 0, sizeof rc4);
  std::memset(&schedule, 0, sizeof schedule);
}

CryptoContext::~CryptoContext() { Wipe(this, sizeof *this); }

}  // namespace kq
