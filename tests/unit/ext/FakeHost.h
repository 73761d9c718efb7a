#pragma once

// An in-process stand-in for the engine side of the host layer, for the
// parts of the extension whose logic runs without an engine: the directive
// loader and the request probes. Tests fill it, run the code, and read what
// the code handed to the engine.

#include <map>
#include <set>
#include <string>
#include <vector>

struct FakeHost
{
    std::string sapiName = "cli";
    bool hasGetenv = true;
    std::map<std::string, std::string> serverVariables;
    std::string queryString;
    bool hasQueryString = false;
    std::string cookieData;
    bool hasBody = false;
    std::string body;

    // php.ini as the engine sees it; acceptDirective adds to it.
    std::map<std::string, std::string> configuration;
    // Directives registered by some module, and what was applied to them.
    std::set<std::string> registeredDirectives;
    std::map<std::string, std::string> applied;
    std::vector<std::pair<int, std::string>> errors;
    std::vector<std::string> parsedFiles;
    std::string engineScanDir;
    std::vector<std::string> errorLog;

    // The response as the request path sets it.
    int responseCode = 200;
    std::vector<std::string> headers;
    bool outputCompressing = false;

    static FakeHost& instance();
    void reset() { instance() = FakeHost(); }
};
