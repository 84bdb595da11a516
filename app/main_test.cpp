// The clockette program as a child process: start-up, usage and exit codes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
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
    EXPECT_EQ(r.err, option == std::string("-h")
                         ? usage
                         : "unknown option '" + std::string(option) + "'\n" + usage)
        << option;
  }
}

TEST_F(ProgramTest, VersionNeedsNoConfiguration) {
  options_.env["CONFIG"] = kUnset;
  ChildResult r = run({"--version"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, std::string(kBanner) + "\n");
}

TEST_F(ProgramTest, CheckNamesEveryUnusableSettingAndItsFix) {
  writeFile(dir_.file("secret"), "pw\n");
  chmod(dir_.file("secret").c_str(), 0644);
  writeFile(dir_.file("setup/COMMON.Setup"),
            "TIMESTAMP_HOST=no-such-host.invalid\nTS_CAFILE=" + dir_.file("secret") +
                "\nTS_POLICY=no.oid\nTIMESTAMP_FALLBACK=http://127.0.0.1:8080, ftp://x:1\n"
                "TIMESTAMP_PASSWORD_FILE=" +
                dir_.file("secret") + "\nKV_ORDER_PORT=70000\nKVDIR=/sys\n");
  ChildResult r = run({"-check", "-kvhost", "kv.invalid"});
  EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
  for (const char* line :
       {"TIMESTAMP_HOST: 'no-such-host.invalid' does not resolve", "TS_CAFILE: '",
        "TS_POLICY: 'no.oid' is no object identifier", "TIMESTAMP_FALLBACK: entry 'ftp://x:1'",
        "TIMESTAMP_PASSWORD_FILE: '", "KVHOST: 'kv.invalid' does not resolve",
        "KV_ORDER_PORT: '70000'", "KVDIR: '/sys' is not writable"}) {
    EXPECT_TRUE(contains(r.out, std::string("\n") + line) || r.out.rfind(line, 0) == 0)
        << line << "\n"
        << r.out;
  }
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 8) << r.out;
  EXPECT_TRUE(contains(r.out, "the unit's ReadWritePaths= allow")) << r.out;  // a sandbox hint
  // Usable settings: nothing to say. (Test mode needs no KV.)
  writeFile(dir_.file("setup/COMMON.Setup"), "TIMESTAMP_HOST=127.0.0.1\n");
  r = run({"-check", "-test"});
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_EQ(r.out, "configuration ok\n");
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
