#pragma once

// What the test module asks of the rules, in plain types: each answers for
// the current request's superglobals. A name the rules don't know throws
// std::runtime_error with the rules' own message.

#include <string>

void rulesProbeStartup();
std::string probeValue(const std::string& global);
bool probeExists(const std::string& global);
