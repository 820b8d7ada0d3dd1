// The interface of the stream encoders of compression types 3 and 4.
//
// A stream codec is resumable: it is given a range of input and a range of output and is run until
// both sides are done, keeping all its state between the calls; wherever either side is cut, the
// stream stays the same. It keeps the pointers it was given only until the next SetInput or
// SetOutput. One thread at a time may use it. The order of the operations is fixed.
//
// A whole stream is made by: Reset; SetInput with the data; SetOutput; Run; SetInput with length 0,
// which says that no more comes; Run until it returns false. Before that last SetInput a result of
// true asks for more room and false for more input. After it, true asks for another call, with more
// room if the output is full; false tells that all is done.
//
// Neither stream has a header, a length or an end code of its own.
#ifndef KQ_CODEC_STREAM_CODEC_H
#define KQ_CODEC_STREAM_CODEC_H

#include <cstdint>
#include <memory>

#include "foundation/memory.h"

namespace kq {

class StreamCodec {
 public:
  // Frees the object. Nothing of it may be used afterwards.
  virtual void Destroy() = 0;
  // Replaces the input. Length 0 with a pointer that is not null tells that no more will come.
  virtual void SetInput(const std::uint8_t* input, std::uint32_t length) = 0;
  virtual void SetOutput(std::uint8_t* output, std::uint32_t capacity) = 0;
  // Works until the input is used or the output is full. *error is 0 or tells that the input can't
  // be decoded; an encoder always stores 0.
  virtual bool Run(std::uint32_t* error) = 0;
  // Bytes written since SetOutput.
  virtual std::uint64_t OutputSize() const = 0;
  // Back to the state after construction.
  virtual void Reset() = 0;
  // True if every byte of input since Reset was 0.
  virtual bool SawOnlyZeros() const = 0;

 protected:
  StreamCodec() = default;
  StreamCodec(const StreamCodec&) = default;
  StreamCodec& operator=(const StreamCodec&) = default;
  ~StreamCodec() = default;
};

struct StreamCodecDeleter {
  void operator()(StreamCodec* codec) const { codec->Destroy(); }
};
using OwnedStreamCodec = std::unique_ptr<StreamCodec, StreamCodecDeleter>;

}  // namespace kq

#endif
