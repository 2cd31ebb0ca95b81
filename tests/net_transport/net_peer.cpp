// net_peer: the other process of the network transport's tests. It hosts the
// library and the transport module (NetHost), configures the module from its
// options, starts it and prints, one per line on standard output:
//   guid <registry GUID, hex>
//   endpoint <a resolved listening endpoint>      (one per --listen)
//   answers                                        (with --answers: the answers
//   <lines of net_test::Answers>                    of ops 1-5 and 9 asked in
//   end                                             this process)
//   ready
// It then runs until its standard input closes or says "quit", and stops
// cleanly. Usage:
//   net_peer [--answers] [--<key> <value>]...
// where each key is one of KTNetTransportConfigure's (listen, connect, serve,
// mount, name, deadline-ms, heartbeat-ms, grace-ms). Exit status 2 for a bad
// option or a refused setting, 1 when the host cannot start.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "net_host.h"

int main(int argc, char** argv) {
  net_test::NetHost host;
  if (!host.Open(KT_LIBRARY_PATH, KT_NET_MODULE_PATH)) {
    std::fprintf(stderr, "net_peer: %s\n", host.Error().c_str());
    return 1;
  }
  bool answers = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--answers") == 0) {
      answers = true;
      continue;
    }
    if (std::strncmp(argv[i], "--", 2) != 0 || i + 1 == argc ||
        host.Configure(argv[i] + 2, argv[i + 1]) != 0) {
      std::fprintf(stderr, "net_peer: bad option %s\n", argv[i]);
      return 2;
    }
    ++i;
  }
  if (host.Start() != 0) {
    std::fprintf(stderr, "net_peer: the transport was not added\n");
    return 1;
  }
  std::printf("guid %x\n", host.Guid());
  for (unsigned int i = 0; !host.Endpoint(i).empty(); ++i) {
    std::printf("endpoint %s\n", host.Endpoint(i).c_str());
  }
  if (answers) std::printf("answers\n%send\n", net_test::Answers(host.Client(), "").c_str());
  std::printf("ready\n");
  std::fflush(stdout);
  std::string line;
  while (std::getline(std::cin, line) && line != "quit") {
  }
  host.Stop();
  return 0;
}
