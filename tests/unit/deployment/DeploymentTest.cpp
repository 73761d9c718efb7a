#include "../support/DatabaseTestSupport.h"

#include "VDeploymentInfo.h"
#include "VeskDB.h"

#include <QDir>

namespace {

class DeploymentTest : public DatabaseFixture
{
protected:
    QString database() const { return dataPath(QStringLiteral("deployment.db")); }
    QString marker() const { return dataPath(QStringLiteral("deployment_update")); }

    void touchMarker(int secondsFromNow)
    {
        QFile file(marker());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.close();
        setFileDate(marker(), secondsFromNow);
    }
};

TEST_F(DeploymentTest, NoDatabaseMeansNoApplication)
{
    VDeploymentInfo deployment(info, log, QStringLiteral("t"));
    EXPECT_EQ(-1, deployment.applicationForUrl(QStringLiteral("http://a/")).id);
    EXPECT_EQ(-1, deployment.applicationForPath(QStringLiteral("/var/www/a.php")).id);
    EXPECT_EQ(-1, deployment.applicationById(1).id);
    EXPECT_TRUE(logText().contains("Cannot find " + QFile::encodeName(database())));
}

TEST_F(DeploymentTest, LongestBaseUrlAndShortestPathWin)
{
    deploy({"1, 'shop.example', '/var/www', 'site', '1', ''",
            "2, 'shop.example/admin', '/var/www/admin', 'admin', '1', '/srv/admin'"});
    VDeploymentInfo deployment(info, log, QStringLiteral("t"));
    EXPECT_EQ(2, deployment.applicationForUrl(QStringLiteral("http://shop.example/admin/x")).id);
    EXPECT_EQ(1, deployment.applicationForUrl(QStringLiteral("http://shop.example/cart")).id);
    EXPECT_EQ(-1, deployment.applicationForUrl(QStringLiteral("http://other.example/")).id);
    // Both paths occur in the script's path: the shorter is found first.
    EXPECT_EQ(1, deployment.applicationForPath(QStringLiteral("/var/www/admin/index.php")).id);
    // The web server's own path of an application counts as well.
    EXPECT_EQ(2, deployment.applicationForPath(QStringLiteral("/srv/admin/index.php")).id);
    EXPECT_EQ(QStringLiteral("admin"), deployment.applicationById(2).name);
    EXPECT_TRUE(logText().contains("Adding app info: url shop.example/admin /var/www/admin"));
}

TEST_F(DeploymentTest, SymlinkedScriptIsFoundThroughItsTarget)
{
    const QString app = dir.filePath(QStringLiteral("releases/app"));
    QDir().mkpath(app);
    QFile script(app + "/index.php");
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.close();
    const QString link = dir.filePath(QStringLiteral("current.php"));
    ASSERT_TRUE(QFile::link(app + "/index.php", link));

    deploy({QStringLiteral("7, '', '%1', 'app', '1', ''").arg(app)});
    VDeploymentInfo deployment(info, log, QStringLiteral("t"));
    EXPECT_EQ(7, deployment.applicationForPath(link).id);
    EXPECT_EQ(-1, deployment.applicationForPath(dir.filePath(QStringLiteral("other.php"))).id);
    // An empty base URL occurs in every URL.
    EXPECT_EQ(7, deployment.applicationForUrl(QStringLiteral("http://any/")).id);
}

TEST_F(DeploymentTest, OnlyTheMarkerMakesItReadAgain)
{
    deploy({"1, 'a.example', '/a', 'a', '1', ''"});
    touchMarker(-100);
    VDeploymentInfo deployment(info, log, QStringLiteral("t"));
    EXPECT_EQ(1, deployment.applicationForUrl(QStringLiteral("http://a.example/")).id);

    deploy({"2, 'a.example', '/a', 'a2', '2', ''"});
    deployment.refresh();
    EXPECT_EQ(1, deployment.applicationForUrl(QStringLiteral("http://a.example/")).id);

    touchMarker(-50);
    deployment.refresh();
    EXPECT_EQ(2, deployment.applicationForUrl(QStringLiteral("http://a.example/")).id);
    EXPECT_EQ(-1, deployment.applicationById(1).id);
}

TEST_F(DeploymentTest, WithinARequestTheMarkerIsLookedAtOnceForAllLookups)
{
    deploy({"1, 'a.example', '/a', 'a', '1', ''"});
    touchMarker(-100);
    VDeploymentInfo byUrl(info, log, QStringLiteral("u"));
    VDeploymentInfo byPath(info, log, QStringLiteral("p"));

    VDeploymentInfo::beginRequest();
    byUrl.refresh();
    deploy({"2, 'a.example', '/a', 'a2', '2', ''"});
    touchMarker(-50);
    byPath.refresh();
    byUrl.refresh();
    EXPECT_EQ(1, byUrl.applicationForUrl(QStringLiteral("http://a.example/")).id);
    EXPECT_EQ(1, byPath.applicationForPath(QStringLiteral("/a/index.php")).id);
    VDeploymentInfo::endRequest();

    // The next request sees the deployment, in every lookup.
    VDeploymentInfo::beginRequest();
    byUrl.refresh();
    byPath.refresh();
    VDeploymentInfo::endRequest();
    EXPECT_EQ(2, byUrl.applicationForUrl(QStringLiteral("http://a.example/")).id);
    EXPECT_EQ(2, byPath.applicationForPath(QStringLiteral("/a/index.php")).id);
}

TEST_F(DeploymentTest, BrokenTableIsLoggedAndTriedAgainAtTheNextMarker)
{
    QDir().mkpath(QString::fromLocal8Bit(info.dataDir()));
    sql(database(), {QStringLiteral("CREATE TABLE deployment_apps_info (app_id INTEGER)"),
                     QStringLiteral("CREATE TABLE deployment_libs_info (a, b, c, d, e)")});
    touchMarker(-100);
    VDeploymentInfo deployment(info, log, QStringLiteral("t"));
    EXPECT_TRUE(logText().contains("ERROR] VDeploymentInfo::fetchData:"));
    EXPECT_FALSE(deployment.lastFetchTime().isValid());

    sql(database(), {QStringLiteral("DROP TABLE deployment_apps_info")});
    deploy({"4, 'b.example', '/b', 'b', '1', ''"});
    deployment.refresh();
    EXPECT_EQ(4, deployment.applicationForUrl(QStringLiteral("http://b.example/")).id);
}

} // namespace
