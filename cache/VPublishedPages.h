#pragma once

#include "VTrashFolder.h"

#include <QByteArray>
#include <QHash>
#include <QLinkedList>
#include <QRegExp>
#include <QtGlobal>

#include <functional>

// What the request path knows of a page that its rule publishes.
struct PublishTarget
{
    // The request's whole URL: scheme, host, port, path and query.
    QByteArray url;
    // The Content-Type the response went out with, the engine's default
    // when the script set none.
    QByteArray contentType;
    // The end of the page's own lifetime (grace left out), in seconds since
    // 1970; 0 for a page that never expires.
    qint64 expiresAt = 0;
    // What decides the rule's files (VHTMLCache::publishDescription).
    QByteArray ruleDescription;
};

// Stored pages mirrored as static files that the web server sends without
// PHP, under the publish directory:
//
//   <dir>/<namespace>/<scheme>/<host>:<port><path>.vesk.html    the clear copy
//   <dir>/<namespace>/<scheme>/<host>:<port><path>.vesk.html.gz the gzip copy
//   <dir>/.index/<namespace>/<key>                       which files a record has
//   <dir>/.index/<namespace>/.rule                       what the rule was
//   <dir>/.vesk-published                                the folder is the cache's
//
// The store stays the one source of truth: every file has its index entry
// before it appears, and whatever ends a record ends the files its entry
// names. A name is only made from a URL whose every byte reads the same to
// PHP and to the web server, so no URL names a file outside the directory,
// nor another URL's file, nor a directory where a file lies.
class VPublishedPages
{
public:
    explicit VPublishedPages(const QByteArray& root);

    QByteArray root() const { return m_root; }
    // Makes the folder the cache's own, or finds it so: false, with the
    // reason in lastError, for a folder that holds anything the cache did
    // not write. Nothing is written or removed in a folder refused.
    bool claim();
    // The Content-Type the web server sends for a published file.
    static const char* contentType() { return "text/html; charset=UTF-8"; }
    // The file, relative to the directory, for the page of `url` under the
    // rule of namespace `ns`; null with the reason in `why` for a URL that
    // has a query, an unsafe path or a host that isn't a plain host name.
    static QByteArray fileFor(const QByteArray& ns, const QByteArray& url, QByteArray* why);
    // Whether the web server, sending the file, sends what the store would:
    // status 200 and no header but Content-Type (contentType()),
    // Last-Modified (the file's date) and Vary: Accept-Encoding.
    static bool sendsAsStored(int status, const QLinkedList<QByteArray>& headers, const QByteArray& type,
                              QByteArray* why);

    // Writes the clear copy and, unless `gzipBody` is null, the gzip copy
    // (an older gzip copy goes otherwise), each by a rename, dated `mtime`.
    // An older page of the record published under another name goes first.
    bool publish(const QByteArray& ns, const QByteArray& key, const QByteArray& file, const QByteArray& clearBody,
                 const QByteArray& gzipBody, qint64 mtime, qint64 expiresAt);
    // Before a page is published: marks the folder as the cache's, and notes
    // what the rule of namespace `ns` was, when not done yet. Made by the
    // first writer, a worker, so that they belong to the workers' user.
    void noteRule(const QByteArray& ns, const QByteArray& description);
    // Notes that the record has no file: the web server can't send its page
    // as stored. A hit then has nothing to publish again.
    void refuse(const QByteArray& ns, const QByteArray& key, qint64 expiresAt);
    // Whether the record has an entry, published or refused: one existence
    // test, for a hit to know that its files went (a restart, a change).
    bool hasEntry(const QByteArray& ns, const QByteArray& key) const;
    // Ends the files of every namespace but those `rules` names with the
    // same description as when they were published. `rules` maps namespace
    // to description.
    void keepRules(const QHash<QByteArray, QByteArray>& rules);
    // Whether the record's entry still names `file`: one that an ending
    // removed while the files were being written does not.
    bool stillNames(const QByteArray& ns, const QByteArray& key, const QByteArray& file) const;
    // Ends the record's files; its entry goes first.
    void unpublish(const QByteArray& ns, const QByteArray& key);
    // Ends every file of a namespace; the null one ends all.
    void unpublishNamespace(const QByteArray& ns);
    // Ends the files of the page of `url` under every rule, and, when
    // `pattern` isn't empty, those of every page whose URL it matches: what
    // a purge names. The entries stay, so that a hit in a worker that
    // doesn't know the purge publishes nothing again; the page stored anew
    // is published again.
    void endPurged(const QByteArray& url, const QRegExp& pattern = QRegExp());
    // Ends the files of pages past their lifetime and of records that `live`
    // no longer finds, and what interrupted writes and endings left.
    void sweep(qint64 now, const std::function<bool(const QByteArray& ns, const QByteArray& key)>& live);
    // What the files and their folders took at the end of the last sweep,
    // in bytes: they count toward the store's bound.
    qint64 bytes() const { return m_bytes; }

    QByteArray lastError;

    // While one lives, ended files are renamed into a trash folder
    // (VTrashFolder) that the cleaner's sweep deletes, rather than unlinked
    // (VDiskStorage::TrashBatch does the same for their records).
    class TrashBatch
    {
    public:
        explicit TrashBatch(VPublishedPages* pages);
        ~TrashBatch();
        TrashBatch(const TrashBatch&) = delete;
        TrashBatch& operator=(const TrashBatch&) = delete;

    private:
        VPublishedPages* m_pages;
        bool m_outer;
    };

private:
    QByteArray indexPath(const QByteArray& ns, const QByteArray& key) const;
    // Reads an index entry: the page's end of life and its file.
    bool readEntry(const QByteArray& path, qint64* expiresAt, QByteArray* file) const;
    bool writeFile(const QByteArray& path, const QByteArray& data, qint64 mtime);
    void removeFiles(const QByteArray& file);
    // Removes the empty folders from `file`'s own up to its namespace's own.
    void removeEmptyFolders(const QByteArray& file);
    // The URL a published file stands for, as fileFor() named it.
    static QByteArray urlOf(const QByteArray& file);
    // What interrupted writes and endings left in the files' folders.
    void sweepLeftovers(qint64 now);
    // Renames `path` aside in one step, then deletes it: the web server
    // sees the whole tree or nothing of it.
    void removeTree(const QByteArray& path);
    void sweepNamespace(const QByteArray& ns, qint64 now,
                        const std::function<bool(const QByteArray&, const QByteArray&)>& live);

    QByteArray m_root;
    qint64 m_bytes = 0;
    bool m_marked = false;
    // The open TrashBatch's folder.
    VTrashFolder m_trash;
};
