// The gate that every operation on a sparse file passes. It stands open for the whole life of the
// file, so that it holds nobody up: operations exclude each other by the lock of the handle, or of
// the chain that owns the file.
#ifndef KQ_SPARSE_SPARSE_GATE_H
#define KQ_SPARSE_SPARSE_GATE_H

#include <pthread.h>

#include <cstdint>
#include <memory>

#include "foundation/status.h"

namespace kq {

struct SparseGate {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  std::uint8_t Open;  // 1 from the start
};

struct SparseGateDeleter {
  void operator()(SparseGate* gate) const;
};
using SparseGateOwner = std::unique_ptr<SparseGate, SparseGateDeleter>;

// -8 out of memory. A gate whose mutex or condition variable can't be made is done without: *gate
// is empty then, and the status is success.
KQStatus MakeSparseGate(SparseGateOwner* gate);

// One operation's way through the gate: waits until it is open, and signals on leaving.
class SparseGatePass {
 public:
  explicit SparseGatePass(SparseGate* gate);
  ~SparseGatePass();
  SparseGatePass(const SparseGatePass&) = delete;
  SparseGatePass& operator=(const SparseGatePass&) = delete;

 private:
  SparseGate* gate_;  // null: no gate could be made
};

}  // namespace kq

#endif
