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
    const QFileInfo list(tagPrefix("list"));
    EXPECT_EQ(QStringList{list.fileName() + ".removed"}, list.dir().entryList({list.fileName() + '*'}, QDir::Files));
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

TEST_F(TagIndexTest, DamageCountsAsARemovalOrSendsTheRemovalToTheRecords)
{
    ASSERT_TRUE(store(1, {"a"}));
    ASSERT_TRUE(store(2, {"b"}));
    // A listing with a name that is no page's: the records say which pages hold the tag.
    QFile(tagPrefix("a") + QStringLiteral("-junk")).open(QIODevice::WriteOnly);
    QFile::remove(tagPrefix("a") + QLatin1Char('-') + QString::fromLatin1(ns + '-' + key(1)));
    removeTags({"a"});
    EXPECT_FALSE(stored(1));
    EXPECT_TRUE(stored(2));
    // A removal time that fails its checks is a removal now.
    QFile removed(tagPrefix("b") + QStringLiteral(".removed"));
    ASSERT_TRUE(removed.open(QIODevice::WriteOnly));
    removed.write("damaged");
    removed.close();
    EXPECT_FALSE(store(3, {"b"}));
    EXPECT_TRUE(store(3, {"b"}, QDateTime::currentMSecsSinceEpoch() + 1));
}

} // namespace
