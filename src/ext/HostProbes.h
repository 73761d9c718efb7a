#pragma once

// What host the extension runs under, and what the current request is.

#include <QByteArray>

#include <cstddef>

bool isFpm();
// The "cgi-fcgi" server API with a listening socket on descriptor 0, which
// is how the engine's CGI binary runs as a FastCGI server.
bool isPlainCgi();
bool isFastCgiHost();
// 0 for a web server API, -1 otherwise.
int webSapiCheck();

const char* scriptFilename();
// Whether the server's HTTPS variable says https: set, not empty, not "off".
bool isHttpsOn(const char* https);
// The decoded value of a query, cookie or (with readBody) body parameter;
// null when the request has none of that name.
QByteArray requestParameter(const char* name, size_t length, bool readBody);
// Whether the query or cookies (with readBody, the body too) carry `name`.
bool requestCarries(const char* name, bool readBody);
