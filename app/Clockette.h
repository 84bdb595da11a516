// Clockette: the timestamping worker.
//
// Adds to the Kavlet settings those of the Timestamp Server (host, port,
// protocol, URL path, login, password), with their options, environment
// variables, usage texts and settings print-out. Its service timestamps the
// files of one document. The login and the password are never printed or
// logged.
//
// One object per process, created by main before any option is read; the
// settings do not change after init.
#ifndef APP_CLOCKETTE_H_
#define APP_CLOCKETTE_H_

#include <string>
#include <vector>

#include "app/Confinement.h"
#include "base/String.h"
#include "kavlet/Kavlet.h"
#include "tsclient/tsrequest.h"

class Clockette : public Kavlet {
 public:
  explicit Clockette(Environment& env);
  ~Clockette() override;

  // Kavlet::init, then the timestamp requester with the Timestamp Server
  // settings and credentials. 1 when ready; 0 when the base refused, the
  // password file was refused or the timestamp library could not be
  // initialised (logged at level 2).
  int init(int argc, char** argv) override;

  void printObject() override;
  // Timestamps the files of the open document (DocumentStamper): 1 done, 0
  // failed (logged, recorded in the protocol and sent as an operator
  // notification).
  int service(const char* directory) override;
  // Takes -host, -port, -protocol, -url_path, -url, -login and -password with
  // their value; 0 for any other argument or a value missing at the end.
  int parseOneArgument(int argc, char** argv, int* position) override;
  void printAddOnUsage() override;
  void printArgsUsage() override;
  void printCommandsUsage() override;
  void printEnvUsage() override;
  void printHintsUsage() override;
  void printVersion() override;
  // The Kavlet variables, then TIMESTAMP_PROTOCOL, TIMESTAMP_HOST,
  // TIMESTAMP_PORT, TIMESTAMP_URL_PATH, TIMESTAMP_URL, TIMESTAMP_LOGIN, TIMESTAMP_PASSWORD;
  // a variable that is set, even to an empty value, replaces its setting.
  // TS_PARALLEL sets parallel; a value that is no whole number from 1 to 64
  // is logged at level 2 and the default (8) stays.
  // TIMESTAMP_PASSWORD_FILE, when set, names a file whose first line is the
  // password (over TIMESTAMP_PASSWORD); a file that others may read is
  // refused and init fails.
  // TS_ALLOWED_ROOTS=<dir>[:<dir>...] sets allowedRoots.
  void readEnvironment() override;

  // The settings in effect, as the start-up settings line shows them: the
  // framework's, then the Timestamp Server's (credentials masked).
  std::string settingsLine() const;

  String host;      // Timestamp Server host
  int port;         // its TCP port, as atoi gives it (handed on modulo 65536)
  String protocol;  // "http" or "https", passed on unchecked
  String urlPath;   // path part of the server URL
  String url;       // a whole http(s) URL posted as written; empty: the designed form
  String login;     // HTTP Basic user; empty: none. Never printed.
  String password;  // HTTP Basic password; empty: none. Never printed.
  // Timestamp requests of one document under way at the same time
  // (TS_PARALLEL, 1 to 64; 1: one after the other).
  int parallel;
  // Directories a document's files may lie in besides its own directory and
  // the KV directory (the test path in test mode).
  std::vector<std::string> allowedRoots;

 private:
  // What documents may reach, settled by init.
  void settleConfinement();

  std::string passwordFileProblem_;  // why TIMESTAMP_PASSWORD_FILE was refused
  ConfinementSettings confinement_;
  TsRequester requester_;  // configured by init, then used by every document
};

#endif  // APP_CLOCKETTE_H_
