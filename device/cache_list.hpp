// FIFO of received data blocks handed from a streaming thread to the application. The
// producer allocates a node and its buffer (malloc) and hands both over with add(); the
// consumer takes nodes with post() and then owns them.
#pragma once

#include <cstdint>

struct cache_list {
  cache_list* next;
  cache_list* prev;
  uint32_t count;  // bytes in data
  uint8_t* data;
};

class data_cache_list {
 public:
  data_cache_list();
  ~data_cache_list();
  data_cache_list(const data_cache_list&) = delete;
  data_cache_list& operator=(const data_cache_list&) = delete;

  void add(cache_list* node);
  cache_list* post();  // first node, unlinked, or null when empty
  bool is_empty() const;
  int length() const;
  // Pops every node and frees each node's data buffer. The nodes themselves belong to
  // whoever allocated them and are freed here too, so a clear never leaks.
  void clear();

 private:
  cache_list head_;
  cache_list tail_;
};
