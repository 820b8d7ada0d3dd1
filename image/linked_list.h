// A doubly linked list through links inside its items, which it does not own. It never allocates,
// so nothing here can fail; whoever owns a list guards it. Trivially destroyed, so that
// process-wide lists outlive the destructors of static objects.
#ifndef KQ_IMAGE_LINKED_LIST_H
#define KQ_IMAGE_LINKED_LIST_H

namespace kq {

template <class T>
struct ListLinks {
  T* previous = nullptr;
  T* next = nullptr;
};

template <class T, ListLinks<T> T::*kLinks>
class LinkedList {
 public:
  constexpr LinkedList() = default;
  LinkedList(const LinkedList&) = delete;
  LinkedList& operator=(const LinkedList&) = delete;
  ~LinkedList() = default;

  bool empty() const { return first_ == nullptr; }
  T* first() const { return first_; }
  T* last() const { return last_; }
  static T* Next(const T* item) { return (item->*kLinks).next; }
  static T* Previous(const T* item) { return (item->*kLinks).previous; }

  void PushFront(T* item) {
    item->*kLinks = {nullptr, first_};
    (first_ != nullptr ? (first_->*kLinks).previous : last_) = item;
    first_ = item;
  }

  void PushBack(T* item) {
    item->*kLinks = {last_, nullptr};
    (last_ != nullptr ? (last_->*kLinks).next : first_) = item;
    last_ = item;
  }

  void Remove(T* item) {
    const ListLinks<T> links = item->*kLinks;
    (links.previous != nullptr ? (links.previous->*kLinks).next : first_) = links.next;
    (links.next != nullptr ? (links.next->*kLinks).previous : last_) = links.previous;
    item->*kLinks = {};
  }

  void MoveToFront(T* item) {
    if (item == first_) return;
    Remove(item);
    PushFront(item);
  }

 private:
  T* first_ = nullptr;
  T* last_ = nullptr;
};

}  // namespace kq

#endif
