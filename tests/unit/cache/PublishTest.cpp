#include "../rules/RulesTestSupport.h"

#include "QtIOCompressor.h"
#include "VDiskStorage.h"
#include "VHTMLCache.h"
#include "VMD5.h"
#include "VPublishedPages.h"

#include <QDirIterator>
#include <QFileInfo>

#include <ctime>
#include <string>

namespace {

using Headers = QLinkedList<QByteArray>;

const QByteArray Html = "Content-Type: text/html; charset=UTF-8";
const QByteArray Dated = "Last-Modified: Mon, 02 Nov 2026 10:00:00 GMT";
const qint64 DatedSecs = 1793613600;

struct FileCase
{
    const char* url;
    const char* file; // null: refused
    const char* why;
};

class FileNames : public ::testing::TestWithParam<FileCase>
{
};

// Every name lies under its namespace, is one URL's own, and no URL's name
// is the directory of another's.
TEST_P(FileNames, OnlySafeUrlsGetAFile)
{
    const FileCase& c = GetParam();
    QByteArray why;
    const QByteArray file = VPublishedPages::fileFor("0123abcd", c.url, &why);
    if (c.file) {
        EXPECT_EQ(QByteArray(c.file), file) << why.constData();
    } else {
        EXPECT_TRUE(file.isNull()) << file.constData();
        EXPECT_EQ(QByteArray(c.why), why);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Urls, FileNames,
    ::testing::Values(
        FileCase{"http://h/a/b", "0123abcd/http/h:80/a/b.vesk.html", ""},
        FileCase{"http://h/a/b/", "0123abcd/http/h:80/a/b/.vesk.html", ""},
        FileCase{"https://Www.Example.org:8443/", "0123abcd/https/www.example.org:8443/.vesk.html", ""},
        FileCase{"http://127.0.0.1:8080/x-y_z~1.2", "0123abcd/http/127.0.0.1:8080/x-y_z~1.2.vesk.html", ""},
        FileCase{"http://h/a?b=1", nullptr, "a query string"},
        FileCase{"http://h/a?", nullptr, "a query string"},
        FileCase{"http://h/a#f", nullptr, "a query string"},
        FileCase{"http://h/../../etc/passwd", nullptr, "a path with a segment that starts with '.' or is too long"},
        FileCase{"http://h/a/./b", nullptr, "a path with a segment that starts with '.' or is too long"},
        FileCase{"http://h/.index/0123abcd/k", nullptr, "a path with a segment that starts with '.' or is too long"},
        FileCase{"http://h/%2e%2e/%2e%2e/x", nullptr, "a path with a character other than letters, digits and '-._~/'"},
        FileCase{"http://h/a%2fb", nullptr, "a path with a character other than letters, digits and '-._~/'"},
        FileCase{"http://h/a\\..\\b", nullptr, "a path with a character other than letters, digits and '-._~/'"},
        FileCase{"http://h/a//b", nullptr, "a path with an empty segment"},
        FileCase{"http://h/a.vesk.html/b", nullptr, "a path with a segment named as a published file"},
        FileCase{"http://h/a.vesk.html.gz", nullptr, "a path with a segment named as a published file"},
        FileCase{"http://h:80@evil/a", nullptr, "a host that isn't a plain host name"},
        FileCase{"http://[::1]:80/a", nullptr, "a host that isn't a plain host name"},
        FileCase{"http://../a", nullptr, "a host that isn't a plain host name"},
        FileCase{"http://h./a", nullptr, "a host that isn't a plain host name"},
        FileCase{"http://-h/a", nullptr, "a host that isn't a plain host name"},
        FileCase{"http:///a", nullptr, "a host that isn't a plain host name"},
        FileCase{"ftp://h/a", nullptr, "not an http or https URL with a path"},
        FileCase{"http://h", nullptr, "not an http or https URL with a path"}),
    // Named by their place in the list: the default would print the case's pointers.
    [](const ::testing::TestParamInfo<FileCase>& info) { return "url" + std::to_string(info.index); });

TEST(FileNames, NulByteAndNamespaceRefused)
{
    QByteArray why;
    EXPECT_TRUE(VPublishedPages::fileFor("0123abcd", QByteArray("http://h/a\0b", 12), &why).isNull());
    EXPECT_TRUE(VPublishedPages::fileFor("../x", "http://h/a", &why).isNull());
    EXPECT_TRUE(VPublishedPages::fileFor(QByteArray(), "http://h/a", &why).isNull());
}

TEST(SendsAsStored, OnlyHeadersTheWebServerSendsTheSame)
{
    QByteArray why;
    const QByteArray type = VPublishedPages::contentType();
    EXPECT_TRUE(VPublishedPages::sendsAsStored(200, Headers{Html, Dated, "Vary: Accept-Encoding", "Cache-Control: no-cache"}, type, &why));
    EXPECT_TRUE(VPublishedPages::sendsAsStored(200, Headers{}, type, &why));
    EXPECT_FALSE(VPublishedPages::sendsAsStored(404, Headers{}, type, &why));
    EXPECT_EQ("status 404", why);
    EXPECT_FALSE(VPublishedPages::sendsAsStored(200, Headers{}, "text/plain", &why));
    EXPECT_EQ("Content-Type text/plain", why);
    EXPECT_FALSE(VPublishedPages::sendsAsStored(200, Headers{"Content-Type: text/html"}, type, &why));
    EXPECT_FALSE(VPublishedPages::sendsAsStored(200, Headers{Html, "Set-Cookie: a=b"}, type, &why));
    EXPECT_EQ("the header Set-Cookie", why);
    EXPECT_FALSE(VPublishedPages::sendsAsStored(200, Headers{"Location: /x"}, type, &why));
    EXPECT_FALSE(VPublishedPages::sendsAsStored(200, Headers{"Vary: Cookie"}, type, &why));
    EXPECT_FALSE(VPublishedPages::sendsAsStored(200, Headers{"X-Custom: 1"}, type, &why));
}

class PublishTest : public RulesFixture
{
protected:
    void SetUp() override
    {
        RulesFixture::SetUp();
        const QString rules = writeRulesFile(R"xml(
          <url schema="http" host="h" path="(p.*)" id="1" match_type="regex_match" publish="true"><name>pub</name>
            <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by></url>
          <url schema="http" host="h" path="other" id="2" publish="true"><name>other</name></url>)xml");
        publishDir = QFile::encodeName(dir.filePath(QStringLiteral("published")));
        VHTMLCache::setPublishDir(publishDir);
        cache = VHTMLCache::instance();
        ASSERT_TRUE(cache->load(QFile::encodeName(dir.filePath(QStringLiteral("store"))).constData(), 1,
                                QFile::encodeName(rules).constData(), 100))
            << cache->lastError().toStdString();
    }
    void TearDown() override
    {
        cache->shutdown();
        VHTMLCache::destroyInstance();
        VHTMLCache::setPublishDir(QByteArray());
        RulesFixture::TearDown();
    }
    // "p": the rule split by URI; "o": the one with one page for its URL.
    static QByteArray ns(const char* rule) { return VMD5::hash(rule[0] == 'p' ? "http://h/(?:p.*)" : "http://h/other"); }
    bool store(const QByteArray& url, const QByteArray& key, const QByteArray& body, Headers headers = {Html, Dated},
               qint64 expiresAt = 0, const char* rule = "p")
    {
        const PublishTarget target{url, VPublishedPages::contentType(), expiresAt, {}};
        return cache->storeOutput(ns(rule), key, url, body.constData(), body.size(), 200, headers, 60, body.size() > 1024, false,
                                  &target);
    }
    QByteArray published(const char* rule, const QByteArray& rest) const
    {
        QFile file(QFile::decodeName(publishDir + '/' + ns(rule) + '/' + rest));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    // Every file under the test's directory, the store and the mirror.
    QStringList allFiles() const
    {
        QStringList files;
        QDirIterator it(dir.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext())
            files << it.next();
        return files;
    }

    VHTMLCache* cache = nullptr;
    QByteArray publishDir;
};

TEST_F(PublishTest, StoredPageIsPublishedClearAndGzipDatedAsSent)
{
    const QByteArray body = QByteArray(2000, 'x') + "<p>end</p>";
    ASSERT_TRUE(store("http://h:8080/p/a", "k", body));
    EXPECT_EQ(body, published("p", "http/h:8080/p/a.vesk.html"));
    const QByteArray gz = published("p", "http/h:8080/p/a.vesk.html.gz");
    EXPECT_EQ(body, decompress(gz.constData(), gz.size()));
    const QFileInfo info(QFile::decodeName(publishDir + '/' + ns("p") + "/http/h:8080/p/a.vesk.html"));
    EXPECT_EQ(DatedSecs, info.lastModified().toSecsSinceEpoch());
    EXPECT_TRUE(log().contains("Published http://h:8080/p/a as"));

    // A small page has no gzip copy: an older one goes.
    ASSERT_TRUE(store("http://h:8080/p/a", "k", "<p>small</p>"));
    EXPECT_EQ("<p>small</p>", published("p", "http/h:8080/p/a.vesk.html"));
    EXPECT_FALSE(QFile::exists(QFile::decodeName(publishDir + '/' + ns("p") + "/http/h:8080/p/a.vesk.html.gz")));
}

TEST_F(PublishTest, PageTheWebServerCantSendAsStoredIsStoredButNotPublished)
{
    ASSERT_TRUE(store("http://h/p/a", "k", "<p>1</p>"));
    ASSERT_FALSE(published("p", "http/h:80/p/a.vesk.html").isEmpty());
    // Stored anew with its own cookie: the record changed, the file goes.
    ASSERT_TRUE(store("http://h/p/a", "k", "<p>2</p>", Headers{Html, "Set-Cookie: s=1"}));
    EXPECT_TRUE(cache->entryExists(ns("p"), "k", false));
    EXPECT_TRUE(published("p", "http/h:80/p/a.vesk.html").isEmpty());
    EXPECT_TRUE(log().contains("Not publishing http://h/p/a : the header Set-Cookie"));
}

TEST_F(PublishTest, CraftedUrlPublishesNothingOutsideTheDirectory)
{
    const QStringList before = allFiles();
    for (const QByteArray& url : {QByteArray("http://h/p/../../../../escaped"), QByteArray("http://h/p/%2e%2e/x"),
                                  QByteArray("http://../p"), QByteArray("http://h/p/..%2f..%2fx"),
                                  QByteArray("http://h/p/.index/x")}) {
        ASSERT_TRUE(store(url, VMD5::hash(url), "<p>x</p>"));
        EXPECT_TRUE(cache->entryExists(ns("p"), VMD5::hash(url), false));
    }
    // Only store records and the mirror's notes (named with a dot, which no URL reaches) appeared.
    for (const QString& file : allFiles())
        EXPECT_TRUE(before.contains(file) || file.startsWith(dir.filePath(QStringLiteral("store/")))
                    || file.startsWith(QFile::decodeName(publishDir + "/."))) << file.toStdString();
    EXPECT_FALSE(QFile::exists(dir.filePath(QStringLiteral("escaped.vesk.html"))));
}

TEST_F(PublishTest, RecordStoredFromAnotherUrlMovesItsFileAndNoPublishDirectoryPublishesNothing)
{
    ASSERT_TRUE(store("http://h/other", "k", "<p>1</p>", {Html}, 0, "o"));
    ASSERT_TRUE(store("http://h2/other", "k", "<p>2</p>", {Html}, 0, "o"));
    EXPECT_TRUE(published("o", "http/h:80/other.vesk.html").isEmpty());
    EXPECT_EQ("<p>2</p>", published("o", "http/h2:80/other.vesk.html"));
    VHTMLCache::setPublishDir(QByteArray());
    ASSERT_TRUE(store("http://h/p/a", "k", "<p>1</p>"));
    EXPECT_TRUE(published("p", "http/h:80/p/a.vesk.html").isEmpty());
}

// The cleaner's sweep: a page past its own lifetime (its grace left out),
// a record that expired, was evicted or was removed by another process,
// and an ending cut short, all lose their files; a live page keeps them.
TEST_F(PublishTest, SweepEndsFilesOfEndedPages)
{
    const qint64 now = qint64(time(nullptr));
    ASSERT_TRUE(store("http://h/p/live", "live", "<p>1</p>", {Html}, now + 60));
    ASSERT_TRUE(store("http://h/p/old", "old", "<p>2</p>", {Html}, now - 1));
    ASSERT_TRUE(store("http://h/p/evicted", "evicted", "<p>3</p>", {Html}, now + 60));
    ASSERT_TRUE(store("http://h/p/cut", "cut", "<p>4</p>", {Html}, now + 60));
    ASSERT_TRUE(cache->store()->remove(ns("p"), "evicted"));
    const QByteArray index = publishDir + "/.index/" + ns("p") + '/';
    ASSERT_TRUE(QFile::rename(QFile::decodeName(index + "cut"), QFile::decodeName(index + ".gone-1-1")));
    VPublishedPages* pages = VHTMLCache::published();
    pages->sweep(now, [&](const QByteArray& n, const QByteArray& k) { return cache->store()->contains(n, k, false); });
    EXPECT_EQ("<p>1</p>", published("p", "http/h:80/p/live.vesk.html"));
    EXPECT_TRUE(published("p", "http/h:80/p/old.vesk.html").isEmpty());
    EXPECT_TRUE(published("p", "http/h:80/p/evicted.vesk.html").isEmpty());
    EXPECT_TRUE(published("p", "http/h:80/p/cut.vesk.html").isEmpty());
    EXPECT_FALSE(QFile::exists(QFile::decodeName(index + ".gone-1-1")));
    // Later, the live one's lifetime runs out too.
    pages->sweep(now + 60, [](const QByteArray&, const QByteArray&) { return true; });
    EXPECT_TRUE(published("p", "http/h:80/p/live.vesk.html").isEmpty());
}

} // namespace
