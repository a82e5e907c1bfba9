// The tool when a library it opens on first use cannot be used: a stub with
// the library's soname and none of its functions comes first on
// LD_LIBRARY_PATH. Nothing may be written from a digest that was never taken.
#include <gtest/gtest.h>

#include <string>

#include "cli/tool_runner.h"
#include "label/label.h"
#include "testing/own_library_test.h"

#ifndef ZORV_STUB_LIBCRYPTO_DIR
#error "ZORV_STUB_LIBCRYPTO_DIR must name the directory of the libcrypto stub"
#endif
#ifndef ZORV_STUB_LIBZMQ_DIR
#error "ZORV_STUB_LIBZMQ_DIR must name the directory of the libzmq stub"
#endif

namespace zorv_testing {
namespace {

class MissingLibraryTest : public OwnLibraryTest {
 protected:
  void SetUp() override { writeTextFile(file_, "x"); }
  const std::string file_ = base_ + "/files/app.conf";
};

TEST_F(MissingLibraryTest, WithoutLibcryptoLabelsFailAndNothingIsWritten) {
  const std::map<std::string, std::string> env = {{"LD_LIBRARY_PATH", ZORV_STUB_LIBCRYPTO_DIR}};
  expectResult(runTool({"-r", "-l", file_}, env), file_ + " restore label failed...\n", 1);
  expectResult(runTool({"-i", "-l", file_}, env), file_ + " init label failed...\n", 1);
  EXPECT_NE(Label().getFromXattr(file_, false), 0) << "a label was written without digests";
  // -3 keeps its result for a missing digest: the value 0.
  expectResult(runTool({"-3", "abc"}, env), "SM3 Hash (last 64 bits): 0000000000000000\n");
  // The same runs with libcrypto do label the file.
  const ToolResult restored = runTool({"-r", "-l", file_});
  EXPECT_EQ(restored.status, 0) << restored.out;
  EXPECT_EQ(Label().getFromXattr(file_, false), 0);
}

TEST_F(MissingLibraryTest, WithoutLibzmqOnlyTheListenerFails) {
  const std::map<std::string, std::string> env = {{"LD_LIBRARY_PATH", ZORV_STUB_LIBZMQ_DIR}};
  expectResult(runTool({"-S"}, env), "subscribe file label change message error.\n", 1);
  // No listener runs, so a change publishes nothing and needs no libzmq.
  expectResult(runTool({"-a", "-t", file_, "c"}, env), "set file tid success. " + file_ + "\n");
}

}  // namespace
}  // namespace zorv_testing
