#include "lin/lin_queue.hpp"

#include <new>

#include "device/abi.hpp"

extern "C" {

VELTRIX_EXPORT(int, lin_queue_init, (QUEUE * q, int capacity), 0, {
  if (q == nullptr) return 0;
  *q = QUEUE{0, 0, 0, 0, nullptr};
  if (capacity < 0) return 0;
  if (capacity == 0) return 1;
  q->storage = new (std::nothrow) LIN_EX_MSG[size_t(capacity)];
  if (q->storage == nullptr) return 0;
  q->capacity = capacity;
  return 1;
})

VELTRIX_EXPORT_VOID(lin_queue_free, (QUEUE * q), {
  if (q == nullptr) return;
  delete[] q->storage;
  *q = QUEUE{0, 0, 0, 0, nullptr};
})

VELTRIX_EXPORT(int, lin_queue_resize, (QUEUE * q, int capacity), 0, {
  if (q == nullptr || capacity < 0) return 0;
  LIN_EX_MSG* fresh = nullptr;
  if (capacity > 0) {
    fresh = new (std::nothrow) LIN_EX_MSG[size_t(capacity)];
    if (fresh == nullptr) return 0;
  }
  const int keep = q->count < capacity ? q->count : capacity;
  for (int i = 0; i < keep; ++i) fresh[i] = q->storage[(q->read_index + i) % q->capacity];
  delete[] q->storage;
  q->storage = fresh;
  q->capacity = capacity;
  q->count = keep;
  q->read_index = 0;
  q->write_index = capacity > 0 ? keep % capacity : 0;
  return 1;
})

VELTRIX_EXPORT(int, lin_queue_empty, (const QUEUE* q), 1,
               { return q == nullptr || q->count == 0 ? 1 : 0; })

VELTRIX_EXPORT_VOID(lin_queue_clear, (QUEUE * q), {
  if (q == nullptr) return;
  q->write_index = q->read_index = q->count = 0;
})

VELTRIX_EXPORT(int, lin_queue_enqueue, (QUEUE * q, const LIN_EX_MSG* msg), 0, {
  if (q == nullptr || msg == nullptr || q->count >= q->capacity) return 0;
  q->storage[q->write_index] = *msg;
  q->write_index = (q->write_index + 1) % q->capacity;
  ++q->count;
  return 1;
})

VELTRIX_EXPORT(int, lin_queue_dequeue, (QUEUE * q, LIN_EX_MSG* msg), 0, {
  if (q == nullptr || msg == nullptr || q->count <= 0) return 0;
  *msg = q->storage[q->read_index];
  q->read_index = (q->read_index + 1) % q->capacity;
  --q->count;
  return 1;
})

}  // extern "C"
