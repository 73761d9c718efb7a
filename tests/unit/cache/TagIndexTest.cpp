#include "../rules/RulesTestSupport.h"

#include "CacheEntry.h"
#include "VDiskStorage.h"
#include "VHTMLCache.h"
#include "VMD5.h"
#include "VTagIndex.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

namespace {

class TagIndexTest : public RulesFixture
{
protected:
    void SetUp() override
    {
        RulesFixture::SetUp();
        const QString rules = writeRulesFile(R"xml(<url schema="http" host="h" path="p"><name>p</name></url>)xml");
        cache = VHTMLCache::instance();
        ASSERT_TRUE(cache->load(QFile::encodeName(dir.filePath(QStringLiteral("store"))).constData(), 1,
                                QFile::encodeName(rules).constData(), 100));
    }
    void TearDown() override
    {
        cache->shutdown();
        VHTMLCache::destroyInstance();
        RulesFixture::TearDown();
    }
    // Stores page `n` holding `tags`, its build begun at `sinceMs`.
    bool store(int n, const QList<QByteArray>& tags, qint64 sinceMs = QDateTime::currentMSecsSinceEpoch() - 1)
    {
        const PageTags pageTags{tags, sinceMs};
        const QByteArray body(2000, 'x');
        return cache->storeOutput(ns, key(n), "http://h/p", body.constData(), body.size(), 200, {}, 300, true,
                                  false, nullptr, &pageTags);
    }
    QByteArray key(int n) const { return VMD5::hash(QByteArray::number(n)); }
    bool stored(int n) { return cache->entryExists(ns, key(n), false); }
    int removeTags(const QList<QByteArray>& tags)
    {
        bool complete = false;
        const int removed = VHTMLCache::removeByTags(*cache->store(), tags, &complete);
        EXPECT_TRUE(complete);
        return removed;
    }
    // Where the tag's names begin: its bucket, and the MD5 of the tag.
    QString tagPrefix(const QByteArray& tag) const
    {
        const QByteArray hash = VMD5::hash(tag);
        return QFile::decodeName(cache->store()->root() + ".tags/t/" + hash.left(1) + '/' + hash.mid(1, 2) + '/' + hash);
    }
    QString entriesOf(const QByteArray& tag) const { return QFileInfo(tagPrefix(tag)).path() + "/entries"; }

    const QByteArray ns = VMD5::hash("http://h/p");
    VHTMLCache* cache = nullptr;
};

TEST(PageTagWords, SplitOnCommasAndBlanksAndBoundedInCountAndLength)
{
    EXPECT_EQ((QList<QByteArray>{"node:1", "list", "x"}), VTagIndex::split(" node:1, list,,\tx "));
    QList<QByteArray> tags{"a"};
    QByteArray why;
    ASSERT_TRUE(VTagIndex::addBounded(tags, {"b", "a", QByteArray(VTagIndex::MaxTagBytes, 'c')}, &why));
    EXPECT_EQ(3, tags.size());
    EXPECT_FALSE(VTagIndex::addBounded(tags, {QByteArray(VTagIndex::MaxTagBytes + 1, 'c')}, &why));
    QList<QByteArray> many;
    for (int n = 4; n <= VTagIndex::MaxTags; ++n)
        many << QByteArray::number(n);
    EXPECT_TRUE(VTagIndex::addBounded(tags, many, &why));
    EXPECT_FALSE(VTagIndex::addBounded(tags, {"one too many"}, &why));
    EXPECT_EQ("more than 256 tags", why);
    EXPECT_EQ(VTagIndex::MaxTags, tags.size());
}

TEST_F(TagIndexTest, BothCopiesCarryTheTagsAfterTheBodyAndARemovalEndsThePagesOfItsTagsAlone)
{
    ASSERT_TRUE(store(1, {"post-1", "list"}));
    ASSERT_TRUE(store(2, {"post-2", "list"}));
    ASSERT_TRUE(store(3, {"post-3"}));
    CacheEntry clear, packed;
    cache->readEntry(ns, key(1), clear);
    cache->readCompressedEntry(ns, key(1), packed);
    EXPECT_EQ((QList<QByteArray>{"post-1", "list"}), clear.tags());
    EXPECT_EQ(clear.tags(), packed.tags());
    EXPECT_EQ(QByteArray(2000, 'x'), clear.body());

    EXPECT_EQ(2, removeTags({"list", "unknown"}));
    EXPECT_FALSE(stored(1) || stored(2));
    EXPECT_TRUE(stored(3));
    EXPECT_FALSE(cache->entryExists(ns, key(1) + ".z", false));
    const VTagIndex index(cache->store()->root());
    EXPECT_TRUE(index.pagesOf("list").isEmpty());
    EXPECT_EQ(1, index.pagesOf("post-3").size());
}

TEST_F(TagIndexTest, APageWhoseBuildBeganBeforeARemovalOfItsTagIsNotStored)
{
    const qint64 before = QDateTime::currentMSecsSinceEpoch() - 1;
    removeTags({"list"});
    EXPECT_FALSE(store(1, {"other", "list"}, before));
    EXPECT_EQ("tag list was removed while the page was built", cache->tagRefusal());
    EXPECT_FALSE(stored(1));
    EXPECT_TRUE(store(1, {"other", "list"}, QDateTime::currentMSecsSinceEpoch() + 1));
}

TEST_F(TagIndexTest, ADamagedListingIsRebuiltFromTheRecordsAndADamagedRemovalTimeCountsAsNow)
{
    // "b" shares the bucket of "a", whose listing a crash tears.
    QByteArray b;
    for (int n = 0; b.isEmpty() || entriesOf(b) != entriesOf("a"); ++n)
        b = "b" + QByteArray::number(n);
    ASSERT_TRUE(store(1, {"a"}));
    ASSERT_TRUE(store(2, {b}));
    ASSERT_TRUE(QFile::resize(entriesOf("a"), 150));
    removeTags({"a"});
    EXPECT_FALSE(stored(1));
    EXPECT_TRUE(stored(2));
    EXPECT_EQ(1, removeTags({b}));
    EXPECT_FALSE(stored(2));
    QFile removed(tagPrefix(b) + QStringLiteral(".removed"));
    ASSERT_TRUE(removed.open(QIODevice::WriteOnly));
    removed.write("damaged");
    removed.close();
    EXPECT_FALSE(store(3, {b}));
    EXPECT_TRUE(store(3, {b}, QDateTime::currentMSecsSinceEpoch() + 1));
}

TEST_F(TagIndexTest, AnIndexOfTheEarlierFormIsHonouredAndAListingMostlyDeadIsCompacted)
{
    // The earlier form: one empty file per tag and page.
    ASSERT_TRUE(store(1, {"old"}));
    ASSERT_TRUE(QFile::remove(entriesOf("old")));
    QFile(tagPrefix("old") + QLatin1Char('-') + QString::fromLatin1(ns + '-' + key(1))).open(QIODevice::WriteOnly);
    EXPECT_EQ(1, removeTags({"old"}));
    EXPECT_FALSE(stored(1));
    EXPECT_EQ(QStringList{QFileInfo(tagPrefix("old")).fileName() + ".removed"},
              QFileInfo(tagPrefix("old")).dir().entryList({QFileInfo(tagPrefix("old")).fileName() + '*'}));
    for (int n = 0; n < 600; ++n)
        ASSERT_TRUE(store(n % 10, {"menu"}));
    VHTMLCache::finishTagRemovals(*cache->store());
    EXPECT_EQ(10 * 110, QFileInfo(entriesOf("menu")).size());
    EXPECT_EQ(10, removeTags({"menu"}));
}

} // namespace
