#include "common/shared_object_internal.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "testing/test_util.h"

namespace {

TEST(SharedObjectTest, ResolvesAndCallsALoadedLibrarysFunctions) {
  SharedObject libc("libc.so.6");
  decltype(&::getpid) pid = nullptr;
  libc.resolve(pid, "getpid");
  ASSERT_TRUE(libc.ready());
  EXPECT_EQ(::getpid(), pid());
}

TEST(SharedObjectTest, AMissingLibraryOrSymbolIsNamedInTheLogAndNotReady) {
  zorv_testing::LogCapture log;
  SharedObject absent("libzorv-absent.so.9");
  int (*function)() = nullptr;
  absent.resolve(function, "anything");
  EXPECT_EQ(nullptr, function);
  EXPECT_FALSE(absent.ready());
  EXPECT_TRUE(log.contains("cannot use libzorv-absent.so.9: libzorv-absent.so.9: cannot open"));

  // Every symbol is tried, but the first missing one is the reason given.
  SharedObject libc("libc.so.6");
  decltype(&::getpid) pid = nullptr;
  libc.resolve(function, "zorv_no_such_function");
  libc.resolve(pid, "getpid");
  EXPECT_NE(nullptr, pid);
  EXPECT_FALSE(libc.ready());
  EXPECT_TRUE(log.contains("cannot use libc.so.6: has no symbol zorv_no_such_function"));
}

}  // namespace
