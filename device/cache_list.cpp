#include "device/cache_list.hpp"

#include <cstdlib>

data_cache_list::data_cache_list() : head_{}, tail_{} {
  head_.next = &tail_;
  tail_.prev = &head_;
}

data_cache_list::~data_cache_list() { clear(); }

void data_cache_list::add(cache_list* node) {
  if (node == nullptr) return;
  node->prev = tail_.prev;
  node->next = &tail_;
  tail_.prev->next = node;
  tail_.prev = node;
}

cache_list* data_cache_list::post() {
  if (is_empty()) return nullptr;
  cache_list* n = head_.next;
  head_.next = n->next;
  n->next->prev = &head_;
  n->next = n->prev = nullptr;
  return n;
}

bool data_cache_list::is_empty() const { return head_.next == &tail_; }

int data_cache_list::length() const {
  int n = 0;
  for (const cache_list* c = head_.next; c != &tail_; c = c->next) ++n;
  return n;
}

void data_cache_list::clear() {
  while (cache_list* n = post()) {
    std::free(n->data);
    std::free(n);
  }
}
