#include "tests/world/heap.h"

#include <pthread.h>

#include <cstdlib>
#include <new>
#include <utility>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELD_OWN_NEW 0
#else
#define VELD_OWN_NEW 1
#endif

namespace veld_report::world {
namespace {

// Threads of a world take turns, so nothing here needs a lock.
std::int64_t live = 0;
int failAt = 0;
std::function<void()> failed;
bool twoAtOnce = false;

thread_local bool inModule = false;
thread_local const void* heldLock = nullptr;
thread_local int heldDepth = 0;

// True if this allocation is to fail.
bool FailThis() {
  if (!inModule || failAt == 0 || --failAt > 0) return false;
  const Outside outside;
  failed();
  return true;
}

[[maybe_unused]] void* Counted(void* block) {
  if (block) ++live;
  return block;
}

void NoteLock(const void* lock) {
  if (heldDepth > 0 && lock != heldLock) twoAtOnce = true;
  heldLock = lock;
  ++heldDepth;
}

}  // namespace

Inside::Inside(bool now) : before_(std::exchange(inModule, now)) {}
Inside::~Inside() { inModule = before_; }

bool ModuleIsLinked() { return true; }

bool Heap::Counts() { return VELD_OWN_NEW; }
std::int64_t Heap::LiveBlocks() { return VELD_OWN_NEW ? live : 0; }
void Heap::FailNth(int nth, std::function<void()> onFailure) {
  failAt = nth;
  failed = std::move(onFailure);
}

int Locks::Held() { return heldDepth; }
bool Locks::TakeTwoAtOnce() { return std::exchange(twoAtOnce, false); }

}  // namespace veld_report::world

using namespace veld_report::world;

extern "C" {
void* __real_malloc(std::size_t size);
void __real_free(void* block);
int __real_pthread_mutex_lock(pthread_mutex_t* lock);
int __real_pthread_mutex_trylock(pthread_mutex_t* lock);
int __real_pthread_mutex_unlock(pthread_mutex_t* lock);

void* __wrap_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) { return FailThis() ? nullptr : Counted(__real_malloc(size)); }
void __wrap_free(void* block);
void __wrap_free(void* block) {
  if (block) --live;
  __real_free(block);
}
int __wrap_pthread_mutex_lock(pthread_mutex_t* lock);
int __wrap_pthread_mutex_lock(pthread_mutex_t* lock) {
  const int result = __real_pthread_mutex_lock(lock);
  if (inModule && result == 0) NoteLock(lock);
  return result;
}
int __wrap_pthread_mutex_trylock(pthread_mutex_t* lock);
int __wrap_pthread_mutex_trylock(pthread_mutex_t* lock) {
  const int result = __real_pthread_mutex_trylock(lock);
  if (inModule && result == 0) NoteLock(lock);
  return result;
}
int __wrap_pthread_mutex_unlock(pthread_mutex_t* lock);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* lock) {
  if (inModule) --heldDepth;
  return __real_pthread_mutex_unlock(lock);
}
}

#if VELD_OWN_NEW
void* operator new(std::size_t size) {
  void* block = FailThis() ? nullptr : Counted(__real_malloc(size ? size : 1));
  if (!block) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept { __wrap_free(block); }
void operator delete(void* block, std::size_t) noexcept { __wrap_free(block); }
#endif
