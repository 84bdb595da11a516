// The truth-value rule of environment switches.
#ifndef BASE_SWITCH_H_
#define BASE_SWITCH_H_

// The value is lower-cased (ASCII): "on" is true, "off" is false; otherwise
// "yes", "ja", "true" and "1" are true and anything else (also null) false.
bool switchIsOn(const char* value);

#endif  // BASE_SWITCH_H_
