#pragma once

#include <QByteArray>
#include <QLinkedList>

// What lives for one request. A worker serves one request at a time, so
// there is one instance per process.
struct RequestState
{
    // Application of this request; -1 for none.
    qint32 appId = -1;
    // Every header line of this response, for the response rules.
    QLinkedList<QByteArray> seenHeaders;
};

extern RequestState requestState;
