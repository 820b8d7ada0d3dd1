// The library's only output: lines on the standard error stream, without level, switch or lock.
#ifndef KQ_FOUNDATION_LOG_H
#define KQ_FOUNDATION_LOG_H

namespace kq {

// Prints as printf does, onto standard error. Any thread may call it; it cannot fail.
void KQLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Prints "ASSERT: <text>!" and a line end. An assertion never stops the program: the caller goes on
// with the values it has.
void LogAssertion(const char* text);

}  // namespace kq

#endif
