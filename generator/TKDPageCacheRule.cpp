#include "TKDPageCacheRule.h"

#include "RulesFileValidator.h"
#include "TkdSchema.h"
#include "VException.h"
#include "VeskDB.h"

#include <QDomDocument>
#include <QFile>
#include <QMap>
#include <QSqlError>
#include <QTextStream>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int QueryRetries = 10;
const int RenameAttempts = 10;

void runQuery(VSafeSqlQuery& query, const QString& text, VDebug::StreamId logStream)
{
    try {
        query.prepare(text);
        query.execWithRetries(logStream, QueryRetries);
    } catch (const VException&) {
        throw VException(QStringLiteral("Unable to load page cache rules. %1. %2")
                             .arg(text, query.query().lastError().text()));
    }
}

// Copies the text token by token without its whitespace, with the writer's
// own indentation; a reader error ends the copy where it happened.
QString reformat(const QString& text)
{
    QString out;
    QXmlStreamReader reader(text);
    QXmlStreamWriter writer(&out);
    writer.setAutoFormatting(true);
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isWhitespace())
            continue;
        if (reader.hasError())
            break;
        writer.writeCurrentToken(reader);
    }
    return out;
}

// A rule's priority, -1 when it has none.
int priorityOf(const QString& rule)
{
    QDomDocument doc;
    doc.setContent(rule);
    const QDomElement url = doc.firstChildElement(QStringLiteral("url"));
    return url.hasAttribute(QStringLiteral("priority")) ? url.attribute(QStringLiteral("priority")).toInt() : -1;
}

bool firstHasPriority(const QString& rule)
{
    QDomDocument doc;
    doc.setContent(rule);
    return doc.firstChildElement(QStringLiteral("url")).hasAttribute(QStringLiteral("priority"));
}

} // namespace

namespace TKDPageCacheRule {

QStringList loadRequestRules(const QSqlDatabase& db, VDebug::StreamId logStream)
{
    VSafeSqlQuery query(db, true);
    runQuery(query, QStringLiteral("select RULE_ID, APP_ID, NAME, META_XML from TKD_PAGECACHE_RULES"), logStream);
    QStringList rules;
    while (query.next()) {
        const qint64 ruleId = query.value(0).toLongLong();
        (void)query.value(1).toInt();
        (void)query.value(2).toString();
        // Text that doesn't parse gives an empty document, and an empty rule.
        QDomDocument doc;
        doc.setContent(query.value(3).toString());
        QDomElement url = doc.firstChildElement(QStringLiteral("url"));
        url.setAttribute(QStringLiteral("id"), QString::number(ruleId));
        // The element alone: a declaration or a comment beside it, one
        // holding "<url" too, goes.
        QString element;
        QTextStream out(&element);
        url.save(out, 1);
        rules << element;
    }
    return rules;
}

void rulesToXml(const QSqlDatabase& db, QTextStream* stream, VDebug::StreamId logStream)
{
    QStringList rules = loadRequestRules(db, logStream);
    // The first rule alone decides whether the list is sorted.
    if (!rules.isEmpty() && firstHasPriority(rules.first())) {
        std::stable_sort(rules.begin(), rules.end(), [](const QString& a, const QString& b) {
            return priorityOf(a) > priorityOf(b);
        });
    }
    for (const QString& rule : rules) {
        const QString copy = reformat(rule);
        // Whatever stands before the element, a declaration or a comment, goes.
        const int start = copy.indexOf(QLatin1String("<url"));
        if (start >= 0)
            *stream << copy.mid(start);
        VLOG(logStream, 5) << "TKDPageCacheRule::rulesToXml finished reading" << rules.size() << "request rules";
    }
}

QList<ResponseRule> loadResponseRules(const QSqlDatabase& db, VDebug::StreamId logStream)
{
    VSafeSqlQuery query(db, true);
    runQuery(query,
             QStringLiteral(
                 "select TKD_PAGECACHE_RESPONSE_CODES.APP_ID, TKD_PAGECACHE_RESPONSE_HEADERS.NAME, "
                 "TKD_PAGECACHE_RESPONSE_HEADERS.OPERATION, TKD_PAGECACHE_RESPONSE_HEADERS.VALUE, "
                 "TKD_PAGECACHE_RESPONSE_HEADERS.INHERIT_GLOBALS, TKD_PAGECACHE_RESPONSE_CODES.CODES from "
                 "TKD_PAGECACHE_RESPONSE_CODES LEFT JOIN TKD_PAGECACHE_RESPONSE_HEADERS ON "
                 "(TKD_PAGECACHE_RESPONSE_HEADERS.APP_ID = TKD_PAGECACHE_RESPONSE_CODES.APP_ID)"),
             logStream);
    QMap<qint32, ResponseRule> rules;
    while (query.next()) {
        const qint32 appId = query.value(0).toInt();
        const QString name = query.value(1).toString();
        ResponseRule& rule = rules[appId];
        // The first row of an application settles its codes; codes that
        // compile to nothing are taken anew from each row.
        if (!rule.hasCodePatterns()) {
            rule.appId = appId;
            rule.setResponseCodes(query.value(5).toString());
            rule.inheritGlobals = query.value(4).toInt() != 0;
        }
        if (!name.isEmpty())
            rule.headerChecks.append(
                ResponseHeaderCheck::create(name, query.value(2).toString(), query.value(3).toString()));
    }
    return rules.values();
}

// Written by an XML writer: whatever the tables hold stays a value.
QString responseRuleToXml(const ResponseRule& rule)
{
    QString xml;
    QXmlStreamWriter writer(&xml);
    writer.writeStartElement(QStringLiteral("response_rule"));
    writer.writeAttribute(QStringLiteral("app_id"), QString::number(rule.appId));
    writer.writeAttribute(QStringLiteral("response_codes"), rule.responseCodes);
    // Closes the start tag, so that a rule without headers has an end tag.
    writer.writeCharacters(QString());
    if (!rule.headerChecks.isEmpty()) {
        writer.writeStartElement(QStringLiteral("response_headers"));
        for (const QSharedPointer<ResponseHeaderCheck>& check : rule.headerChecks) {
            writer.writeEmptyElement(QStringLiteral("header"));
            writer.writeAttribute(QStringLiteral("name"), QString::fromUtf8(check->name));
            writer.writeAttribute(QStringLiteral("match_type"), check->matchType);
            writer.writeAttribute(QStringLiteral("value"), check->value);
        }
        writer.writeEndElement();
    }
    writer.writeEndElement();
    return xml;
}

QString buildRulesDocument(const QSqlDatabase& db, const QString& productDir, VDebug::StreamId logStream)
{
    (void)productDir;
    try {
        QString text;
        QTextStream stream(&text, QIODevice::ReadWrite);
        stream.setCodec("UTF-8");
        stream << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><cache_settings><dont_cache/><cache>";
        rulesToXml(db, &stream, logStream);
        for (const ResponseRule& rule : loadResponseRules(db, logStream))
            stream << responseRuleToXml(rule);
        stream << "</cache></cache_settings>";
        stream.flush();
        return reformat(text);
    } catch (const VException& e) {
        VLOG(logStream, 0) << "TKDTask::doUpdatePageCacheRules:" << e.what();
        return QString();
    }
}

QString writeRulesFile(const QSqlDatabase& db, const QString& productDir, VDebug::StreamId logStream)
{
    const QString newName = productDir + QLatin1String("/etc/pagecache_rules.xml.new");
    QFile file;
    // Never through a link: whoever planted one would choose what is written.
    const int fd = ::open(QFile::encodeName(newName).constData(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0 || !file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle)) {
        VLOG(logStream, 0) << "Unable to open" << newName << "." << strerror(errno);
        if (fd >= 0)
            ::close(fd);
        return QString();
    }
    const QString document = buildRulesDocument(db, productDir, logStream);
    VLOG(logStream, 3) << "New page cache rules file:";
    VLOG(logStream, 3) << document;
    file.write(document.toUtf8());
    file.close();

    // Only a file that the workers will accept takes the place of the one
    // they run on; one that isn't, an empty one from a failed read included,
    // stays beside it for a look.
    QString error;
    if (!validateRulesFileAgainstSchema(QFile::encodeName(newName).constData(), error)) {
        VLOG(logStream, 0) << "New page cache rules file" << newName
                           << "is not valid, the rules in force stay:" << error;
        return QString();
    }
    // Renamed over the old file in one step: a worker never finds none.
    const QByteArray target = QFile::encodeName(productDir + QLatin1String("/etc/pagecache_rules.xml"));
    for (int attempt = 0; attempt < RenameAttempts; ++attempt) {
        if (::rename(QFile::encodeName(newName).constData(), target.constData()) == 0)
            return document;
        sleep(1);
    }
    throw VException(QStringLiteral("Cannot write new page cache rules file. %1").arg(QString::fromLocal8Bit(strerror(errno))));
}

QString unsafePath(const QString& path)
{
    struct stat st;
    if (lstat(QFile::encodeName(path).constData(), &st) != 0)
        return errno == ENOENT ? QString() : QString::fromLocal8Bit(strerror(errno));
    if (S_ISLNK(st.st_mode))
        return QStringLiteral("is a symbolic link");
    if (st.st_uid != geteuid())
        return QStringLiteral("belongs to another user (%1)").arg(st.st_uid);
    if (st.st_mode & (S_IWGRP | S_IWOTH))
        return QStringLiteral("is writable by others than its owner");
    return QString();
}

void createTables(const QSqlDatabase& db)
{
    QString script;
    for (const QString& line : QString::fromUtf8(tkdRulesSchemaSql).split('\n')) {
        if (!line.trimmed().startsWith(QLatin1String("--")))
            script += line + '\n';
    }
    for (const QString& statement : script.split(';')) {
        if (statement.trimmed().isEmpty())
            continue;
        VSafeSqlQuery query(db, true);
        query.exec(statement);
    }
}

} // namespace TKDPageCacheRule
