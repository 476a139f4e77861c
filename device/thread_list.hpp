// Registry of running family threads, keyed by (device handle, channel).
#pragma once

#include <cstdint>

#include "veltrix/api.h"

struct thread_list {
  thread_list* next;
  thread_list* prev;
  uint32_t handle;
  uint32_t channel;
};

extern "C" {
VELTRIX_API void thread_list_init(void);
VELTRIX_API void thread_list_add(thread_list* record);  // takes ownership (malloc'd)
VELTRIX_API thread_list* thread_list_post(int index);
VELTRIX_API void thread_list_del(thread_list* record);
VELTRIX_API void thread_list_clear(uint32_t handle, uint32_t channel);
VELTRIX_API int thread_list_is_empty(void);
VELTRIX_API int thread_list_length(void);
}
