// The tag index at the size it is designed for: 100,000 pages of 20 tags
// each, then the removal of tags held by 1,000 pages each (target: under
// 100 ms each), and of that the index's own share: reading the tag's
// listing (the rest is moving both records of each page into the trash the
// next cleaning deletes). Also what 20 tags add to storing a page.
//
//   bench_tag_index [PAGES]     (default 100000; needs ~2.5 M small files)
#include "PageCacheLogStream.h"
#include "VDiskStorage.h"
#include "VHTMLCache.h"
#include "VMD5.h"
#include "VTagIndex.h"

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>
#include <vector>

namespace {

const int TagsPerPage = 20;
// Pages per "batch:" tag: the tag a removal ends.
const int BatchPages = 1000;

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The process's own CPU time, user and system: on a machine shared with
// other work, the figure that the others' load moves least.
double cpuSeconds()
{
    struct timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// Page i holds one "batch:" tag shared with BatchPages - 1 others, and 19
// tags shared with a few pages each, as a site's "node:", "term:" and
// "user:" tags are.
QList<QByteArray> tagsOf(int page, int pages)
{
    QList<QByteArray> tags{"batch:" + QByteArray::number(page % std::max(1, pages / BatchPages))};
    for (int j = 1; j < TagsPerPage; ++j)
        tags << "g" + QByteArray::number(j) + ':' + QByteArray::number((page * 7919 + j * 104729) % 50000);
    return tags;
}

bool loadCache(VHTMLCache* cache, const QTemporaryDir& dir)
{
    const QString rules = dir.filePath(QStringLiteral("pagecache_rules.xml"));
    QFile file(rules);
    file.open(QIODevice::WriteOnly);
    file.write("<?xml version=\"1.0\"?><cache_settings><dont_cache/><cache>"
               "<url schema=\"http\" host=\"h\" path=\"p\"><name>p</name></url></cache></cache_settings>");
    file.close();
    QFile::copy(QStringLiteral(VESK_SOURCE_DIR "/conf/pagecache_rules_schema.xsd"),
                dir.filePath(QStringLiteral("pagecache_rules_schema.xsd")));
    return cache->load(QFile::encodeName(dir.filePath(QStringLiteral("store"))).constData(), 2,
                       QFile::encodeName(rules).constData(), 100);
}

} // namespace

int main(int argc, char** argv)
{
    const int pages = argc > 1 ? atoi(argv[1]) : 100000;
    QTemporaryDir dir;
    PageCacheLogStream = VDebug::DEVNULL;
    VHTMLCache* cache = VHTMLCache::instance();
    if (!loadCache(cache, dir))
        return 1;
    const QByteArray ns = VMD5::hash("http://h/p");
    const QByteArray body(4096, 'x');
    auto start = std::chrono::steady_clock::now();
    double cpuStart = cpuSeconds();
    for (int i = 0; i < pages; ++i) {
        const PageTags tags{tagsOf(i, pages), QDateTime::currentMSecsSinceEpoch() - 1};
        if (!cache->storeOutput(ns, VMD5::hash(QByteArray::number(i)), "http://h/p", body.constData(), body.size(),
                                200, {}, 3600, false, false, nullptr, &tags))
            return 1;
    }
    const double tagged = secondsSince(start), taggedCpu = cpuSeconds() - cpuStart;
    start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i)
        cache->storeOutput(ns, VMD5::hash("plain" + QByteArray::number(i)), "http://h/p", body.constData(),
                           body.size(), 200, {}, 3600, false, false);
    const double plain = secondsSince(start) / 1000;
    printf("stored %d pages of %d tags: %.1f s, %.0f us a page, %.0f us of CPU (%.0f us without tags)\n", pages,
           TagsPerPage, tagged, tagged / pages * 1e6, taggedCpu / pages * 1e6, plain * 1e6);
    // A removal meets a store written long before, not one whose writes
    // are still on their way to the disk.
    start = std::chrono::steady_clock::now();
    sync();
    printf("synced the store: %.1f s\n", secondsSince(start));
    std::vector<double> times, cpuTimes, listings;
    for (int batch = 0; batch < 5 && batch < pages / BatchPages; ++batch) {
        const QByteArray tag = "batch:" + QByteArray::number(batch);
        start = std::chrono::steady_clock::now();
        const int listed = VTagIndex(cache->store()->root()).pagesOf(tag).size();
        listings.push_back(secondsSince(start) * 1000);
        bool complete = false;
        start = std::chrono::steady_clock::now();
        cpuStart = cpuSeconds();
        const int removed = VHTMLCache::removeByTags(*cache->store(), {tag}, &complete);
        times.push_back(secondsSince(start) * 1000);
        cpuTimes.push_back((cpuSeconds() - cpuStart) * 1000);
        printf("removed tag %s: %d pages in %.1f ms, %.1f ms of CPU (listing %d of them: %.2f ms)%s\n",
               tag.constData(), removed, times.back(), cpuTimes.back(), listed, listings.back(),
               complete ? "" : " (incomplete)");
    }
    std::sort(times.begin(), times.end());
    std::sort(cpuTimes.begin(), cpuTimes.end());
    std::sort(listings.begin(), listings.end());
    if (!times.empty())
        printf("median removal of a tag of %d pages: %.1f ms, %.1f ms of CPU (target: under 100 ms), its listing "
               "%.2f ms\n", BatchPages, times[times.size() / 2], cpuTimes[cpuTimes.size() / 2],
               listings[listings.size() / 2]);
    return 0;
}
