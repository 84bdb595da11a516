#include "tsclient/TsTransport.h"

#include <cstdio>
#include <ctime>

#include "tsclient/TsSettings.h"

std::string serverName(const TsServer& server) {
  if (!server.url.empty()) return maskCredentials(server.url);
  const std::string host = maskCredentials(server.host);
  char text[64];
  if (isHttpServer(server)) {
    snprintf(text, sizeof text, ":%d/</", server.port);
    return server.protocol + "://" + host + text + server.path;
  }
  snprintf(text, sizeof text, ":%u", server.port);
  return host + text;
}

bool isHttpServer(const TsServer& server) {
  return server.protocol == "http" || server.protocol == "https";
}

long long steadyNowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}
