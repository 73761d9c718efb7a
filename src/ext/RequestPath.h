#pragma once

// A request's way through the page cache: the gate at request start, the
// look-up of the stored page, its serving or the capture of the page being
// made, and request end. RequestGate.cpp holds the way in its order.

#include "CacheEntry.h"

#include <QByteArray>
#include <QLinkedList>
#include <QString>

int requestStartup();
int requestShutdown();

bool isGzipAccepted();

// Puts the header hook and the flush forwarder in for this request.
void installRequestHooks();

// What the stored page answers for a request whose rule and conditions
// allow the cache.
enum class CacheAnswer {
    Pass,        // the script runs, uncaptured
    Miss,        // no usable page: the script runs and is captured
    Empty,       // the page is there but can't be read: likewise
    Serve,       // `served` goes out with its status
    NotModified, // a 304 or a 412 without a body
};
struct CacheLookup
{
    // The code in force before the look-up set `status`.
    int previousCode = 0;
    int status = 200;
    // 1 when `served` is the gzip copy.
    int compressedHit = 0;
    // The page is past its rule's lifetime, served within its grace.
    bool stale = false;
    // This request holds the stale page's lock and rebuilds it once its
    // client has the stale copy.
    bool rebuildAfter = false;
    // The clear copy, when a conditional request needed its date.
    CacheEntry conditional;
    CacheEntry served;
};
// Computes the page's key, answers conditional requests and asks the purge
// and response rules, logging and counting as it goes. Sets the response
// code for a page found; serves nothing and starts no capture.
CacheAnswer lookUp(CacheLookup& lookup, const QString& ruleName, qint64 ruleId);
// Looks up and acts on the answer. After a session start a hit ends the
// running script right there.
void decideFromCache(const QString& ruleName, qint64 ruleId);

// 200, 304 or 412 for the conditional headers of the request; reads the
// stored clear copy into `entry` when there is a date to compare with.
int conditionalStatus(CacheEntry& entry);
int setResponseCode(int code);
void sendHeader(const QByteArray& line, bool replace = true);
// Sends stored lines so that the response holds exactly them; `wanted`,
// when given, picks the lines that go.
void replayHeaders(const QLinkedList<QByteArray>& lines, bool (*wanted)(const QByteArray&) = nullptr);
// The lines a 304 must repeat from the page it stands for.
bool belongsToNotModified(const QByteArray& line);

// Under vesk_pagecache.enable_qa_info, tells the client what became of a
// covered request: "hit", "miss" (stored) or "pass" with its reason. The
// first verdict of a request stands; none once headers have gone out.
void sayVerdict(const char* verdict, const char* reason = nullptr);
// "pass" with `reason`, or with the reason noted earlier.
void sayPass(const char* reason = nullptr);
// Keeps the first reason a covered request won't be stored for.
void notePass(const char* reason);

// Whether this request's page may be published: its rule publishes, there
// is a publish directory, and the request carried no credentials (a page
// built for them must not go out to whoever asks the web server).
bool pagePublishable();
// The Content-Type the engine sends for a page that sets none.
QByteArray engineContentType();

// Puts the capture's handler on top of the output stack.
void startOutputCapture();
void disableCaching();
// At request end, for a capture the script ended with a flush: stores the
// page when nothing was written after it.
void finishEndedCapture();
