#include "exhaustive/failed_allocation.h"

#include <cstdlib>
#include <new>

#include "fuzz/script.h"

// These functions take the place of the library's.

namespace {

int allocations_left = -1;  // until one fails; 0: it has failed
std::size_t sent_at_failure = 0;
long allocations = 0;

}  // namespace

FailedAllocation::FailedAllocation(int nth) {
  allocations_left = nth;
}

FailedAllocation::~FailedAllocation() {
  allocations_left = -1;
}

bool FailedAllocation::struck() const {
  return allocations_left == 0;
}

std::size_t FailedAllocation::sent_before() const {
  return sent_at_failure;
}

long allocations_so_far() {
  return allocations;
}

void* operator new(std::size_t size) {
  ++allocations;
  if (allocations_left > 0 && --allocations_left == 0) {
    sent_at_failure = Script::current->sent.size();
    throw std::bad_alloc();
  }
  if (void* const storage = std::malloc(size == 0 ? 1 : size)) return storage;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* storage) noexcept {
  std::free(storage);
}
void operator delete(void* storage, std::size_t) noexcept {
  std::free(storage);
}
void operator delete[](void* storage) noexcept {
  std::free(storage);
}
void operator delete[](void* storage, std::size_t) noexcept {
  std::free(storage);
}
