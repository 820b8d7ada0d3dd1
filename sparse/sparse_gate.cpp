#include "sparse/sparse_gate.h"

#include "foundation/memory.h"

namespace kq {
namespace {

constexpr char kModule[] = "utsparsefile";

}  // namespace

void SparseGateDeleter::operator()(SparseGate* gate) const {
  pthread_cond_destroy(&gate->condition);
  pthread_mutex_destroy(&gate->mutex);
  Owned<SparseGate>(gate).reset();
}

KQStatus MakeSparseGate(SparseGateOwner* gate) {
  gate->reset();
  Owned<SparseGate> made = MakeOwned<SparseGate>();
  if (!made) return KQ_FAIL(kNotEnoughMemory);
  if (pthread_mutex_init(&made->mutex, nullptr) != 0) return Success();
  if (pthread_cond_init(&made->condition, nullptr) != 0) {
    pthread_mutex_destroy(&made->mutex);
    return Success();
  }
  made->Open = 1;
  gate->reset(made.release());
  return Success();
}

SparseGatePass::SparseGatePass(SparseGate* gate) : gate_(gate) {
  if (gate_ == nullptr) return;
  pthread_mutex_lock(&gate_->mutex);
  while (gate_->Open == 0) pthread_cond_wait(&gate_->condition, &gate_->mutex);
  pthread_mutex_unlock(&gate_->mutex);
}

SparseGatePass::~SparseGatePass() {
  if (gate_ == nullptr) return;
  pthread_mutex_lock(&gate_->mutex);
  gate_->Open = 1;
  pthread_cond_broadcast(&gate_->condition);
  pthread_mutex_unlock(&gate_->mutex);
}

}  // namespace kq
