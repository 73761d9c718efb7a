#pragma once

// A request's way through the page cache: the gate at request start, the
// serving of a stored page, the capture of a page being made, request end.

#include <QByteArray>
#include <QString>

class CacheEntry;

int requestStartup();
int requestShutdown();

// Scheme, host and path of the request, slashes folded, without the query.
// `withPort`, when given, receives the same URL with the server's port added
// when the host has none: both come from one reading of the request.
QByteArray currentRequestUrl(QByteArray* withPort = nullptr);
bool isGzipAccepted();

// Decides, for a request whose rule and conditions allow the cache, between
// serving the stored page and capturing this one. After a session start a
// hit ends the running script right there.
void decideFromCache(const QString& ruleName, qint64 ruleId);
// 200, 304 or 412 for the conditional headers of the request; reads the
// stored clear copy into `entry` when there is a date to compare with.
int conditionalStatus(CacheEntry& entry);
int setResponseCode(int code);
void sendHeader(const QByteArray& line, bool replace = true);

// Puts the capture's handler on top of the output stack.
void startOutputCapture();
void disableCaching();
// At request end, for a capture the script ended with a flush: stores the
// page when nothing was written after it.
void finishEndedCapture();
