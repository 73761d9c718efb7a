#include "CliDirectives.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <cstdlib>

namespace {

// The prefixes a worker keeps from the product's directive files.
const char* const acceptedPrefixes[] = {
    "vesk_", "vesk.", "tlm.", "qdr.", "java.", "ocula.", "opcache.", "mod_cluster.",
};

bool accepted(const QByteArray& name)
{
    for (const char* prefix : acceptedPrefixes) {
        if (name.startsWith(prefix))
            return true;
    }
    return false;
}

// ${NAME} takes the environment's value, as the engine's scanner does.
QByteArray expandEnvironment(QByteArray text)
{
    static const QRegularExpression variable(QStringLiteral("\\$\\{([^}]*)\\}"));
    QString result = QString::fromUtf8(text);
    QRegularExpressionMatch match;
    int from = 0;
    while ((match = variable.match(result, from)).hasMatch()) {
        const QString value = QString::fromLocal8Bit(qgetenv(match.captured(1).toLocal8Bit().constData()));
        result.replace(match.capturedStart(), match.capturedLength(), value);
        from = match.capturedStart() + value.size();
    }
    return result.toUtf8();
}

// A bare value: up to a comment, trimmed, with the engine's constants for
// true and false.
QByteArray bareValue(const QByteArray& raw)
{
    const int comment = raw.indexOf(';');
    const QByteArray value = (comment < 0 ? raw : raw.left(comment)).trimmed();
    const QByteArray lower = value.toLower();
    if (lower == "on" || lower == "yes" || lower == "true")
        return "1";
    if (lower == "off" || lower == "no" || lower == "false" || lower == "none")
        return QByteArray("");
    return expandEnvironment(value);
}

// A quoted value: double quotes take \" and ${NAME}; single quotes take
// nothing. Answers false for a quote that isn't closed.
bool quotedValue(const QByteArray& raw, QByteArray& value)
{
    const char quote = raw.at(0);
    value.clear();
    for (int i = 1; i < raw.size(); ++i) {
        const char c = raw.at(i);
        if (c == quote) {
            if (quote == '"')
                value = expandEnvironment(value);
            return true;
        }
        if (quote == '"' && c == '\\' && i + 1 < raw.size() && raw.at(i + 1) == '"')
            value += raw.at(++i);
        else
            value += c;
    }
    return false;
}

} // namespace

bool parseIniText(const QByteArray& text, QHash<QByteArray, QByteArray>& into, QString* error)
{
    bool sectionApplies = true;
    int number = 0;
    for (const QByteArray& rawLine : text.split('\n')) {
        ++number;
        const QByteArray line = rawLine.trimmed();
        if (line.isEmpty() || line.startsWith(';'))
            continue;
        if (line.startsWith('[')) {
            const QByteArray section = line.mid(1, line.indexOf(']') - 1).trimmed().toUpper();
            sectionApplies = !section.startsWith("PATH=") && !section.startsWith("HOST=");
            continue;
        }
        const int equals = line.indexOf('=');
        const QByteArray key = equals < 0 ? line : line.left(equals).trimmed();
        if (key.isEmpty() || key.contains(';')) {
            if (error)
                *error = QStringLiteral("syntax error on line %1").arg(number);
            return false;
        }
        const QByteArray raw = equals < 0 ? QByteArray() : line.mid(equals + 1).trimmed();
        QByteArray value;
        if (!raw.isEmpty() && (raw.at(0) == '"' || raw.at(0) == '\'')) {
            if (!quotedValue(raw, value)) {
                if (error)
                    *error = QStringLiteral("unterminated quote on line %1").arg(number);
                return false;
            }
        } else {
            value = bareValue(raw);
        }
        if (sectionApplies)
            into.insert(key, value);
    }
    return true;
}

IniSources iniSourcesFor(const QString& confRoot, const QString& sapi, const QString& iniFile)
{
    IniSources sources;
    const QString apiDir = confRoot + QLatin1Char('/') + sapi;
    sources.phpIni = iniFile.isEmpty() ? apiDir + QStringLiteral("/php.ini") : iniFile;
    sources.builtinScanDir = apiDir + QStringLiteral("/conf.d");
    sources.scanDirFromEnvironment = qEnvironmentVariableIsSet("PHP_INI_SCAN_DIR");
    sources.scanDirEnvironment = qgetenv("PHP_INI_SCAN_DIR");
    return sources;
}

QStringList scanDirectories(const IniSources& sources)
{
    if (!sources.scanDirFromEnvironment)
        return {sources.builtinScanDir};
    if (sources.scanDirEnvironment.isEmpty())
        return {};
    QStringList dirs;
    for (const QByteArray& entry : sources.scanDirEnvironment.split(':'))
        dirs << (entry.isEmpty() ? sources.builtinScanDir : QString::fromLocal8Bit(entry));
    return dirs;
}

QStringList iniFilesOf(const IniSources& sources)
{
    QStringList files{sources.phpIni};
    for (const QString& dir : scanDirectories(sources)) {
        const QDir scanned(dir);
        for (const QString& name : scanned.entryList({QStringLiteral("*.ini")}, QDir::Files | QDir::Readable,
                                                     QDir::Name))
            files << scanned.filePath(name);
    }
    return files;
}

bool CliDirectives::readFile(const QString& path, QHash<QByteArray, QByteArray>& into, bool required)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (required)
            m_lastError = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return !required;
    }
    QString error;
    if (!parseIniText(file.readAll(), into, &error)) {
        m_lastError = QStringLiteral("%1: %2").arg(path, error);
        return false;
    }
    m_filesRead << path;
    return true;
}

bool CliDirectives::load(const IniSources& sources)
{
    m_php.clear();
    m_global.clear();
    m_filesRead.clear();
    const QStringList files = iniFilesOf(sources);
    for (int i = 0; i < files.size(); ++i) {
        // php.ini itself must be there; a scan directory's file that went
        // away meanwhile is passed over, as the engine does.
        if (!readFile(files.at(i), m_php, i == 0))
            return false;
    }
    if (!loadGlobalFiles())
        return false;
    if (sources.scanDirFromEnvironment && !sources.scanDirEnvironment.isEmpty()) {
        // A worker reads PHP_INI_SCAN_DIR's files a second time as product
        // directive files, over VeskGlobalDirectives.ini.
        for (int i = 1; i < files.size(); ++i) {
            if (!readFile(files.at(i), m_global, false))
                return false;
        }
    }
    for (auto it = m_global.begin(); it != m_global.end();)
        it = accepted(it.key()) ? it + 1 : m_global.erase(it);
    return true;
}

bool CliDirectives::loadGlobalFiles()
{
    const QByteArray confDir = m_php.value("vesk.conf_dir");
    if (confDir.isEmpty())
        return true;
    const QString base = QString::fromLocal8Bit(confDir) + QLatin1Char('/');
    if (!readFile(base + QStringLiteral("VeskGlobalDirectives.ini"), m_global, false))
        return false;
    if (qEnvironmentVariableIsSet("PHP_INI_SCAN_DIR") && !qEnvironmentVariableIsEmpty("PHP_INI_SCAN_DIR"))
        return true;
    const QByteArray scanDir = m_php.value("vesk.ini_scandir");
    if (!scanDir.isEmpty()) {
        const QDir dir(base + QString::fromLocal8Bit(scanDir));
        for (const QString& name : dir.entryList({QStringLiteral("*.ini")}, QDir::Files, QDir::Name)) {
            if (!readFile(dir.filePath(name), m_global, false))
                return false;
        }
        return true;
    }
    const QByteArray iniFile = m_php.value("vesk.ini_file");
    return iniFile.isEmpty() || readFile(base + QString::fromLocal8Bit(iniFile), m_global, false);
}

QByteArray CliDirectives::value(const char* name, const QByteArray& absent) const
{
    const auto global = m_global.constFind(name);
    if (global != m_global.constEnd())
        return global.value();
    return m_php.value(name, absent);
}

qint64 CliDirectives::number(const char* name, qint64 absent) const
{
    const QByteArray text = value(name);
    return text.isNull() ? absent : std::strtoll(text.constData(), nullptr, 10);
}

bool CliDirectives::flag(const char* name, bool absent) const
{
    const QByteArray text = value(name);
    return text.isNull() ? absent : std::strtoll(text.constData(), nullptr, 10) != 0;
}

QByteArray CliDirectives::resolve(const QByteArray& path, const char* base) const
{
    if (path.startsWith('/'))
        return path;
    const QByteArray dir = value(base);
    return dir.isNull() ? QByteArray() : dir + '/' + path;
}

QByteArray CliDirectives::savePath() const
{
    return resolve(value("vesk_pagecache.save_path", "pagecache"), "vesk.temp_dir");
}

QByteArray CliDirectives::publishDir() const
{
    const QByteArray dir = value("vesk_pagecache.publish_dir", "");
    return dir.isEmpty() ? QByteArray() : resolve(dir, "vesk.temp_dir");
}

QByteArray CliDirectives::rulesFile() const
{
    return resolve(value("vesk_pagecache.dependencies_file", "pagecache_rules.xml"), "vesk.conf_dir");
}
