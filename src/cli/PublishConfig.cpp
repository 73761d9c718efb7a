#include "PublishConfig.h"

#include "VHTMLCache.h"
#include "VMD5.h"
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

// A rule's variables, apart from those of another site's rules in the same
// nginx: named after the folder and the rule's namespace.
QString nginxVariable(const CacheRule& rule, const QByteArray& dir)
{
    return QStringLiteral("vesk_")
           + QString::fromLatin1(VMD5::hash(dir + '/' + VHTMLCache::ruleNamespace(rule)).left(12));
}

// A cookie test as a map over the Cookie header, "1" where it holds. A
// request without cookies is answered by the exact key, without a regex.
QString nginxCookieMap(const CookieTest& test, const QString& variable)
{
    const QString present = QStringLiteral("(^|;)\\s*%1=").arg(test.name);
    switch (test.kind) {
    case CookieTest::Exists:
        return QStringLiteral("map $http_cookie $%1 { \"\" \"\"; \"~%2\" 1; default \"\"; }\n").arg(variable, present);
    case CookieTest::NotExists:
        return QStringLiteral("map $http_cookie $%1 { \"\" 1; \"~%2\" \"\"; default 1; }\n").arg(variable, present);
    case CookieTest::Equals:
        // The first cookie of the name is the one PHP keeps.
        return QStringLiteral("map $http_cookie $%1 { \"\" \"\"; \"~^(\\s*+(?!%2=)[^;]*;)*\\s*+%2=%3(;|$)\" 1; "
                              "default \"\"; }\n")
            .arg(variable, test.name, QString(test.value).replace(QLatin1Char('.'), QLatin1String("\\.")));
    }
    return QString();
}

// The maps of a rule: $<variable> is its file's path under the folder when
// the request may have it ("" when not), the tests of a block hold together
// and the blocks hold apart.
QString nginxRuleMaps(const CacheRule& rule, const QByteArray& dir)
{
    const QList<Block> blocks = blocksOf(rule);
    QString text = ruleTitle(rule);
    if (blocks.isEmpty())
        return text + QStringLiteral("#   its conditions never hold without a query: nothing to send\n");
    const QString variable = nginxVariable(rule, dir);
    QString key = QStringLiteral("${vesk_request}${vesk_cookies}");
    for (int b = 0; b < blocks.size(); ++b) {
        const QString block = QStringLiteral("%1_%2").arg(variable).arg(b);
        QString tests;
        for (int t = 0; t < blocks[b].cookies.size(); ++t) {
            text += nginxCookieMap(blocks[b].cookies[t], QStringLiteral("%1_%2").arg(block).arg(t));
            tests += QStringLiteral("${%1_%2}").arg(block).arg(t);
        }
        if (blocks[b].cookies.size() > 1)
            text += QStringLiteral("map \"%1\" $%2 { %3 1; default \"\"; }\n")
                        .arg(tests, block, QString(blocks[b].cookies.size(), QLatin1Char('1')));
        key += blocks[b].cookies.isEmpty()      ? QStringLiteral("1")
               : blocks[b].cookies.size() == 1 ? tests
                                               : QStringLiteral("${%1}").arg(block);
    }
    // "11" for the request (its method and path, then its cookies), then one
    // "1" for each block that holds. The request's tests go straight into
    // each rule's key rather than through a map of their own: every map nginx
    // asks costs it some 400 instructions a request.
    const QString file = QStringLiteral("\"%1/$scheme/$host:$server_port$request_uri\"")
                             .arg(QString::fromLatin1(VHTMLCache::ruleNamespace(rule)));
    text += QStringLiteral("map \"%1\" $%2 {").arg(key, variable);
    for (int holding = 1; holding <= blocks.size(); ++holding)
        text += QStringLiteral(" %1 %2;").arg(QString(holding + 2, QLatin1Char('1')), file);
    return text + QStringLiteral(" default \"\"; }\n");
}

// The marker segment of the URI a published request is rewritten to: that
// URI begins (and ends, but for a directory's) with the request's own, so
// that it falls again into the location the block is included in, under
// its access rules, and into the nested location that sends the file. nginx
// takes the dot segment out of any URI a client sends, so that only the
// block's rewrite reaches that location and its error_page.
const char NginxMarker[] = "/./vesk-published/";
const char NginxMarkerPattern[] = "/\\./vesk-published/";

// The rules whose files nginx may send, in the rules' order.
QList<CacheRule> nginxRules(const QList<CacheRule>& rules)
{
    QList<CacheRule> sending;
    for (const CacheRule& rule : rules) {
        if (rule.d->publish && rule.d->enable && !blocksOf(rule).isEmpty())
            sending << rule;
    }
    return sending;
}

// A rule's file, when the request may have it. The first rule's is opened
// without a test: a request whose file isn't there (or that the location's
// access rules refuse) comes back, by the nested location's error_page, to
// the URI it had here. The other rules' files are tested first (a stat each,
// as try_files makes). A rule's variable, emptied once its file is tried,
// keeps the request from going round again: once for the first rule, and
// once at most for all the others.
QString nginxRule(const CacheRule& rule, int index, const QStringList& variables, const QByteArray& dir)
{
    const QString& variable = variables[index];
    const bool first = index == 0;
    const QString test = first ? QLatin1Char('$') + variable
                               : QStringLiteral("-f \"%1/$%2.vesk.html\"").arg(QString::fromLocal8Bit(dir), variable);
    QString text = QStringLiteral("    if (%1) {\n"
                                  "        expires off;\n"
                                  "        set $vesk_served $%2;\n")
                       .arg(test, variable);
    for (const QString& tried : first ? QStringList{variable} : variables)
        text += QStringLiteral("        set $%1 \"\";\n").arg(tried);
    const QString marker = QLatin1String(NginxMarker) + QString::fromLatin1(VHTMLCache::ruleNamespace(rule));
    return text + QStringLiteral("        set $vesk_back \"$uri$is_args$args\";\n"
                                 // Never a URI that ends in '/': the index module would take it.
                                 "        rewrite /$ \"${uri}%1\" last;\n"
                                 "        rewrite ^ \"${uri}/%1${uri}\" last;\n"
                                 "    }\n")
                      .arg(marker.mid(1));
}

} // namespace

QString nginxPublishMaps(const QList<CacheRule>& rules, const QByteArray& publishDir)
{
    QString text = QStringLiteral(
        "# Published pages of the Vesk Page Cache: the tests of a request, for\n"
        "# nginx's http block (Debian: /etc/nginx/conf.d/). Made by\n"
        "# 'vesk-pagecache publish-config nginx-maps' for the rules in force: make\n"
        "# it again, with 'publish-config nginx', when they change.\n"
        // A GET or HEAD of the path as sent, the one PHP keys its page on,
        // whatever location the server handed it to: no query, escape, empty
        // or dot segment. One regular expression tests both.
        "map \"$request_method $request_uri\" $vesk_request "
        "{ \"~^(?:GET|HEAD) (/[A-Za-z0-9_~-][A-Za-z0-9._~-]*)*/?$\" 1; default 0; }\n");
    text += QStringLiteral("map $http_cookie $vesk_cookies { \"\" 1; \"~%1\" 1; default 0; }\n")
                .arg(QLatin1String(PlainCookies));
    for (const CacheRule& rule : rules) {
        if (rule.d->publish && rule.d->enable)
            text += nginxRuleMaps(rule, publishDir);
    }
    return text;
}

QString nginxPublishConfig(const QList<CacheRule>& rules, const QByteArray& publishDir)
{
    QString text = QStringLiteral(
        "# Published pages of the Vesk Page Cache, sent without PHP. Made by\n"
        "# 'vesk-pagecache publish-config nginx' for the rules in force: make it\n"
        "# again, with 'publish-config nginx-maps', when they change. Include it\n"
        "# inside each location that runs the pages' PHP (a prefix or regular\n"
        "# expression location), after the location's own access rules: a file\n"
        "# goes out only where they let the request through. Pages that reach it\n"
        "# through try_files or index are found by their URL as sent; included\n"
        "# in the location of that try_files too, it spares nginx its look-ups. nginx\n"
        "# refuses the block outside a location ('expires' is allowed in a\n"
        "# location's if only), where no location's access rules would apply.\n");
    const QList<CacheRule> sending = nginxRules(rules);
    // Without a rule, the nested location's variables would be set nowhere,
    // which nginx refuses.
    if (sending.isEmpty())
        return text + QStringLiteral("#   no rule in force publishes its pages: nothing to send\n");
    // A cached descriptor would send a page after its purge, and a cached
    // test would send a request to a file that has gone.
    text += QStringLiteral("    open_file_cache off;\n");
    QStringList variables;
    for (const CacheRule& rule : sending)
        variables << nginxVariable(rule, publishDir);
    for (int i = 0; i < sending.size(); ++i)
        text += nginxRule(sending[i], i, variables, publishDir);
    // Nested, it takes the enclosing location's access rules (auth_basic,
    // allow and deny, satisfy), which run again for the rewritten URI.
    text += QStringLiteral(
                "    location ~ \"%3[0-9a-f]{32}()\" {\n"
                "        internal;\n"
                "        alias %1/$vesk_served.vesk.html$1;\n"
                "        types { }\n"
                "        default_type \"%2\";\n"
                "        charset off;\n"
                "        gzip_static on;\n"
                // Said of either copy, without looking for the gzip one first.
                "        gzip_vary off;\n"
                "        add_header Vary Accept-Encoding;\n"
                "        etag off;\n"
                "        add_header Cache-Control no-cache;\n"
                "        if_modified_since before;\n"
                "        open_file_cache off;\n"
                // A file that isn't there (or that nginx may not read) sends
                // the request on as if the block weren't there; the site's
                // own error pages still apply to what it then answers.
                "        log_not_found off;\n"
                "        recursive_error_pages on;\n"
                "        error_page 403 404 = $vesk_back;\n"
                "    }\n")
                .arg(QString::fromLocal8Bit(publishDir), QLatin1String(VPublishedPages::contentType()),
                     QLatin1String(NginxMarkerPattern));
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
        QStringList conditions;
        for (const CookieTest& test : block.cookies)
            conditions << apacheCookieTests(test);
        const QString tests = conditions.isEmpty() ? QString() : conditions.join(QLatin1Char('\n')) + '\n';
        text += tests + QStringLiteral("RewriteCond %{HTTP:Accept-Encoding} gzip\n")
                + QStringLiteral("RewriteCond %1.gz -f\nRewriteRule ^ %2.gz [L]\n").arg(path, url);
        text += tests + QStringLiteral("RewriteCond %1 -f\nRewriteRule ^ %2 [L]\n").arg(path, url);
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
    QString rewrites;
    for (const CacheRule& rule : rules) {
        if (rule.d->publish && rule.d->enable)
            rewrites += apacheRule(rule, publishDir);
    }
    const int count = rewrites.count(QLatin1String("\nRewriteRule "));
    if (count == 0)
        return text + rewrites;
    // What every file asks of the request, tested once: when it holds, the
    // next rule is skipped; when not, that rule skips the files' rewrites.
    return text
           + QStringLiteral("RewriteCond %{REQUEST_METHOD} ^(GET|HEAD)$\n"
                            // The path as sent, without a query, must read the same decoded.
                            "RewriteCond %{THE_REQUEST} ^\\S+\\s(/[^\\s?]*)(\\s|$)\n"
                            "RewriteCond %{REQUEST_URI}#%1 ^([^#]*)#\\1$\n"
                            "RewriteCond %{HTTP_COOKIE} ")
           + QLatin1String(PlainCookies)
           + QStringLiteral("\nRewriteRule ^ - [S=1]\nRewriteRule ^ - [S=%1]\n").arg(count) + rewrites;
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
