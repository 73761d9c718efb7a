#pragma once

#include "CacheEntry.h"

#include <QByteArray>
#include <QString>

#include <functional>

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

// Hands each live page of the store to `visit`, one at a time and in no
// particular order: a walk holds one record in memory, whatever the store's
// size. Each record is read through the store itself, so a doubtful one is
// absent here as it is to a worker (and the read deletes it, as a worker's
// would). False, with the reason in `error`, when a directory or record of
// the store can't be read: a walk that missed part of the store must not
// pass for one that found it empty. A store not made yet holds no page.
bool forEachStoredPage(VDiskStorage& store, const std::function<void(const StoredPage&)>& visit,
                       QString* error = nullptr);
