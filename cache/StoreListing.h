#pragma once

#include "CacheEntry.h"

#include <QByteArray>
#include <QList>

class VDiskStorage;

// One live record of the page store, as a reader of the store sees it.
struct StoredPage
{
    QByteArray ns;
    QByteArray key; // the variant key's MD5, with ".z" for the gzip copy
    qint64 written = 0;   // seconds since 1970
    qint64 lifetime = 0;  // seconds; 0 never expires
    qint64 fileBytes = 0; // what the record file takes, header included
    CacheEntry entry;

    bool compressedCopy() const { return key.endsWith(".z"); }
};

// Every live page of the store, in no particular order. Each record is read
// through the store itself, so a doubtful one is absent here as it is to a
// worker (and the read deletes it, as a worker's would).
QList<StoredPage> listStore(VDiskStorage& store);
