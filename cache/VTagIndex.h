#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QVector>

#include <functional>

// Which stored pages hold which tag, beside the store, so that the removal
// of a tag ends every page holding it; see STORE_FORMAT.md. A page is
// entered under its tags before its record is written, and the tags stay
// locked (shared) while it is: a removal (exclusive) either comes first,
// and the writer sees its time and refuses, or after, and finds the page.
// The lock is flock(2), so a killed process holds none.
class VTagIndex
{
public:
    // What one page may hold; learned tags need room.
    static constexpr int MaxTags = 256;
    static constexpr int MaxTagBytes = 200;

    // The index of the store whose records lie under `storeRoot`.
    explicit VTagIndex(const QByteArray& storeRoot);

    // The tags in a header value or a script's text: separated by commas
    // or blanks, empty ones left out.
    static QList<QByteArray> split(const QByteArray& text);
    // Adds `more` to `tags`, each once. False, with the reason in `why`, for
    // a tag longer than MaxTagBytes or more than MaxTags in all: nothing is
    // added then.
    static bool addBounded(QList<QByteArray>& tags, const QList<QByteArray>& more, QByteArray* why);

    // The locks one page's entry holds until its record is written.
    class Entry
    {
    public:
        Entry() = default;
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        ~Entry();

    private:
        friend class VTagIndex;
        QVector<int> locks;
    };
    // Enters the page under each tag and keeps the tags locked while
    // `entry` lives. False, with the reason in `why`, when a tag was
    // removed at or after `sinceMs` (ms since 1970: when the page's build
    // began) or the index can't be written: the page must not be stored.
    bool enter(const QByteArray& ns, const QByteArray& key, const QList<QByteArray>& tags, qint64 sinceMs,
               Entry& entry, QByteArray* why);

    // Ends a page; true when it is gone.
    typedef std::function<bool(const QByteArray& ns, const QByteArray& key)> PageRemover;
    // Hands each stored page, with the tags its records carry, to the visitor;
    // false when part of the store could not be read.
    typedef std::function<void(const QByteArray& ns, const QByteArray& key, const QList<QByteArray>& tags)>
        PageVisitor;
    typedef std::function<bool(const PageVisitor& visit)> RecordWalker;
    // Removes `tag`: notes its removal time, then ends every page listed
    // under it. A listing found damaged is rebuilt first from the records,
    // which `walk` reads. Answers the number of pages listed; `complete`
    // false when one could not be ended. A remover killed midway leaves a
    // note that finishInterrupted() acts on.
    int remove(const QByteArray& tag, const PageRemover& removePage, const RecordWalker& walk, bool* complete);
    // Carries out again the removals that a killed process left unfinished.
    void finishInterrupted(const PageRemover& removePage, const RecordWalker& walk);
    // Rewrites the listings that have grown mostly dead (pages entered
    // again and again under a tag never removed) without their dead lines;
    // a listing another process holds is left for the next time.
    void compact();

    // The pages listed under `tag` (some may have ended since); `sound`
    // false when the listing is damaged.
    QList<QPair<QByteArray, QByteArray>> pagesOf(const QByteArray& tag, bool* sound = nullptr) const;
    // When `tag` was last removed, in ms since 1970; 0 for never.
    qint64 removedAt(const QByteArray& tag) const;

    QByteArray root() const { return m_root; }
    QByteArray lastError;

    // The moments of a removal and of an entry, for tests that stop a
    // process dead at each.
    static std::function<void(const char* step)> reached;

private:
    struct Listing;
    QByteArray tagPrefix(const QByteArray& tag) const;
    int lockTag(const QByteArray& prefix, int how);
    bool writeRemovedAt(const QByteArray& prefix, qint64 ms);
    bool appendLines(const QByteArray& bucket, const QByteArray& lines);
    Listing listing(const QByteArray& bucket) const;
    bool rebuild(const QByteArray& bucket, const RecordWalker& walk);
    bool rewrite(const QByteArray& bucket, const Listing& listing);
    bool closeListing(const QByteArray& bucket, const QByteArray& hash, Listing& listed);
    int removeListed(const QByteArray& tag, const PageRemover& removePage, const RecordWalker& walk,
                     bool* complete);
    static void step(const char* name);

    QByteArray m_root;
};
