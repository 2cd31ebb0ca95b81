// A GetResourceInfo round trip across a link of the network transport: a
// client written with plain libzmq (tests/net_host/net_kit.h) sends the op-4
// request frame for the root to a `kt-host serve` process and waits for its
// reply frame, over ipc and over tcp on loopback. The baseline is a bare
// DEALER/ROUTER round trip of the same request and reply bytes in this
// binary, whose ROUTER answers from a thread of its own: what the engine
// alone costs, so that the ratio is the transport's serving path (decoding,
// the serve policy, the hand-off to a worker, the dispatch to the command
// method, the reply's encoding).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "net_host/net_kit.h"

namespace {

using namespace kt_net_test;

// The serving host, started on first use and stopped when the binary exits.
struct Served {
  TempDir dir;
  ServedHost host;
  std::string ipc;
  std::string tcp;
  bool ready = false;

  Served() {
    ready = host.Start(KT_HOST_PATH, {"--no-examples", "serve", "--listen",
                                      "ipc://" + dir.Path() + "/kt.sock", "--listen", "tcp://127.0.0.1:0"});
    const std::string& out = host.Output();
    for (size_t at = out.find("listening on "); at != std::string::npos;
         at = out.find("listening on ", at + 1)) {
      const std::string endpoint = out.substr(at + 13, out.find('\n', at) - at - 13);
      (endpoint.compare(0, 3, "ipc") == 0 ? ipc : tcp) = endpoint;
    }
  }
  static Served& Get() {
    static Served served;
    return served;
  }
};

const std::string kRequest = Request(1, 4, {0});

// A registry links once: every run says hello as a new one.
uint32_t NextGuid() {
  static uint32_t guid = 0xBE4C0000u;
  return ++guid;
}

// The reply of the request in flight; heartbeats skipped.
std::string AwaitReply(Socket& peer) {
  for (;;) {
    std::vector<std::string> got = peer.Receive(2000);
    if (got.empty()) return "";
    if (got.size() == 1 && got[0].size() > 5 && got[0][5] == kReply) return got[0];
  }
}

void LinkRoundTrip(benchmark::State& state, bool ipc) {
  Served& served = Served::Get();
  if (!served.ready) return state.SkipWithError("kt-host serve did not start");
  Socket peer(ZMQ_DEALER);
  peer.Connect(ipc ? served.ipc : served.tcp);
  if (!Handshake(peer, NextGuid())) return state.SkipWithError("no welcome");
  const std::string heartbeat = Frame(kHeartbeat, "");
  unsigned int sent = 0;
  for (auto _ : state) {
    // The client's own heartbeats keep the link up through long runs.
    if ((++sent & 255) == 0) peer.Send({heartbeat});
    peer.Send({kRequest});
    if (AwaitReply(peer).empty()) return state.SkipWithError("no reply");
  }
}

// The same bytes through a bare ROUTER that answers with the transport's own
// reply, recorded once.
void BareRoundTrip(benchmark::State& state, bool ipc) {
  Served& served = Served::Get();
  if (!served.ready) return state.SkipWithError("kt-host serve did not start");
  std::string reply;
  {
    Socket peer(ZMQ_DEALER);
    peer.Connect(served.tcp);
    if (!Handshake(peer, NextGuid()) || !peer.Send({kRequest})) {
      return state.SkipWithError("no welcome");
    }
    reply = AwaitReply(peer);
  }
  Socket router(ZMQ_ROUTER);
  const std::string endpoint =
      router.Bind(ipc ? "ipc://" + served.dir.Path() + "/bare.sock" : "tcp://127.0.0.1:*");
  std::thread answer([&router, &reply] {
    for (;;) {
      std::vector<std::string> got = router.Receive(-1);
      if (got.size() != 2 || got[1] == "stop") return;
      router.Send({got[0], reply});
    }
  });
  Socket peer(ZMQ_DEALER);
  peer.Connect(endpoint);
  for (auto _ : state) {
    peer.Send({kRequest});
    if (peer.Receive(2000).empty()) break;
  }
  peer.Send({"stop"});
  answer.join();
}

BENCHMARK_CAPTURE(LinkRoundTrip, ipc, true)->UseRealTime();
BENCHMARK_CAPTURE(LinkRoundTrip, tcp, false)->UseRealTime();
BENCHMARK_CAPTURE(BareRoundTrip, ipc, true)->UseRealTime();
BENCHMARK_CAPTURE(BareRoundTrip, tcp, false)->UseRealTime();

}  // namespace
