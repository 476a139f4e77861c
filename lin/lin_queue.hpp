// A fixed-capacity ring queue of LIN_EX_MSG records with C linkage, for callers that want
// one. Enqueue refuses when full, dequeue when empty (the library's own frame buffers use
// the drop-oldest ring of device/ring_buffer.hpp instead).
//
//   storage: [ . . r x x x w . ]   r = read index (oldest), w = write index (next free),
//                                  both wrap modulo capacity; count tells full from empty.
#pragma once

#include "veltrix/api.h"
#include "veltrix/lin.h"

typedef struct {
  int write_index;
  int read_index;
  int count;
  int capacity;
  LIN_EX_MSG* storage;  // owned; NULL while the capacity is 0
} QUEUE;

extern "C" {

// Empty queue of `capacity` records (0 allowed). Returns 1, or 0 for a NULL queue, a
// negative capacity or no memory (the queue is then empty with capacity 0).
VELTRIX_API int lin_queue_init(QUEUE* q, int capacity);
// Releases the storage; the queue is left empty with capacity 0.
VELTRIX_API void lin_queue_free(QUEUE* q);
// New capacity keeping the oldest records that fit, in order. Returns 1, or 0 (queue
// unchanged) for a NULL queue, a negative capacity or no memory.
VELTRIX_API int lin_queue_resize(QUEUE* q, int capacity);
// 1 when the queue holds nothing (also for NULL), else 0.
VELTRIX_API int lin_queue_empty(const QUEUE* q);
// Drops every record; both indices and the count go back to 0.
VELTRIX_API void lin_queue_clear(QUEUE* q);
// Appends a copy of *msg. Returns 1, or 0 when full or for NULL arguments.
VELTRIX_API int lin_queue_enqueue(QUEUE* q, const LIN_EX_MSG* msg);
// Takes the oldest record into *msg. Returns 1, or 0 when empty or for NULL arguments.
VELTRIX_API int lin_queue_dequeue(QUEUE* q, LIN_EX_MSG* msg);

}  // extern "C"
