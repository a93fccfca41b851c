// Helpers shared by the runtime tests: bounded polling and trace capture set-up.
#ifndef EM_TESTS_RUNTIME_TESTUTIL_H
#define EM_TESTS_RUNTIME_TESTUTIL_H

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "hostsim/DebugSink.h"
#include "trace/DebugClient.h"

namespace em_oidmap {

namespace runtime_test {

// Polls `done` until it holds or `limit` passes; true when it held.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Waits until some captured trace line contains `fragment` `count` times.
inline bool WaitForTrace(const std::string& fragment, size_t count = 1) {
  return WaitUntil([&] { return hostsim::Sink().Count(fragment) >= count; });
}

// Every test runs with full tracing into a cleared capture sink.
class TracedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TraceClient().SetTraceLevel(5);
    hostsim::Sink().Clear();
  }
};

}  // namespace runtime_test

}  // namespace em_oidmap

#endif  // EM_TESTS_RUNTIME_TESTUTIL_H
