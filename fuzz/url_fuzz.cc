// URL splitting: the connection split of tcp_connect (stopped before any
// lookup or connection can leave the process), the "Host:" header split,
// port texts and the upload address derived from a server base.

#include <arpa/inet.h>

#include <string>

#include "fuzz_support.h"
#include "net/form.h"
#include "net/joblog.h"
#include "net/transport.h"

namespace {

// Thrown by the stand-in lookup when tcp_connect would otherwise go on to
// open a connection to a dotted-quad address.
struct StopBeforeConnect {};

struct hostent* NoLookup(const char* name) {
  if (inet_addr(name) != INADDR_NONE)
    throw StopBeforeConnect{};
  return nullptr;  // then "Invalid host name", no socket opened
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const std::string url = in.Line();
  const std::string other(in.Rest());

  std::string err, host, port, path;
  getHostPort(err, url.c_str(), host, port);
  (void)HostLine(host, port, "\r\n");
  (void)UploadHeader(host, port, !other.empty());
  (void)PortFromText(url.c_str());
  (void)PortFromText(other.c_str());
  (void)JobLogUploadUrl(url.c_str());
  (void)JobKey(url, other, host);

  const HostLookupFn saved = wl_host_lookup;
  wl_host_lookup = NoLookup;
  host.clear();
  port.clear();
  path = other;
  try {
    (void)tcp_connect(err, url.c_str(), host, port, path);
  } catch (const StopBeforeConnect&) {
  }
  wl_host_lookup = saved;
  h = nullptr;
  return 0;
}
