// Crash safety of the tag index: a process storing a tagged page, and one
// removing a tag, killed dead at each step of its work in turn. After the
// first kind, a removal of the page's tag ends the page whatever the step;
// after the second, once the removal is finished as the cleaner finishes
// it, no page of the tag is left and none built before it can be stored.
// Then writers entering pages under one tag at once: a removal ends them all.
//
//   tag_index_stress            (ctest runs it as stress.tag_index; about a second)

#include "PageCacheLogStream.h"
#include "VDiskStorage.h"
#include "VHTMLCache.h"
#include "VMD5.h"
#include "VTagIndex.h"

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const QByteArray Ns = VMD5::hash("http://h/p");
VHTMLCache* cache = nullptr;
int failures = 0;

QByteArray key(const QByteArray& name)
{
    return VMD5::hash(name);
}

bool store(const QByteArray& name, const QList<QByteArray>& tags, qint64 sinceMs)
{
    const PageTags pageTags{tags, sinceMs};
    const QByteArray body(2000, 'x');
    return cache->storeOutput(Ns, key(name), "http://h/p", body.constData(), body.size(), 200, {}, 300, true, false,
                              nullptr, &pageTags);
}

// Runs `work` in a child that dies at its `step`-th step; true when it
// ran to its end instead.
template <typename Work>
bool runDyingAt(int step, Work work)
{
    const pid_t pid = fork();
    if (pid == 0) {
        int steps = 0;
        VTagIndex::reached = [&](const char*) {
            if (++steps == step)
                _exit(9);
        };
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void expect(bool holds, const char* what, int step)
{
    if (!holds) {
        fprintf(stderr, "FAILED at step %d: %s\n", step, what);
        ++failures;
    }
}

void killStoring()
{
    for (int step = 1;; ++step) {
        const QByteArray page = "stored-" + QByteArray::number(step);
        const QList<QByteArray> tags{page + "-a", page + "-b"};
        const bool finished = runDyingAt(step, [&] { store(page, tags, QDateTime::currentMSecsSinceEpoch()); });
        expect(!finished || cache->entryExists(Ns, key(page), false), "a whole store stored nothing", step);
        bool complete = false;
        VHTMLCache::removeByTags(*cache->store(), {tags.last()}, &complete);
        expect(complete && !cache->entryExists(Ns, key(page), false), "the page outlived its tag's removal", step);
        expect(!cache->entryExists(Ns, key(page) + ".z", false), "the gzip copy outlived the removal", step);
        if (finished)
            return;
    }
}

void killRemoving()
{
    for (int step = 1;; ++step) {
        const QByteArray tag = "removed-" + QByteArray::number(step);
        const qint64 before = QDateTime::currentMSecsSinceEpoch() - 1;
        for (const char* page : {"1", "2", "3"})
            store(tag + page, {tag}, before);
        const bool finished = runDyingAt(step, [&] {
            bool complete = false;
            VHTMLCache::removeByTags(*cache->store(), {tag}, &complete);
        });
        VHTMLCache::finishTagRemovals(*cache->store());
        for (const char* page : {"1", "2", "3"})
            expect(!cache->entryExists(Ns, key(tag + page), false), "a page outlived the removal", step);
        expect(!store(tag + "late", {tag}, before), "a page built before the removal was stored", step);
        if (finished)
            return;
    }
}

void writeTogether()
{
    const int Writers = 4, Pages = 50;
    QList<pid_t> writers;
    for (int w = 0; w < Writers; ++w) {
        if (const pid_t pid = fork())
            writers << pid;
        else {
            for (int n = 0; n < Pages; ++n)
                store("together-" + QByteArray::number(w * Pages + n), {"together", "w" + QByteArray::number(n)},
                      QDateTime::currentMSecsSinceEpoch() - 1);
            _exit(0);
        }
    }
    for (pid_t pid : writers)
        waitpid(pid, nullptr, 0);
    bool sound = false;
    const int listed = VTagIndex(cache->store()->root()).pagesOf("together", &sound).size();
    expect(sound && listed == Writers * Pages, "a writer lost or tore another's entries", listed);
    bool complete = false;
    VHTMLCache::removeByTags(*cache->store(), {"together"}, &complete);
    for (int n = 0; n < Writers * Pages; ++n)
        expect(!cache->entryExists(Ns, key("together-" + QByteArray::number(n)), false), "a page outlived its tag", n);
}

} // namespace

int main()
{
    QTemporaryDir dir;
    const QString rules = dir.filePath(QStringLiteral("pagecache_rules.xml"));
    QFile file(rules);
    file.open(QIODevice::WriteOnly);
    file.write("<?xml version=\"1.0\"?><cache_settings><dont_cache/><cache>"
               "<url schema=\"http\" host=\"h\" path=\"p\"><name>p</name></url></cache></cache_settings>");
    file.close();
    QFile::copy(QStringLiteral(VESK_SOURCE_DIR "/conf/pagecache_rules_schema.xsd"),
                dir.filePath(QStringLiteral("pagecache_rules_schema.xsd")));
    PageCacheLogStream = VDebug::DEVNULL;
    cache = VHTMLCache::instance();
    if (!cache->load(QFile::encodeName(dir.filePath(QStringLiteral("store"))).constData(), 1,
                     QFile::encodeName(rules).constData(), 100)) {
        fprintf(stderr, "cannot load: %s\n", qPrintable(cache->lastError()));
        return 1;
    }
    killStoring();
    killRemoving();
    writeTogether();
    printf("%s\n", failures ? "FAILED" : "passed");
    return failures ? 1 : 0;
}
