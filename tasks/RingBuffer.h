// CRingBuffer: the byte ring behind one task queue of the serializer. It
// stores bytes, not pointers: a queued record is its pointer's bytes in
// memory order, written and read one byte at a time, so a pointer may be
// split across the end of the storage. The ring never grows; its callers
// decide when it is full. It does no locking of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

class CRingBuffer {
 public:
  // Storage of `size` bytes from malloc. Should malloc fail, the ring has no
  // storage and size 0, so every fill test finds it full.
  explicit CRingBuffer(std::uint64_t size)
      : m_Used(0),
        m_ReadIndex(0),
        m_WriteIndex(0),
        m_pBuffer(nullptr),
        m_Size(0),
        m_OwnsStorage(0) {
    m_pBuffer = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(size)));
    if (m_pBuffer != nullptr) {
      m_Size = size;
      m_OwnsStorage = 1;
    }
  }

  ~CRingBuffer() { FreeStorage(); }

  CRingBuffer(const CRingBuffer&) = delete;
  CRingBuffer& operator=(const CRingBuffer&) = delete;

  // Writes `count` bytes. Before each byte a write index that has reached the
  // size is wrapped to 0. Refuses (returns false, writes nothing) when fewer
  // than `count` bytes are free, so unread bytes are never overwritten.
  bool Write(const void* source, std::size_t count) {
    if (m_pBuffer == nullptr || m_Size - m_Used < count) {
      return false;
    }
    const unsigned char* bytes = static_cast<const unsigned char*>(source);
    for (std::size_t i = 0; i < count; ++i) {
      if (m_WriteIndex == m_Size) {
        m_WriteIndex = 0;
      }
      m_pBuffer[m_WriteIndex] = bytes[i];
      ++m_WriteIndex;
      ++m_Used;
    }
    return true;
  }

  // The mirror image of Write. Refuses (returns false, reads nothing) when
  // fewer than `count` bytes are held.
  bool Read(void* target, std::size_t count) {
    if (m_pBuffer == nullptr || m_Used < count) {
      return false;
    }
    unsigned char* bytes = static_cast<unsigned char*>(target);
    for (std::size_t i = 0; i < count; ++i) {
      if (m_ReadIndex == m_Size) {
        m_ReadIndex = 0;
      }
      bytes[i] = m_pBuffer[m_ReadIndex];
      ++m_ReadIndex;
      --m_Used;
    }
    return true;
  }

  // Forgets everything held; the bytes stay in the storage.
  void Clear() {
    m_Used = 0;
    m_ReadIndex = 0;
    m_WriteIndex = 0;
  }

  // Frees the storage when the ring owns it and leaves the ring without
  // storage (size 0).
  void FreeStorage() {
    if (m_pBuffer != nullptr && m_OwnsStorage != 0) {
      std::free(m_pBuffer);
    }
    m_pBuffer = nullptr;
    m_Size = 0;
  }

  // Fields, in this order.
  std::uint64_t m_Used;        // bytes held
  std::uint64_t m_ReadIndex;   // next byte to read
  std::uint64_t m_WriteIndex;  // next byte to write
  unsigned char* m_pBuffer;    // storage, from malloc
  std::uint64_t m_Size;        // capacity in bytes
  unsigned int m_OwnsStorage;  // 1: m_pBuffer is freed with the ring
};
