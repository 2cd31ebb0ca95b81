// Headless Chromium loads the exporter's page, driven over its debugging
// pipe: the DOM shows the registry tree and a chart whose series holds
// samples that arrived while the page was open; a screenshot is kept.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "exporter/exporter_host.h"

namespace {

using namespace kt_exporter_test;

std::string DecodeBase64(const std::string& text) {
  std::string out;
  int bits = 0;
  unsigned int buffer = 0;
  for (char c : text) {
    const char* at = std::strchr(
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", c);
    if (c == '=' || c == '\0' || at == nullptr) continue;
    buffer = (buffer << 6) | static_cast<unsigned int>(at - "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  return out;
}

// Chromium with its debugging protocol on a pipe: one NUL-ended JSON message
// per command and per answer.
class Browser {
 public:
  Browser(const std::string& chromium, const std::string& dir) {
    int toBrowser[2], fromBrowser[2];
    EXPECT_EQ(pipe(toBrowser), 0);
    EXPECT_EQ(pipe(fromBrowser), 0);
    // Far from 3 and 4, where the child expects them.
    const int in = fcntl(toBrowser[0], F_DUPFD, 20), out = fcntl(fromBrowser[1], F_DUPFD, 20);
    m_child = std::make_unique<Child>(
        std::vector<std::string>{chromium, "--headless", "--no-sandbox", "--disable-gpu",
                                 "--remote-debugging-pipe", "--user-data-dir=" + dir + "/profile",
                                 "--window-size=1280,800", "about:blank"},
        dir + "/chromium.log", std::vector<std::pair<int, int>>{{in, 3}, {out, 4}});
    for (int fd : {toBrowser[0], fromBrowser[1], in, out}) close(fd);
    m_write = toBrowser[1];
    m_read = fromBrowser[0];
  }
  ~Browser() {
    close(m_write);
    close(m_read);
  }

  // Sends one command and returns its answer's "result" (null on timeout).
  nlohmann::json Call(const std::string& method, const nlohmann::json& params,
                      const std::string& session = "") {
    nlohmann::json command = {{"id", ++m_id}, {"method", method}, {"params", params}};
    if (!session.empty()) command["sessionId"] = session;
    const std::string text = command.dump() + std::string(1, '\0');
    if (write(m_write, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return {};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      const size_t end = m_pending.find('\0');
      if (end != std::string::npos) {
        const nlohmann::json answer = nlohmann::json::parse(m_pending.substr(0, end));
        m_pending.erase(0, end + 1);
        if (answer.value("id", 0) == m_id) return answer.value("result", nlohmann::json());
        continue;
      }
      pollfd wait{m_read, POLLIN, 0};
      char chunk[65536];
      if (poll(&wait, 1, 100) <= 0) continue;
      const ssize_t got = read(m_read, chunk, sizeof chunk);
      if (got <= 0) break;
      m_pending.append(chunk, static_cast<size_t>(got));
    }
    return {};
  }

 private:
  std::unique_ptr<Child> m_child;
  int m_write = -1, m_read = -1, m_id = 0;
  std::string m_pending;
};

const char kProbe[] = R"(JSON.stringify({
  tree: document.querySelectorAll('#tree li').length,
  picked: !!document.querySelector('#tree input[data-path="publishers/Publisher/temperature"]:checked'),
  samples: (typeof Chart === 'undefined' || !document.querySelector('.chart canvas')) ? 0 :
      Chart.getChart(document.querySelector('.chart canvas')).data.datasets[0].data.length}))";

TEST(ChromiumTest, PageShowsTheTreeAndAChartThatMovesWithTheSamples) {
  KT_REQUIRE_PROGRAM(chromium, "chromium", "chromium");
  ConventionPublisher publisher{{Described("temperature", "temperature of the test rig", "C"),
                                 Described("fan_speed", "fan speed", "1/s")}};
  ExporterHost host;
  host.Start(&publisher, {{"process", "rig"}});
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; !stop && i < 600; ++i) {
      publisher.Write(0, DoubleBytes(20 + i % 7));
      publisher.Write(1, DoubleBytes(1000 + 10 * (i % 5)));
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  char dir[] = "/tmp/kt_chromium_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  nlohmann::json seen;
  {
    Browser browser(chromium, dir);
    const std::string url = "http://127.0.0.1:" + std::to_string(host.Port()) +
                            "/?chart=publishers/Publisher/temperature";
    const std::string target = browser.Call("Target.createTarget", {{"url", url}}).value("targetId", "");
    const std::string session =
        browser.Call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}}).value("sessionId", "");
    ASSERT_FALSE(session.empty()) << "chromium did not open the page; see " << dir << "/chromium.log";
    for (int tries = 0; tries < 60; ++tries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
      const nlohmann::json result = browser.Call(
          "Runtime.evaluate", {{"expression", kProbe}, {"returnByValue", true}}, session);
      if (!result.contains("result") || !result["result"].contains("value")) continue;
      seen = nlohmann::json::parse(result["result"]["value"].get<std::string>());
      if (seen["tree"].get<int>() > 5 && seen["samples"].get<int>() >= 10) break;
    }
    const nlohmann::json shot = browser.Call("Page.captureScreenshot", {{"format", "png"}}, session);
    const std::string png = OutputDir() + "/exporter_page.png";
    std::ofstream(png, std::ios::binary) << DecodeBase64(shot.value("data", ""));
    std::printf("screenshot of the page: %s\n", png.c_str());
  }
  stop = true;
  writer.join();
  std::string ignored;
  RunProgram({"/bin/rm", "-rf", dir}, "", &ignored);
  EXPECT_GT(seen.value("tree", 0), 5) << seen.dump();
  EXPECT_TRUE(seen.value("picked", false)) << seen.dump();
  EXPECT_GE(seen.value("samples", 0), 10) << seen.dump();
}

}  // namespace
