// The tests' allocation interposer: counting versions of the malloc family (which operator new and
// delete use too) forwarding to glibc's own entry points. Include it in one source file only.
#ifndef LXOPT_TESTS_SUPPORT_ALLOCATIONS_H
#define LXOPT_TESTS_SUPPORT_ALLOCATIONS_H

#include <gtest/gtest.h>
#include <lxopt/lxopt.h>  // first: its declarations of the malloc family come before these
#include <malloc.h>

#include <cstddef>

namespace {
// Blocks obtained and released since the program started.
long allocations = 0;
long releases = 0;
}  // namespace

// Without glibc, or under a sanitizer (which owns malloc), nothing is replaced and the tests skip.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && defined(__GLIBC__)
#define LXTEST_COUNTED 1
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
  return ++allocations, __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return ++allocations, __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  if (block == nullptr) ++allocations;
  if (size == 0 && block != nullptr) ++releases;
  return __libc_realloc(block, size);
}
void free(void* block) {
  if (block != nullptr) ++releases;
  __libc_free(block);
}
void* memalign(std::size_t alignment, std::size_t size) {
  return ++allocations, __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return memalign(alignment, size);
}
int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
  void* block = memalign(alignment, size);
  if (block == nullptr) return 12;  // ENOMEM
  *out = block;
  return 0;
}
}  // extern "C"

#endif

#ifdef LXTEST_COUNTED
#define LXTEST_SKIP_IF_NOT_COUNTED() static_cast<void>(0)
#else
#define LXTEST_SKIP_IF_NOT_COUNTED() \
  GTEST_SKIP() << "a sanitizer intercepts malloc (or no glibc): nothing is counted"
#endif

#endif  // LXOPT_TESTS_SUPPORT_ALLOCATIONS_H
