// The serializer suites' allocation watch: this test program's replacement
// of the global operator new and delete, which lets a test see whether a
// given task record was freed and whether a refused insert left a record
// behind. Blocks still come from malloc and go back to free, so the leak
// and race detectors keep seeing every allocation.
#include "tests/tasks/SerializerTestSupport.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr int kWatchSlots = 512;

struct CWatchSlot {
  std::atomic<const void*> m_Address{nullptr};
  std::atomic<int> m_Freed{0};
};

CWatchSlot g_Slots[kWatchSlots];
std::atomic<int> g_Watched{0};

// Per thread, plain data only: it is used from inside operator new, also
// while the thread library sets a thread up.
constexpr int kWindowBlocks = 64;
struct CWindow {
  bool m_Active;
  std::size_t m_Size;
  int m_Allocated;
  int m_LiveCount;
  const void* m_Live[kWindowBlocks];
};
thread_local CWindow t_Window;

// The block is taken as a plain pointer: given a pointer to const, GCC
// assumes the fresh, uninitialised block is read and warns at -O0 with the
// sanitizers (-Wmaybe-uninitialized). Only the address is kept.
void NoteAllocation(void* block, std::size_t size) {
  CWindow& window = t_Window;
  if (!window.m_Active || size != window.m_Size) return;
  ++window.m_Allocated;
  if (window.m_LiveCount < kWindowBlocks) window.m_Live[window.m_LiveCount++] = block;
}

void NoteRelease(const void* block) {
  CWindow& window = t_Window;
  if (window.m_Active) {
    for (int i = 0; i < window.m_LiveCount; ++i) {
      if (window.m_Live[i] == block) {
        window.m_Live[i] = window.m_Live[--window.m_LiveCount];
        break;
      }
    }
  }
  if (g_Watched.load(std::memory_order_acquire) > 0) {
    for (CWatchSlot& slot : g_Slots) {
      if (slot.m_Address.load(std::memory_order_acquire) == block) {
        slot.m_Freed.store(1, std::memory_order_release);
      }
    }
  }
}

void* Allocate(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block != nullptr) NoteAllocation(block, size);
  return block;
}

void Release(void* block) {
  if (block == nullptr) return;
  NoteRelease(block);
  std::free(block);
}

}  // namespace

namespace serializer_test {
namespace alloc {

void Watch(const void* address) {
  for (CWatchSlot& slot : g_Slots) {
    const void* expected = nullptr;
    if (slot.m_Address.compare_exchange_strong(expected, address)) {
      // Callers watch a block before anybody can free it, so clearing the
      // flag of the slot's previous block here loses nothing.
      slot.m_Freed.store(0, std::memory_order_release);
      g_Watched.fetch_add(1, std::memory_order_acq_rel);
      return;
    }
  }
  ADD_FAILURE() << "allocation watch: all " << kWatchSlots << " slots in use";
}

bool Freed(const void* address) {
  for (CWatchSlot& slot : g_Slots) {
    if (slot.m_Address.load(std::memory_order_acquire) == address) {
      return slot.m_Freed.load(std::memory_order_acquire) != 0;
    }
  }
  ADD_FAILURE() << "allocation watch: address not watched";
  return false;
}

void Unwatch(const void* address) {
  for (CWatchSlot& slot : g_Slots) {
    const void* expected = address;
    if (slot.m_Address.compare_exchange_strong(expected, nullptr)) {
      g_Watched.fetch_sub(1, std::memory_order_acq_rel);
      return;
    }
  }
}

void BeginWindow(std::size_t size) {
  CWindow& window = t_Window;
  window.m_Size = size;
  window.m_Allocated = 0;
  window.m_LiveCount = 0;
  window.m_Active = true;
}

WindowResult EndWindow() {
  CWindow& window = t_Window;
  window.m_Active = false;
  return WindowResult{window.m_Allocated, window.m_LiveCount};
}

}  // namespace alloc
}  // namespace serializer_test

void* operator new(std::size_t size) {
  void* block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t size) {
  void* block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* block) noexcept { Release(block); }
void operator delete[](void* block) noexcept { Release(block); }
void operator delete(void* block, std::size_t) noexcept { Release(block); }
void operator delete[](void* block, std::size_t) noexcept { Release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { Release(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { Release(block); }
