#include "PublishConfig.h"

#include "VHTMLCache.h"
#include "VPublishedPages.h"

#include <QStringList>

#include <typeinfo>

namespace {

// A test the web server makes on the raw Cookie header.
struct CookieTest
{
    enum Kind { Exists, NotExists, Equals } kind;
    QString name;
    QString value;
};

// A block the web server can find holding: its cookie tests, its query
// parameter tests already answered for a request without a query.
struct Block
{
    QList<CookieTest> cookies;
};

// Whether a test of a query parameter holds on a request without a query:
// the element doesn't exist then. An equality, whatever PHP makes of a
// missing element, is taken as failing: the request then goes to PHP.
bool holdsWithoutQuery(const VCondition& condition)
{
    return typeid(condition) == typeid(VConditionNotExists);
}

// The blocks of a published rule that can hold without a query; a rule
// without conditions has one empty block.
QList<Block> blocksOf(const CacheRule& rule)
{
    QList<Block> blocks;
    if (rule.d->conditionBlocks.isEmpty())
        return {Block()};
    for (const ConditionsBlock& conditions : rule.d->conditionBlocks) {
        Block block;
        bool possible = true;
        for (const QSharedPointer<VCondition>& condition : conditions.conditions) {
            const auto* element = static_cast<const VPHPGlobalElement*>(condition->global);
            const QString name = QString::fromLatin1(element->key().keys.first());
            if (condition->global->type() == PHP_GET) {
                possible = possible && holdsWithoutQuery(*condition);
            } else if (typeid(*condition) == typeid(VConditionEquals)) {
                block.cookies << CookieTest{CookieTest::Equals, name,
                                            static_cast<const VConditionEquals&>(*condition).value};
            } else {
                const bool exists = typeid(*condition) == typeid(VConditionExists);
                block.cookies << CookieTest{exists ? CookieTest::Exists : CookieTest::NotExists, name, QString()};
            }
        }
        if (possible)
            blocks << block;
    }
    return blocks;
}

// A comment line: whatever the name holds can't end it.
QString ruleTitle(const CacheRule& rule)
{
    return QStringLiteral("# Rule \"%1\" (id %2): %3\n")
        .arg(rule.name.simplified())
        .arg(rule.id)
        .arg(QString::fromUtf8(rule.url.toString()).simplified());
}

// Names made of letters, digits, '_' and '-' (and nothing else), each
// followed by '=': the only cookies whose names PHP keeps as sent.
const char PlainCookies[] = "^\\s*([A-Za-z0-9_-]+=[^;]*(;\\s*|$))*$";

QString nginxCookieTest(const CookieTest& test)
{
    const QString present = QStringLiteral("\"(^|;)\\s*%1=\"").arg(test.name);
    switch (test.kind) {
    case CookieTest::Exists:
        return QStringLiteral("    if ($http_cookie !~ %1) { set $vesk_block \"\"; }\n").arg(present);
    case CookieTest::NotExists:
        return QStringLiteral("    if ($http_cookie ~ %1) { set $vesk_block \"\"; }\n").arg(present);
    case CookieTest::Equals:
        // The first cookie of the name is the one PHP keeps.
        return QStringLiteral("    set $vesk_value \"\";\n"
                              "    if ($http_cookie ~ \"(?:^|;)\\s*%1=([^;]*)\") { set $vesk_value \"=$1\"; }\n"
                              "    if ($vesk_value != \"=%2\") { set $vesk_block \"\"; }\n")
            .arg(test.name, test.value);
    }
    return QString();
}

// The marker segment of the URI a published request is rewritten to: that
// URI begins and ends with the request's own, so that it falls again into
// the location the block is included in, under its access rules, and into
// the nested location that sends the file.
const char NginxMarker[] = "/vesk-published/";

QString nginxRule(const CacheRule& rule, const QByteArray& dir)
{
    const QList<Block> blocks = blocksOf(rule);
    QString text = ruleTitle(rule);
    if (blocks.isEmpty())
        return text + QStringLiteral("#   its conditions never hold without a query: nothing to send\n");
    text += QStringLiteral("    set $vesk_rule \"\";\n");
    for (const Block& block : blocks) {
        text += QStringLiteral("    set $vesk_block $vesk_ok;\n");
        for (const CookieTest& test : block.cookies)
            text += nginxCookieTest(test);
        text += QStringLiteral("    if ($vesk_block) { set $vesk_rule 1; }\n");
    }
    const QString ns = QString::fromLatin1(VHTMLCache::ruleNamespace(rule));
    text += QStringLiteral("    set $vesk_file \"/%1/$scheme/$host:$server_port${uri}\";\n"
                           "    if (!-f \"%2${vesk_file}.vesk.html\") { set $vesk_rule \"\"; }\n"
                           "    if ($vesk_rule) { rewrite ^ \"${uri}%3${vesk_file}\" last; }\n")
                .arg(ns, QString::fromLocal8Bit(dir), QLatin1String(NginxMarker).chopped(1));
    return text;
}

} // namespace

QString nginxPublishConfig(const QList<CacheRule>& rules, const QByteArray& publishDir)
{
    QString text = QStringLiteral(
        "# Published pages of the Vesk Page Cache, sent without PHP. Made by\n"
        "# 'vesk-pagecache publish-config nginx' for the rules in force: make it\n"
        "# again when they change. Include it inside each location that runs the\n"
        "# pages' PHP (a prefix or regular expression location), after the\n"
        "# location's own access rules: a file goes out only where they let the\n"
        "# request through.\n"
        "    set $vesk_ok \"\";\n"
        "    if ($request_method = GET) { set $vesk_ok 1; }\n"
        "    if ($request_method = HEAD) { set $vesk_ok 1; }\n"
        // A published file's path reads the same decoded: any difference is
        // a query, an escape or a segment the server took out.
        "    if ($request_uri != $uri) { set $vesk_ok \"\"; }\n");
    text += QStringLiteral("    if ($http_cookie !~ \"%1\") { set $vesk_ok \"\"; }\n").arg(QLatin1String(PlainCookies));
    for (const CacheRule& rule : rules) {
        if (rule.d->publish && rule.d->enable)
            text += nginxRule(rule, publishDir);
    }
    // Nested, it takes the enclosing location's access rules (auth_basic,
    // allow and deny, satisfy), which run again for the rewritten URI.
    text += QStringLiteral(
                "    location ~ \"%3([0-9a-f]{32}/https?/[^/]+/.*)$\" {\n"
                "        internal;\n"
                "        alias %1/$1.vesk.html;\n"
                "        types { }\n"
                "        default_type \"%2\";\n"
                "        charset off;\n"
                "        gzip_static on;\n"
                "        gzip_vary on;\n"
                "        etag off;\n"
                "        add_header Cache-Control no-cache;\n"
                "        if_modified_since before;\n"
                "    }\n")
                .arg(QString::fromLocal8Bit(publishDir), QLatin1String(VPublishedPages::contentType()),
                     QLatin1String(NginxMarker));
    return text;
}

namespace {

QStringList apacheCookieTests(const CookieTest& test)
{
    const QString present = QStringLiteral("(^|;)\\s*%1=").arg(test.name);
    switch (test.kind) {
    case CookieTest::Exists:
        return {QStringLiteral("RewriteCond %{HTTP_COOKIE} %1").arg(present)};
    case CookieTest::NotExists:
        return {QStringLiteral("RewriteCond %{HTTP_COOKIE} !%1").arg(present)};
    case CookieTest::Equals:
        // The first cookie of the name is the one PHP keeps.
        return {QStringLiteral("RewriteCond %{HTTP_COOKIE} (?:^|;)\\s*%1=([^;]*)").arg(test.name),
                QStringLiteral("RewriteCond %1 ^%2$").arg(QStringLiteral("%1"), QString(test.value).replace(
                                                                                QLatin1Char('.'), QLatin1String("\\.")))};
    }
    return {};
}

// The URL under which the server part maps the publish directory; only a
// rewrite inside the site's directory reaches it.
const char ApacheMarker[] = "/vesk-published/";

// One rewrite per block, and per copy: the gzip one for clients that take it.
QString apacheRule(const CacheRule& rule, const QByteArray& dir)
{
    const QList<Block> blocks = blocksOf(rule);
    QString text = ruleTitle(rule);
    if (blocks.isEmpty())
        return text + QStringLiteral("#   its conditions never hold without a query: nothing to send\n");
    const QString file = QStringLiteral("%1/%{REQUEST_SCHEME}/%{SERVER_NAME}:%{SERVER_PORT}%{REQUEST_URI}.vesk.html")
                             .arg(QString::fromLatin1(VHTMLCache::ruleNamespace(rule)));
    const QString path = QString::fromLocal8Bit(dir) + QLatin1Char('/') + file;
    const QString url = QLatin1String(ApacheMarker) + file;
    for (const Block& block : blocks) {
        QStringList conditions = {
            QStringLiteral("RewriteCond %{REQUEST_METHOD} ^(GET|HEAD)$"),
            // The path as sent, without a query, must read the same decoded.
            QStringLiteral("RewriteCond %{THE_REQUEST} ^\\S+\\s(/[^\\s?]*)(\\s|$)"),
            QStringLiteral("RewriteCond %{REQUEST_URI}#%1 ^([^#]*)#\\1$"),
            QStringLiteral("RewriteCond %{HTTP_COOKIE} %1").arg(QLatin1String(PlainCookies)),
        };
        for (const CookieTest& test : block.cookies)
            conditions << apacheCookieTests(test);
        text += conditions.join(QLatin1Char('\n')) + QStringLiteral("\nRewriteCond %{HTTP:Accept-Encoding} gzip\n")
                + QStringLiteral("RewriteCond %1.gz -f\nRewriteRule ^ %2.gz [L]\n").arg(path, url);
        text += conditions.join(QLatin1Char('\n'))
                + QStringLiteral("\nRewriteCond %1 -f\nRewriteRule ^ %2 [L]\n").arg(path, url);
    }
    return text;
}

} // namespace

QString apacheRewriteConfig(const QList<CacheRule>& rules, const QByteArray& publishDir)
{
    QString text = QStringLiteral(
        "# Published pages of the Vesk Page Cache, sent without PHP. Made by\n"
        "# 'vesk-pagecache publish-config apache-rules' for the rules in force:\n"
        "# make it again when they change. Include it in the site's <Directory>\n"
        "# (or copy it into its .htaccess): its rewrites run after the site's own\n"
        "# access rules let the request through. 'publish-config apache' makes\n"
        "# the server's part.\n"
        "RewriteEngine On\n");
    for (const CacheRule& rule : rules) {
        if (rule.d->publish && rule.d->enable)
            text += apacheRule(rule, publishDir);
    }
    return text;
}

QString apachePublishConfig(const QByteArray& publishDir)
{
    return QStringLiteral(
               "# The server's part of the Vesk Page Cache's published pages, made by\n"
               "# 'vesk-pagecache publish-config apache': include it in the virtual\n"
               "# host. A file goes out only by a rewrite of 'publish-config\n"
               "# apache-rules' in the site's directory, after its access rules; a\n"
               "# request for the folder itself is refused.\n"
               "Alias %3 %1/\n"
               "<Directory %1>\n"
               "    Require expr \"-n %{ENV:REDIRECT_STATUS}\"\n"
               "    Options None\n"
               "    AllowOverride None\n"
               "    ForceType text/html\n"
               // ForceType lowercases the charset; the header as PHP sent it.
               "    Header set Content-Type \"%2\"\n"
               "    FileETag None\n"
               "    Header set Cache-Control no-cache\n"
               // mod_deflate (on for text/html in Debian) would compress the
               // gzip copy once more: the files go out as they lie.
               "    SetEnv no-gzip 1\n"
               "    <FilesMatch \"\\.vesk\\.html\\.gz$\">\n"
               "        Header set Content-Encoding gzip\n"
               "    </FilesMatch>\n"
               "    Header merge Vary Accept-Encoding\n"
               "</Directory>\n")
        .arg(QString::fromLocal8Bit(publishDir), QLatin1String(VPublishedPages::contentType()),
             QLatin1String(ApacheMarker));
}
