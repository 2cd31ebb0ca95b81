// kt-host --http: the exporter beside a command, as a user runs it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "exporter/exporter_host.h"

namespace {

using namespace kt_exporter_test;

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(KtHostHttpTest, WatchServesTheMachinesMetricsWhileItRuns) {
  const std::string log = OutputDir() + "/kt_host_http.log";
  setenv("KT_SYSTEM_PUBLISHER_PERIOD_MS", "100", 1);
  Child host({KT_HOST_PATH, "watch", "--seconds", "30", "--format", "lines", "--http", "127.0.0.1:0"},
             log);
  int port = 0;
  for (int tries = 0; tries < 400 && port == 0; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::string text = ReadFile(log);
    const size_t at = text.find("exporter at http://127.0.0.1:");
    if (at != std::string::npos) port = std::atoi(text.c_str() + at + 29);
  }
  ASSERT_NE(port, 0) << ReadFile(log);
  std::string metrics;
  for (int tries = 0; tries < 100 && metrics.find("cpu_percent{") == std::string::npos; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    metrics = Get(port, "/metrics").body;
  }
  EXPECT_NE(metrics.find("# TYPE system_publisher_memory_used_bytes gauge\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("system_publisher_cpu_percent{process=\"kt-host\"} "), std::string::npos) << metrics;
  EXPECT_NE(ReadFile(log).find("subscribed to 7 of 7 metrics"), std::string::npos) << ReadFile(log);
  // SIGTERM stops it cleanly, exporter included.
  kill(host.pid, SIGTERM);
  int status = -1;
  waitpid(host.pid, &status, 0);
  host.pid = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ReadFile(log);
}

TEST(KtHostHttpTest, AnAddressItCannotListenOnIsRefused) {
  const struct {
    const char* address;
    int status;
    const char* message;
  } rows[] = {
      {"example.org:80", 2, "not an address to listen on"},
      {"127.0.0.1:99999", 2, "not an address to listen on"},
      {"[::1]:0", 2, "not an address to listen on"},
  };
  for (const auto& row : rows) {
    std::string output;
    EXPECT_EQ(RunProgram({KT_HOST_PATH, "--http", row.address, "tree"}, "", &output), row.status) << row.address;
    EXPECT_NE(output.find(row.message), std::string::npos) << output;
  }
  // A port another listener holds.
  const int taken = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(taken, 1), 0);
  getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string busy = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  std::string output;
  EXPECT_EQ(RunProgram({KT_HOST_PATH, "--http", busy, "tree"}, "", &output), 1);
  EXPECT_NE(output.find("--http: cannot listen on " + busy), std::string::npos) << output;
  close(taken);
}

}  // namespace
