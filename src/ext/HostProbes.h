#pragma once

// What host the extension runs under, and what the current request is.

#include <QByteArray>
#include <cstddef>

bool isFpm();
bool isPhpdbg();
// The "cgi-fcgi" server API with a listening socket on descriptor 0, which
// is how the engine's CGI binary runs as a FastCGI server.
bool isPlainCgi();
bool isFastCgiHost();
// 0 for a web server API, -1 otherwise.
int webSapiCheck();
// Always 0: the page cache never runs inside the task daemon.
int isDaemonMode();

const char* scriptFilename();
// Whether the server's HTTPS variable says https: set, not empty, not "off".
bool isHttpsOn(const char* https);
// Scheme, host, port and request URI of this request, of any length;
// empty without a host.
QByteArray currentUrl();
// 1 when the request came in on one of the internal ports, else 0.
int isInternalRequest();
// The decoded value of a query, cookie or (with readBody) body parameter,
// allocated by the engine's request allocator, or null.
char* requestParameter(const char* name, size_t length, int readBody);
int isDebugSessionRequest();
