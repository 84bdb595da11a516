// List<T>: the framework's doubly linked list.
//
// Elements keep their insertion order; an iterator stays valid while other
// elements are removed, so a walk can remove or replace the current element
// (`it = list.erase(it)`, `*it = value`). Copyable when T is.
#ifndef BASE_LIST_H_
#define BASE_LIST_H_

#include <cstddef>
#include <iterator>
#include <list>
#include <new>
#include <utility>

template <typename T>
class List {
 public:
  using iterator = typename std::list<T>::iterator;
  using const_iterator = typename std::list<T>::const_iterator;

  // Appends at the end. Returns 1, or 0 when memory ran out.
  int put(const T& value) {
    try {
      items_.push_back(value);
    } catch (const std::bad_alloc&) {
      return 0;
    }
    return 1;
  }
  int put(T&& value) {
    try {
      items_.push_back(std::move(value));
    } catch (const std::bad_alloc&) {
      return 0;
    }
    return 1;
  }

  size_t count() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  void clear() { items_.clear(); }

  // Indexed access walks the list: O(i). Callers keep i below count().
  T& operator[](size_t i) { return *std::next(items_.begin(), static_cast<long>(i)); }
  const T& operator[](size_t i) const { return *std::next(items_.begin(), static_cast<long>(i)); }

  iterator begin() { return items_.begin(); }
  iterator end() { return items_.end(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }
  // Removes the element at it and returns the iterator to the one after it.
  iterator erase(iterator it) { return items_.erase(it); }

 private:
  std::list<T> items_;
};

#endif  // BASE_LIST_H_
