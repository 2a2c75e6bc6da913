// Partition 0 of the operating-system services: a bounded first-fit pool in
// one fixed arena, so that running out of memory really happens. Under
// AddressSanitizer everything but the payload of live blocks is poisoned,
// so an overrun of a library buffer is caught like one on the heap.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "../net/kel_os.h"
#include "kelhost.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define POISON(p, n) ((void)(p), (void)(n))
#define UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace {

constexpr size_t kAlign = 16;
constexpr uint32_t kMagicUsed = 0x6b656c55;  // "kelU"
constexpr uint32_t kMagicFree = 0x6b656c46;  // "kelF"

struct Header {
  size_t span;  // header and payload, a multiple of kAlign
  uint32_t magic;
  uint32_t requested;
};
static_assert(sizeof(Header) <= kAlign, "header must fit one alignment unit");

struct Pool {
  std::mutex lock;
  unsigned char *arena = nullptr;
  size_t size = 0;
  size_t blocks = 0;
  size_t bytes = 0;
  size_t allocations = 0;
  size_t failCountdown = 0;
};

Pool &pool() {
  static Pool p;
  return p;
}

Header *headerAt(unsigned char *at) {
  UNPOISON(at, kAlign);
  return reinterpret_cast<Header *>(at);
}

void hideHeader(Header *h) { POISON(h, kAlign); }

void format(Pool &p, size_t bytes) {
  if (p.arena) {
    UNPOISON(p.arena, p.size);
    free(p.arena);
  }
  p.size = bytes / kAlign * kAlign;
  p.arena = static_cast<unsigned char *>(aligned_alloc(kAlign, p.size));
  if (!p.arena) {
    fprintf(stderr, "kelhost: no memory for a pool of %zu bytes\n", p.size);
    abort();
  }
  Header *h = headerAt(p.arena);
  h->span = p.size;
  h->magic = kMagicFree;
  h->requested = 0;
  hideHeader(h);
  POISON(p.arena, p.size);
}

void ensureFormatted(Pool &p) {
  if (!p.arena) format(p, KEL_HOST_POOL_DEFAULT_SIZE);
}

// First fit; free neighbours are merged on the way.
void *take(Pool &p, uint32_t requested) {
  ensureFormatted(p);
  size_t need = kAlign + (requested + kAlign - 1) / kAlign * kAlign;
  if (requested == 0) need += kAlign;
  unsigned char *at = p.arena;
  unsigned char *end = p.arena + p.size;
  while (at < end) {
    Header *h = headerAt(at);
    if (h->magic == kMagicFree) {
      while (at + h->span < end) {
        Header *next = headerAt(at + h->span);
        bool isFree = next->magic == kMagicFree;
        size_t nextSpan = next->span;
        hideHeader(next);
        if (!isFree) break;
        h->span += nextSpan;
      }
      if (h->span >= need) {
        if (h->span - need >= 2 * kAlign) {
          Header *rest = headerAt(at + need);
          rest->span = h->span - need;
          rest->magic = kMagicFree;
          rest->requested = 0;
          hideHeader(rest);
          h->span = need;
        }
        h->magic = kMagicUsed;
        h->requested = requested;
        hideHeader(h);
        p.blocks++;
        p.bytes += requested;
        UNPOISON(at + kAlign, requested);
        return at + kAlign;
      }
    }
    size_t span = h->span;
    hideHeader(h);
    at += span;
  }
  return nullptr;
}

}  // namespace

extern "C" {

int orvOSWOrgAllocMemPart(int partition, void **result, uint32_t size) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  p.allocations++;
  if (p.failCountdown != 0 && --p.failCountdown == 0) return 1;
  if (partition != 0 || result == nullptr) return 2;
  void *block = take(p, size);
  if (!block) return 3;
  *result = block;
  return 0;
}

void *orvOSWSubAllocMem(uint32_t size) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  p.allocations++;
  void *block = take(p, size);
  if (!block) {
    fprintf(stderr, "kelhost: pool exhausted by a %u-byte block\n", size);
    abort();
  }
  memset(block, 0, size);
  return block;
}

int orvOSWOrgFreeMemPart(int partition, void *block) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  if (block == nullptr) return 0;
  unsigned char *at = static_cast<unsigned char *>(block) - kAlign;
  if (partition != 0 || !p.arena || at < p.arena ||
      at >= p.arena + p.size ||
      (static_cast<size_t>(at - p.arena) % kAlign) != 0) {
    fprintf(stderr, "kelhost: free of a block %p outside the pool\n", block);
    abort();
  }
  Header *h = headerAt(at);
  if (h->magic != kMagicUsed) {
    fprintf(stderr, "kelhost: free of %p, which is not in use\n", block);
    abort();
  }
  p.blocks--;
  p.bytes -= h->requested;
  h->magic = kMagicFree;
  h->requested = 0;
  POISON(at + kAlign, h->span - kAlign);
  hideHeader(h);
  return 0;
}

int kelHostPoolSetSize(size_t bytes) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  if (p.blocks != 0 || bytes < 4 * kAlign) return -1;
  format(p, bytes);
  return 0;
}

size_t kelHostPoolSize(void) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  ensureFormatted(p);
  return p.size;
}

size_t kelHostPoolBlocksInUse(void) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  return p.blocks;
}

size_t kelHostPoolBytesInUse(void) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  return p.bytes;
}

size_t kelHostPoolAllocations(void) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  return p.allocations;
}

void kelHostPoolFailAt(size_t nth) {
  Pool &p = pool();
  std::lock_guard<std::mutex> guard(p.lock);
  p.failCountdown = nth;
}

}  // extern "C"
