// A tunnelling HTTP proxy on loopback for tests that must reach a TLS test server under a name with
// a public suffix when they cannot give the client a resolve entry: a plain test server that answers
// "CONNECT host:port" by connecting to 127.0.0.1:port, whatever the host. TLS runs end to end, so
// the client's SNI and certificate checks see the name it asked for.
//
// Point a client at it with https_proxy=<url()>.
#pragma once

#include <string>

#include "support/test_server.h"

class ZRBTestConnectProxy {
 public:
  ZRBTestConnectProxy() : server_(ZRBTestServerOptions{.tunnels = true}) { server_.start(); }
  std::string url() const { return server_.baseURL(); }

 private:
  ZRBTestServer server_;
};
