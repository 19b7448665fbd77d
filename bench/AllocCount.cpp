// The benchmark's heap counter: this program's malloc, calloc, realloc and
// free stand in for the C library's and forward to it, and count the blocks
// and usable bytes of the calling thread while its counting window is open.
// operator new and RapidJSON's allocator both end up here, so a window
// around InsertTask sees every byte a queued task keeps.
//
// Plain per-thread data only: it is touched from inside malloc, also while
// the thread library sets a thread up.
#include "bench/BenchSupport.h"

#include <cstddef>
#include <cstring>
#include <malloc.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

struct CWindow {
  bool m_Open;
  long long m_Blocks;  // allocated minus freed, while open
  long long m_Bytes;   // usable bytes allocated minus freed, while open
};

__thread CWindow t_Window;

inline void Note(void* block) {
  if (block != nullptr && t_Window.m_Open) {
    ++t_Window.m_Blocks;
    t_Window.m_Bytes += static_cast<long long>(malloc_usable_size(block));
  }
}

inline void Forget(void* block) {
  if (block != nullptr && t_Window.m_Open) {
    --t_Window.m_Blocks;
    t_Window.m_Bytes -= static_cast<long long>(malloc_usable_size(block));
  }
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
  void* block = __libc_malloc(size);
  Note(block);
  return block;
}

void* calloc(std::size_t count, std::size_t size) {
  void* block = __libc_calloc(count, size);
  Note(block);
  return block;
}

void* realloc(void* block, std::size_t size) {
  Forget(block);
  void* moved = __libc_realloc(block, size);
  if (moved == nullptr && size != 0) {
    Note(block);  // failed: the old block is still there
    return nullptr;
  }
  Note(moved);
  return moved;
}

void free(void* block) {
  Forget(block);
  __libc_free(block);
}

}  // extern "C"

namespace korvex_bench {

void OpenHeapWindow() {
  t_Window.m_Blocks = 0;
  t_Window.m_Bytes = 0;
  t_Window.m_Open = true;
}

CHeapCount CloseHeapWindow() {
  t_Window.m_Open = false;
  return CHeapCount{t_Window.m_Blocks, t_Window.m_Bytes};
}

}  // namespace korvex_bench
