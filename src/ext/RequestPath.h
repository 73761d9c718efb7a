#pragma once

// A request's way through the page cache: the gate at request start, the
// serving of a stored page, the capture of a page being made, request end.

#include <QByteArray>
#include <QString>

int requestStartup();
int requestShutdown();

// Scheme, host and path of the request, slashes folded, without the query.
// `withPort`, when given, receives the same URL with the server's port added
// when the host has none: both come from one reading of the request.
QByteArray currentRequestUrl(QByteArray* withPort = nullptr);
bool isGzipAccepted();

// Decides, for a request whose rule and conditions allow the cache, between
// serving the stored page and capturing this one. `preSessionData` is the
// output printed before a session started, or null.
void decideFromCache(const char* preSessionData, const QString& ruleName, qint64 ruleId);
int conditionalStatus();
int setResponseCode(int code);
void sendHeader(const QByteArray& line);

void startOutputCapture(int flags);
void disableCaching();
