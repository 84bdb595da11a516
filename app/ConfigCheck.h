// ConfigCheck: "clockette -check". Looks at every setting that would only
// fail once the worker runs (a host that does not resolve, a certificate
// file that does not parse, a document directory the service may not write)
// and says, one line per problem, which setting is wrong and how to fix it.
// Reads the settings as the worker's init left them, and the others from the
// worker's Environment; changes nothing but a probe file that it removes at
// once.
#ifndef APP_CONFIGCHECK_H_
#define APP_CONFIGCHECK_H_

#include <string>
#include <vector>

class Clockette;

// One line per problem: "<SETTING>: <what is wrong>; <the fix>". Empty
// when every setting is usable.
std::vector<std::string> checkConfiguration(const Clockette& worker);

#endif  // APP_CONFIGCHECK_H_
