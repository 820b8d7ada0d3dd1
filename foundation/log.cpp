#include "foundation/log.h"

#include <cstdarg>
#include <cstdio>

namespace kq {

void KQLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
}

void LogAssertion(const char* text) { KQLog("ASSERT: %s!\n", text); }

}  // namespace kq
