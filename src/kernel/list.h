// SPDX-License-Identifier: GPL-2.0-only
// Intrusive doubly linked lists.
//
// A node names its owner, so that a list can be walked without address arithmetic; an object
// sits on several lists through several nodes. No operation allocates, none takes a lock.
#pragma once

namespace kernel {

template <class T>
struct list_node {
  list_node() : next(this), prev(this), owner(nullptr) {}
  explicit list_node(T* o) : next(this), prev(this), owner(o) {}
  list_node(const list_node&) = delete;
  list_node& operator=(const list_node&) = delete;

  [[nodiscard]] bool linked() const { return next != this; }
  // Takes the node off whatever list it is on; harmless on an unlinked node.
  void unlink() {
    next->prev = prev;
    prev->next = next;
    next = prev = this;
  }
  void insert_after(list_node* at) {
    next = at->next;
    prev = at;
    at->next->prev = this;
    at->next = this;
  }

  list_node* next;
  list_node* prev;
  T* owner;
};

template <class T>
class list_of {
 public:
  using node = list_node<T>;

  [[nodiscard]] bool empty() const { return !head_.linked(); }
  [[nodiscard]] T* front() const { return empty() ? nullptr : head_.next->owner; }
  [[nodiscard]] T* back() const { return empty() ? nullptr : head_.prev->owner; }
  void push_back(node* n) { n->insert_after(head_.prev); }
  void push_front(node* n) { n->insert_after(&head_); }
  // Neighbours of an element that is on this list, null at the ends.
  [[nodiscard]] T* next_of(const node& n) const {
    return n.next == &head_ ? nullptr : n.next->owner;
  }
  [[nodiscard]] T* prev_of(const node& n) const {
    return n.prev == &head_ ? nullptr : n.prev->owner;
  }

  // Range-for in list order. The current element may be unlinked inside the loop body.
  class iterator {
   public:
    explicit iterator(node* at) : at_(at), next_(at->next) {}
    T& operator*() const { return *at_->owner; }
    iterator& operator++() {
      at_ = next_;
      next_ = at_->next;
      return *this;
    }
    bool operator!=(const iterator& o) const { return at_ != o.at_; }

   private:
    node* at_;
    node* next_;
  };
  iterator begin() { return iterator(head_.next); }
  iterator end() { return iterator(&head_); }

 private:
  node head_;
};

}  // namespace kernel
