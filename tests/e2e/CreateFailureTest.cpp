// A module object whose construction throws: the exception is the host's to see, and the
// entry points are left as if nothing had been created. The test executable replaces the
// global allocation functions (the module binds to them like to any host's), so that one
// allocation can be made to fail.
#if defined(__GNUC__) && !defined(__clang__)
// GCC pairs the inlined replacements with each other and takes free() for a mismatch.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "E2EHost.h"

namespace {

// The next allocation of at least this many bytes throws; 0: none does.
std::atomic<size_t> g_fail_allocation_of{0};

}  // namespace

void* operator new(std::size_t size) {
  size_t limit = g_fail_allocation_of.load();
  if (limit != 0 && size >= limit && g_fail_allocation_of.compare_exchange_strong(limit, 0)) {
    throw std::bad_alloc();
  }
  if (void* p = std::malloc(size != 0 ? size : 1)) return p;
  throw std::bad_alloc();
}
// Every other plain form goes through the one above, so that no allocation of one
// allocator is ever freed by another (the sanitizers check that).
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, tag);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace em_oidmap {
namespace {

using e2e::Lib;

TEST(CreateFailureTest, ConstructorThrows_ExceptionReachesHostAndNothingIsKept) {
  ASSERT_NE(nullptr, Lib().handle);
  hostsim::Sink().Clear();
  // The module object is the first large allocation of EM_Create.
  g_fail_allocation_of = 1024;
  CIExtensionModule* module = nullptr;
  EXPECT_THROW(Lib().create(&module, nullptr), std::bad_alloc);
  EXPECT_EQ(0u, g_fail_allocation_of.load()) << "the allocation failed";
  EXPECT_TRUE(hostsim::Sink().HasLine("\nEM DLL (EM_OIDMAP ) : Create module"));
  EXPECT_FALSE(hostsim::Sink().Contains("Module could not be created"));

  EXPECT_EQ(0u, Lib().destroy()) << "no module was kept";
  ASSERT_TRUE(Lib().create(&module, nullptr));
  EXPECT_NE(nullptr, module);
  EXPECT_EQ(1u, Lib().destroy());
}

}  // namespace

}  // namespace em_oidmap
