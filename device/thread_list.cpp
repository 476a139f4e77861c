#include "device/thread_list.hpp"

#include <cstdlib>
#include <mutex>

#include "device/abi.hpp"

namespace {

struct ThreadListState {
  std::mutex m;
  bool init_flag = false;  // guarded by m
  thread_list head{};
  thread_list tail{};
};

ThreadListState& st() {
  static ThreadListState* s = new ThreadListState;
  return *s;
}

void ensure_init(ThreadListState& s) {
  if (s.init_flag) return;
  s.head.next = &s.tail;
  s.tail.prev = &s.head;
  s.init_flag = true;
}

void unlink(thread_list* r) {
  r->prev->next = r->next;
  r->next->prev = r->prev;
}

}  // namespace

extern "C" {

VELTRIX_EXPORT_VOID(thread_list_init, (void), {
  std::scoped_lock g(st().m);
  ensure_init(st());
})

VELTRIX_EXPORT_VOID(thread_list_add, (thread_list * r), {
  if (r == nullptr) return;
  auto& s = st();
  std::scoped_lock g(s.m);
  ensure_init(s);
  r->prev = s.tail.prev;
  r->next = &s.tail;
  s.tail.prev->next = r;
  s.tail.prev = r;
})

VELTRIX_EXPORT(thread_list*, thread_list_post, (int index), nullptr, {
  auto& s = st();
  std::scoped_lock g(s.m);
  ensure_init(s);
  int i = 0;
  for (thread_list* r = s.head.next; r != &s.tail; r = r->next)
    if (i++ == index) return r;
  return nullptr;
})

VELTRIX_EXPORT_VOID(thread_list_del, (thread_list * r), {
  auto& s = st();
  if (r == nullptr || r == &s.head || r == &s.tail) return;
  std::scoped_lock g(s.m);
  unlink(r);
  std::free(r);
})

VELTRIX_EXPORT_VOID(thread_list_clear, (uint32_t handle, uint32_t channel), {
  auto& s = st();
  std::scoped_lock g(s.m);
  ensure_init(s);
  for (thread_list* r = s.head.next; r != &s.tail;) {
    thread_list* next = r->next;
    if (r->handle == handle && r->channel == channel) {
      unlink(r);
      std::free(r);
    }
    r = next;
  }
})

VELTRIX_EXPORT(int, thread_list_is_empty, (void), 1, { return thread_list_length() == 0; })

VELTRIX_EXPORT(int, thread_list_length, (void), 0, {
  auto& s = st();
  std::scoped_lock g(s.m);
  ensure_init(s);
  int n = 0;
  for (thread_list* r = s.head.next; r != &s.tail; r = r->next) ++n;
  return n;
})

}  // extern "C"
