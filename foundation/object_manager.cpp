#include "foundation/object_manager.h"

#include <pthread.h>
#include <time.h>

#include "foundation/avl_table.h"
#include "foundation/mutex.h"

namespace kq {
namespace {

constexpr char kModule[] = "objmgr";

constexpr timespec kDeleteWait = {0, 10'000'000};

}  // namespace

// Lives behind the links of a table item. It is copied into the item before the mutex is made, and
// the mutex stays locked from ObjectAcquire to ObjectRelease, across functions; so it is pthread's
// own type, which clang's analysis of single functions leaves alone.
struct ObjectRecord {
  std::uint64_t handle;   // the key
  void* object;           // never looked into
  std::int32_t refCount;  // the table's own reference, and one for each thread between acquire and
                          // release; guarded by objmgrMutex
  pthread_mutex_t mutex;
};

namespace {

std::int32_t CompareHandles(const AvlTable* /*table*/, const void* a, const void* b) {
  const std::uint64_t left = static_cast<const ObjectRecord*>(a)->handle;
  const std::uint64_t right = static_cast<const ObjectRecord*>(b)->handle;
  return left < right ? -1 : left > right ? 1 : 0;
}

constexpr AvlTable EmptyTable() {
  AvlTable table{};
  table.itemSize = AvlItemSize(sizeof(ObjectRecord));
  table.allocItem = AvlAllocItem;
  table.freeItem = AvlFreeItem;
  table.afterInsert = AvlAfterInsert;
  table.afterRemove = AvlAfterRemove;
  table.compare = CompareHandles;
  table.payloadSize = sizeof(ObjectRecord);
  return table;
}

constinit Mutex objmgrMutex;
constinit std::uint64_t nextHandle GUARDED_BY(objmgrMutex) = 0;
constinit AvlTable handles GUARDED_BY(objmgrMutex) = EmptyTable();

ObjectRecord* RecordOf(AvlItem* item) { return static_cast<ObjectRecord*>(AvlPayload(item)); }

AvlItem* FindHandle(std::uint64_t handle) REQUIRES(objmgrMutex) {
  ObjectRecord key{};
  key.handle = handle;
  return AvlFind(&handles, &key);
}

// Puts the object into the table under a number that is already counted.
KQStatus InsertObject(void* object) REQUIRES(objmgrMutex) {
  ObjectRecord record{};
  record.handle = nextHandle;
  record.object = object;
  record.refCount = 1;
  AvlItem* item = nullptr;
  switch (AvlInsert(&handles, &record, &item)) {
    case AvlInsertResult::kInserted:
      break;
    case AvlInsertResult::kDuplicateKey:
      return KQ_FAIL(kInvalidParameter);
    case AvlInsertResult::kOutOfMemory:
      return KQ_FAIL(kNotEnoughMemory);
  }
  if (pthread_mutex_init(&RecordOf(item)->mutex, nullptr) != 0) {
    AvlRemove(&handles, item, true);
    return KQ_FAIL(kExceptionInService);
  }
  return Success();
}

}  // namespace

KQStatus ObjectCreate(void* object, std::uint64_t* handle) {
  *handle = 0;
  if (!objmgrMutex.LockChecked()) return KQ_FAIL(kExceptionInService);
  ++nextHandle;
  const KQStatus inserted = InsertObject(object);
  // A failed create gives its number back, so that numbers grow by one.
  if (Failed(inserted)) --nextHandle;
  const std::uint64_t created = nextHandle;
  objmgrMutex.Unlock();
  KQ_RETURN_IF_FAILED(inserted);
  *handle = created;
  return Success();
}

KQStatus ObjectAcquire(std::uint64_t handle, std::uint8_t forDelete, ObjectRecord** record,
                       void** object) {
  *record = nullptr;
  *object = nullptr;
  if (!objmgrMutex.LockChecked()) return KQ_FAIL(kExceptionInService);
  AvlItem* item = FindHandle(handle);
  if (item == nullptr) {
    objmgrMutex.Unlock();
    return KQ_FAIL(kInvalidParameter);
  }
  ObjectRecord* found = RecordOf(item);
  if (forDelete != 0) {
    // The table's reference becomes the deleter's, so the count stays.
    AvlRemove(&handles, item, false);
  } else {
    ++found->refCount;
  }
  objmgrMutex.Unlock();

  // Here a thread waits for another's operation on the same handle. Its reference keeps the record
  // alive meanwhile.
  pthread_mutex_lock(&found->mutex);
  *record = found;
  *object = found->object;
  return Success();
}

KQStatus ObjectRelease(std::uint8_t deleting, ObjectRecord* record) {
  pthread_mutex_unlock(&record->mutex);
  if (deleting == 0) {
    if (!objmgrMutex.LockChecked()) return KQ_FAIL(kExceptionInService);
    --record->refCount;
    objmgrMutex.Unlock();
    return Success();
  }
  while (true) {
    if (!objmgrMutex.LockChecked()) return KQ_FAIL(kExceptionInService);
    const std::int32_t references = record->refCount;
    objmgrMutex.Unlock();
    if (references < 2) break;
    nanosleep(&kDeleteWait, nullptr);
  }
  pthread_mutex_destroy(&record->mutex);
  // The item has left the table, whose callbacks for it are fixed: nothing to destroy in the
  // payload, and plain free.
  AvlItem* item = AvlItemOf(record);
  AvlFreeItem(AvlItemSize(sizeof(ObjectRecord)), item);
  return Success();
}

KQStatus ObjectTake(std::uint64_t handle, void** object) {
  *object = nullptr;
  ObjectRecord* record = nullptr;
  void* taken = nullptr;
  KQ_RETURN_IF_FAILED(ObjectAcquire(handle, 1, &record, &taken));
  KQ_RETURN_IF_FAILED(ObjectRelease(1, record));
  *object = taken;
  return Success();
}

void ObjectManagerStart() {
  MutexLock lock(objmgrMutex);
  nextHandle = 0;
  handles = EmptyTable();
}

void ObjectManagerFinish() {
  MutexLock lock(objmgrMutex);
  AvlTearDown(&handles);
}

}  // namespace kq
