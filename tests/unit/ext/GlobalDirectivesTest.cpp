#include "FakeHost.h"

#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "RequestUrl.h"
#include "host/vesk_host.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <cstdlib>

namespace {

void writeFile(const QString& path, const QByteArray& text)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text);
}

class GlobalDirectivesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FakeHost::instance().reset();
        unsetenv("PHP_INI_SCAN_DIR");
        ASSERT_TRUE(confDir.isValid());
        conf = QFile::encodeName(confDir.path()).toStdString();
    }
    void TearDown() override { unsetenv("PHP_INI_SCAN_DIR"); }

    FakeHost& host() { return FakeHost::instance(); }
    std::string value(const char* name)
    {
        const char* found = nullptr;
        if (findDirective(name, strlen(name), &found) != 0)
            return "<absent>";
        return found;
    }
    bool parsed(const std::string& suffix)
    {
        for (const std::string& path : host().parsedFiles) {
            if (path.size() >= suffix.size()
                && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0)
                return true;
        }
        return false;
    }

    QTemporaryDir confDir;
    std::string conf;
};

TEST_F(GlobalDirectivesTest, GlobalFileInConfDirIsReadWithOnlyTheProductsPrefixes)
{
    writeFile(confDir.filePath("VeskGlobalDirectives.ini"),
              "[general]\n"
              "vesk.httpd_uid = 33\n"
              "vesk = 1\n"
              "tlm. = 1\n"
              "tlm.x = 2\n"
              "opcache.memory_consumption = 64\n"
              "mysql.host = elsewhere\n"
              "vesk_flag\n");
    host().configuration["vesk.conf_dir"] = conf;
    ASSERT_EQ(0, loadGlobalDirectives());

    EXPECT_EQ("33", value("vesk.httpd_uid"));
    EXPECT_EQ("2", value("tlm.x"));
    EXPECT_EQ("64", value("opcache.memory_consumption"));
    // Keys of four characters are dropped before the prefix is even looked at.
    EXPECT_EQ("<absent>", value("vesk"));
    EXPECT_EQ("<absent>", value("tlm."));
    EXPECT_EQ("<absent>", value("mysql.host"));
    // An entry without a value is no directive.
    EXPECT_EQ("<absent>", value("vesk_flag"));
    // Accepted pairs reach the engine's configuration as well.
    EXPECT_EQ("33", host().configuration["vesk.httpd_uid"]);
    EXPECT_TRUE(host().errors.empty());
}

TEST_F(GlobalDirectivesTest, ScanDirectoryRunsWithoutGlobalFileAndReadsOnlyIniFiles)
{
    QDir(confDir.path()).mkpath(QStringLiteral("scan/dir.ini"));
    writeFile(confDir.filePath("scan/10-a.ini"), "vesk.node_id = 7\n");
    writeFile(confDir.filePath("scan/20-b.ini.bak"), "vesk.node_id = 99\nvesk.from_bak = 1\n");
    writeFile(confDir.filePath("scan/notes.txt"), "vesk.from_txt = 1\n");
    host().configuration["vesk.conf_dir"] = conf;
    host().configuration["vesk.ini_scandir"] = "scan";

    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_EQ(7, nodeId());
    EXPECT_EQ("<absent>", value("vesk.from_bak"));
    EXPECT_EQ("<absent>", value("vesk.from_txt"));
    EXPECT_TRUE(parsed("scan/10-a.ini"));
    EXPECT_FALSE(parsed("dir.ini"));
    EXPECT_TRUE(host().errors.empty());
}

TEST_F(GlobalDirectivesTest, EnvironmentScanDirWinsOverTheDirectives)
{
    QDir(confDir.path()).mkpath(QStringLiteral("env"));
    writeFile(confDir.filePath("env/a.ini"), "vesk.webserver_type = nginx\n");
    setenv("PHP_INI_SCAN_DIR", (conf + "/env").c_str(), 1);
    // Both would be refusals if they were consulted: no conf dir is set.
    host().configuration["vesk.ini_scandir"] = "scan";
    host().configuration["vesk.ini_file"] = "one.ini";

    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_STREQ("nginx", webserverType());
    EXPECT_TRUE(host().errors.empty());
}

TEST_F(GlobalDirectivesTest, EnvironmentScanDirIsAListWithTheEnginesOwnForEmptyEntries)
{
    QDir(confDir.path()).mkpath(QStringLiteral("engine"));
    QDir(confDir.path()).mkpath(QStringLiteral("site"));
    writeFile(confDir.filePath("engine/10-vesk.ini"), "vesk.node_id = 1\nvesk.webserver_type = nginx\n");
    writeFile(confDir.filePath("site/10-vesk.ini"), "vesk.node_id = 2\n");
    host().engineScanDir = conf + "/engine";

    // Read in order: the later directory has the last word.
    setenv("PHP_INI_SCAN_DIR", (":" + conf + "/site").c_str(), 1);
    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_EQ(2, nodeId());
    EXPECT_STREQ("nginx", webserverType());
    EXPECT_TRUE(host().errors.empty());

    host().parsedFiles.clear();
    setenv("PHP_INI_SCAN_DIR", (conf + "/site:").c_str(), 1);
    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_EQ(1, nodeId());
    EXPECT_EQ((std::vector<std::string>{conf + "/site/10-vesk.ini", conf + "/engine/10-vesk.ini"}),
              host().parsedFiles);

    // A directory that can't be opened is named alone; the others are read.
    setenv("PHP_INI_SCAN_DIR", (conf + "/missing::" + conf + "/site").c_str(), 1);
    EXPECT_EQ(-1, loadGlobalDirectives());
    EXPECT_EQ(2, nodeId());
    ASSERT_EQ(1u, host().errors.size());
    EXPECT_EQ("Failed to open the scandir [" + conf + "/missing]: No such file or directory",
              host().errors[0].second);

    // An engine built without a scan directory leaves the empty entry empty.
    host().reset();
    setenv("PHP_INI_SCAN_DIR", (":" + conf + "/site").c_str(), 1);
    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_EQ(2, nodeId());
    EXPECT_TRUE(host().errors.empty());
}

TEST_F(GlobalDirectivesTest, SingleIniFileUnderConfDir)
{
    writeFile(confDir.filePath("one.ini"), "vesk.temp_dir = /var/tmp/vesk\n");
    host().configuration["vesk.conf_dir"] = conf;
    host().configuration["vesk.ini_file"] = "one.ini";
    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_EQ("/var/tmp/vesk", value("vesk.temp_dir"));
}

TEST_F(GlobalDirectivesTest, RefusalsNameWhatIsMissing)
{
    const struct
    {
        std::map<std::string, std::string> configuration;
        int type;
        std::string message;
    } table[] = {
        {{{"vesk.ini_scandir", "scan"}}, VESK_E_ERROR,
         "vesk.ini_scandir was specified (scan), but vesk.conf_dir was not: can't locate the scandir"},
        {{{"vesk.ini_file", "x.ini"}}, VESK_E_ERROR,
         "vesk.ini_file was specified (x.ini), but vesk.conf_dir was not: can't locate the ini file"},
        {{{"vesk.conf_dir", conf}, {"vesk.ini_scandir", std::string(4095, 'd')}}, VESK_E_ERROR,
         "scandir path too long (vesk.conf_dir: " + conf},
        {{{"vesk.conf_dir", conf}, {"vesk.ini_scandir", "missing"}}, VESK_E_WARNING,
         "Failed to open the scandir [" + conf + "/missing]: No such file or directory"},
    };
    for (const auto& row : table) {
        host().reset();
        host().configuration = row.configuration;
        EXPECT_EQ(-1, loadGlobalDirectives());
        ASSERT_EQ(1u, host().errors.size()) << row.message;
        EXPECT_EQ(row.type, host().errors[0].first) << row.message;
        const std::string& said = host().errors[0].second;
        // The message that names the long path is known by its start.
        EXPECT_EQ(row.message, said.size() > 4000 ? said.substr(0, row.message.size()) : said);
    }
}

TEST_F(GlobalDirectivesTest, TableComesBeforeEngineAndGettersHaveTheirDefaults)
{
    writeFile(confDir.filePath("VeskGlobalDirectives.ini"), "vesk.httpd_uid = 48\n");
    host().configuration["vesk.conf_dir"] = conf;
    ASSERT_EQ(0, loadGlobalDirectives());
    host().configuration["vesk.httpd_uid"] = "1000"; // a later php.ini value
    EXPECT_EQ(48, httpdUid());
    // A missing group falls back to the user.
    EXPECT_EQ(48, httpdGid());
    EXPECT_STREQ("10081,10082,10083", internalPorts());
    EXPECT_EQ(nullptr, installDir());
    EXPECT_EQ(0, nodeId());

    host().reset();
    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_EQ(-1, httpdUid());
    EXPECT_EQ(-1, httpdGid());
    host().configuration["vesk.httpd_uid"] = "33";
    host().configuration["vesk.httpd_gid"] = "34";
    EXPECT_EQ(33, httpdUid());
    EXPECT_EQ(34, httpdGid());
}

TEST_F(GlobalDirectivesTest, ApplyGivesPairsToRegisteredDirectivesOnly)
{
    writeFile(confDir.filePath("VeskGlobalDirectives.ini"),
              "vesk_pagecache.dir_depth = 3\nvesk.log_dir = /var/log/vesk\n");
    host().configuration["vesk.conf_dir"] = conf;
    host().registeredDirectives = {"vesk_pagecache.dir_depth"};
    ASSERT_EQ(0, loadGlobalDirectives());
    applyGlobalDirectives();
    EXPECT_EQ((std::map<std::string, std::string>{{"vesk_pagecache.dir_depth", "3"}}), host().applied);
    // The unregistered pair stays for lookups.
    EXPECT_EQ("/var/log/vesk", value("vesk.log_dir"));
}

TEST_F(GlobalDirectivesTest, ResolvePath)
{
    host().configuration["vesk.log_dir"] = "/var/log/vesk";
    ASSERT_EQ(0, loadGlobalDirectives());

    EXPECT_EQ("/var/log/vesk/pagecache.log", resolvePath("pagecache.log", LogDirBase));
    EXPECT_EQ("/etc/rules.xml", resolvePath("/etc/rules.xml", ConfDirBase));
    // Without its base directory a relative path doesn't resolve at all.
    EXPECT_TRUE(resolvePath("rules.xml", ConfDirBase).isNull());
    EXPECT_EQ("/var/log/vesk/", resolvePath(nullptr, LogDirBase));
}

class HostProbesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        FakeHost::instance().reset();
        ASSERT_EQ(0, loadGlobalDirectives());
    }
    FakeHost& host() { return FakeHost::instance(); }
};

TEST_F(HostProbesTest, WebServerApis)
{
    for (const char* web : {"apache", "apache2filter", "apache2handler", "fpm-fcgi", "cli-server"}) {
        host().sapiName = web;
        EXPECT_EQ(0, webSapiCheck()) << web;
    }
    for (const char* other : {"cli", "phpdbg", "embed"}) {
        host().sapiName = other;
        EXPECT_EQ(-1, webSapiCheck()) << other;
    }
    // The test's standard input is no listening socket: plain CGI.
    host().sapiName = "cgi-fcgi";
    EXPECT_EQ(-1, webSapiCheck());
    host().sapiName = "fpm-fcgi";
    EXPECT_TRUE(isFpm());
    EXPECT_TRUE(isFastCgiHost());
}

TEST_F(HostProbesTest, InternalRequestByPort)
{
    host().serverVariables = {{"HTTP_HOST", "localhost"}, {"SERVER_PORT", "10081"},
                              {"REQUEST_URI", "/status"}};
    EXPECT_TRUE(RequestUrl::read().onPort(internalPorts()));
    host().serverVariables["HTTP_HOST"] = "localhost:8080";
    EXPECT_FALSE(RequestUrl::read().onPort(internalPorts()));
    // Looked up once per table: a new value counts from the next reading.
    host().configuration["vesk.internal_ports"] = "9000,8080";
    ASSERT_EQ(0, loadGlobalDirectives());
    EXPECT_TRUE(RequestUrl::read().onPort(internalPorts()));
}

TEST_F(HostProbesTest, RequestParameterFromQueryCookieAndBody)
{
    host().hasQueryString = true;
    host().queryString = "a=1&start_debug=yes%21&b";
    host().cookieData = "theme=dark; session= abc+def";
    host().hasBody = true;
    host().body = "posted=x%20y";

    EXPECT_EQ("yes!", requestParameter("start_debug", 11, false));
    EXPECT_EQ(" abc def", requestParameter("session", 7, false));
    EXPECT_TRUE(requestParameter("posted", 6, false).isNull());
    EXPECT_EQ("x y", requestParameter("posted", 6, true));

    // Names match whole, byte for byte.
    EXPECT_TRUE(requestParameter("start", 5, false).isNull());
    EXPECT_TRUE(requestCarries("start_debug", false));
    host().queryString = "XDEBUG_SESSIONS=1";
    host().cookieData.clear();
    EXPECT_FALSE(requestCarries("XDEBUG_SESSION", false));
}

} // namespace
