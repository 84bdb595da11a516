#include "base/Metrics.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"

namespace {

using namespace testing_support;

// Processes forked after the Metrics was made count into it as well.
TEST(MetricsTest, CountsFromManyThreadsAndForkedProcessesAllArrive) {
  Metrics metrics;
  EXPECT_EQ(runForked([&metrics] {
              metrics.countDocument(false);
              return 0;
            }),
            0);
  constexpr int kThreads = 4, kEach = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&metrics] {
      for (int i = 0; i < kEach; ++i) {
        metrics.countTimestamp(i % 2 == 0 ? 0 : -2);
        metrics.observeAnswer("", 0.01);
        metrics.countDocument(i % 4 != 0);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  Metrics::Totals totals = metrics.totals();
  EXPECT_EQ(totals.filesStamped, uint64_t{kThreads * kEach / 2});
  EXPECT_EQ(totals.documentsOk, uint64_t{kThreads * kEach * 3 / 4});
  EXPECT_EQ(totals.documentsFailed, uint64_t{kThreads * kEach / 4 + 1});
  EXPECT_EQ(Metrics().totals().changes, 0u) << "each Metrics counts on its own";
}

TEST(MetricsTest, TheFileHoldsTheCountersAndAFailedWriteGivesItsErrno) {
  Metrics metrics;
  TempDir dir;
  metrics.countTimestamp(-7);
  std::string path = dir.file("clockette.prom");
  std::string planted = path + ".tmp." + std::to_string(getpid());
  writeFile(planted, "planted");
  ASSERT_EQ(metrics.writePrometheusFile(path), 0);
  EXPECT_EQ(readFile(planted), "planted") << "a file planted beside it is left alone";
  std::string text = readFile(path);
  EXPECT_EQ(text, metrics.prometheusText());
  EXPECT_TRUE(contains(text, "clockette_timestamps_total{result=\"error_7\"} "));
  metrics.countTimestamp(-99);
  EXPECT_TRUE(contains(metrics.prometheusText(), "clockette_timestamps_total{result=\"other\"} "));
  EXPECT_EQ(metrics.writePrometheusFile(dir.file("missing/clockette.prom")), ENOENT);
}

TEST(MetricsTest, ServersAreCountedByPositionOnceNamed) {
  Metrics metrics;
  metrics.nameServers({"http://a:80", "tcp://b:318"});
  metrics.countServer(0, Metrics::ServerEvent::kFailed);
  metrics.countServer(0, Metrics::ServerEvent::kHeld);
  metrics.countServer(1, Metrics::ServerEvent::kOk);
  metrics.countServer(Metrics::kMaxServers, Metrics::ServerEvent::kOk);  // ignored
  std::string text = metrics.prometheusText();
  EXPECT_TRUE(contains(text,
                       "clockette_tsa_attempts_total{server=\"http://a:80\",result=\"failed\"} 1\n"
                       "clockette_tsa_attempts_total{server=\"http://a:80\",result=\"other\"} 0\n"))
      << text;
  EXPECT_TRUE(contains(text, "clockette_tsa_holds_total{server=\"http://a:80\"} 1\n"));
  EXPECT_EQ(metrics.serverSummary(),
            "http://a:80 attempts=1 ok=0 failed=1 held=1, tcp://b:318 attempts=1 ok=1 failed=0 "
            "held=0");
  metrics.nameServers({});
  EXPECT_FALSE(contains(metrics.prometheusText(), "clockette_tsa_attempts_total"));
}

}  // namespace
