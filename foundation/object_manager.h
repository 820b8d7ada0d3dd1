// Handles: numbers that stand for the library's objects at the exported interface.
//
// The manager never looks into an object and stores no type: each exported function trusts that a
// handle is of its own kind. objmgrMutex guards the table, the next number and all reference
// counts; each handle has a mutex of its own that a thread holds for a whole exported operation.
// The two are never held together.
#ifndef KQ_FOUNDATION_OBJECT_MANAGER_H
#define KQ_FOUNDATION_OBJECT_MANAGER_H

#include <cstdint>

#include "foundation/status.h"

namespace kq {

struct ObjectRecord;

// Gives the object a new handle. The first of a process is 1, each next one is larger by 1; a
// failed create gives its number back. -1064 a lock failed; -8. *handle is 0 on failure.
KQStatus ObjectCreate(void* object, std::uint64_t* handle);

// Resolves a handle and locks it, waiting for another thread's operation on it. With forDelete the
// handle is taken out of the table first, so that nobody can find it again. -87 unknown handle;
// -1064 a lock failed. Outputs are null on failure.
KQStatus ObjectAcquire(std::uint64_t handle, std::uint8_t forDelete, ObjectRecord** record,
                       void** object);

// Unlocks, and gives the reference back. With deleting it waits, in steps of 10 ms, until no other
// thread is inside or waiting, and frees the record; from then on the caller is alone with the
// object.
KQStatus ObjectRelease(std::uint8_t deleting, ObjectRecord* record);

// Takes a handle out of the table and waits until the caller is alone with its object.
KQStatus ObjectTake(std::uint64_t handle, void** object);

// Runs operation(object) on the object behind a handle, which is locked meanwhile. The status is
// the operation's; -87 unknown handle.
template <class Operation>
KQStatus WithObject(std::uint64_t handle, Operation operation) {
  ObjectRecord* record = nullptr;
  void* object = nullptr;
  KQ_RETURN_IF_FAILED(ObjectAcquire(handle, 0, &record, &object));
  const KQStatus status = operation(object);
  ObjectRelease(0, record);
  return status;
}

// Set-up at load and tear-down at unload. Handles still open then are abandoned: their objects are
// neither closed nor freed.
void ObjectManagerStart();
void ObjectManagerFinish();

}  // namespace kq

#endif
