// The clockette program as a child process: start-up, usage and exit codes.
#include <gtest/gtest.h>

#include <string>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

const std::string kProgram = std::string(CLOCKETTE_BINARY_DIR) + "/app/clockette";
const char kBanner[] = "Kavane Core Kavlets CLOCKETTE 22.3.0 (Revision 22.3.0.127)";

class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"setup", "logs", "docs"}) makeDir(dir_.file(d));
    options_.cwd = dir_.path();
    options_.env["CONFIG"] = dir_.path();
    for (const char* v : {"ZEPH_SRV_LOG", "KVDIR", "ECM_CONF_DIRS"}) options_.env[v] = kUnset;
  }
  ChildResult run(std::vector<std::string> args) {
    args.insert(args.begin(), kProgram);
    return runChild(args, options_);
  }
  TempDir dir_;
  ChildOptions options_;
};

// Help, an unknown option, or an option without its value.
TEST_F(ProgramTest, HelpAndUnknownOptionsPrintTheUsageAndExitWithZero) {
  const std::string usage = readFile(std::string(CLOCKETTE_SOURCE_DIR) + "/app/testdata/usage.txt");
  for (const char* option : {"-h", "-nosuch", "-password"}) {
    ChildResult r = run({"-test", "-loglevel", "5", option});
    EXPECT_EQ(r.exitCode, 0) << option;
    EXPECT_EQ(r.out, "") << option;
    EXPECT_EQ(r.err, usage) << option;
  }
}

TEST_F(ProgramTest, CommonPackageConfiguresTheLogWithTheEventPrefix) {
  // COMMON is read before anything else: here it decides where the log goes.
  writeFile(dir_.file("setup/COMMON.Setup"), "ZEPH_SRV_LOG=" + dir_.file("logs") + "\n");
  // Options are logged before the log file is opened, so on standard error.
  options_.env["LOG_DEBUG"] = "on";
  ChildResult r = run({"-type", "stamper", "-test", "-testpath", dir_.file("docs")});
  std::string prefix = std::string(kBanner) + " [program=" + kProgram + "] : ";
  EXPECT_TRUE(contains(r.err, prefix)) << r.err;
  EXPECT_TRUE(contains(r.err, "option -type: 'stamper'")) << r.err;
  std::string log = readFile(dir_.file("logs/stamper.log"));
  EXPECT_EQ(log.rfind(prefix, 0), 0u) << log;
  EXPECT_TRUE(contains(log, "clockette started, " + std::string(kBanner))) << log;
  EXPECT_FALSE(contains(log, "only the environment")) << log;  // no warning
}

}  // namespace
