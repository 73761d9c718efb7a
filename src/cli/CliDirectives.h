#pragma once

// The directives a worker of a server API starts with, read without the
// engine: the SAPI's php.ini (or a file given instead), the ini files of its
// scan directories, then the product's own directive files, which win over
// php.ini as they do in a worker.

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

// Reads the text of an ini file in the engine's syntax into `into`: later
// entries replace earlier ones. Entries of [PATH=…] and [HOST=…] sections
// apply to some requests only and are left out. Answers false, with the
// line in `error`, on a line that is neither an entry, a section nor a
// comment.
bool parseIniText(const QByteArray& text, QHash<QByteArray, QByteArray>& into, QString* error);

// Where the engine of a server API finds its ini files.
struct IniSources
{
    QString phpIni;           // the php.ini, or what --ini names
    QString builtinScanDir;   // the API's own conf.d
    bool scanDirFromEnvironment = false;
    QByteArray scanDirEnvironment; // PHP_INI_SCAN_DIR as given
};

// The sources for `sapi` under `confRoot` (/etc/php/8.2), with `iniFile`
// in place of its php.ini when not empty, and PHP_INI_SCAN_DIR as set.
IniSources iniSourcesFor(const QString& confRoot, const QString& sapi, const QString& iniFile);
// The scan directories in reading order: PHP_INI_SCAN_DIR is a ":"-list in
// which an empty entry stands for the built-in directory; set but empty, it
// means none.
QStringList scanDirectories(const IniSources& sources);
// The ini files in the order the engine reads them: php.ini, then each scan
// directory's *.ini in name order.
QStringList iniFilesOf(const IniSources& sources);

class CliDirectives
{
public:
    // Reads every file; answers false with the reason in lastError() when a
    // file named explicitly can't be read or a file can't be parsed.
    bool load(const IniSources& sources);
    QString lastError() const { return m_lastError; }
    QStringList filesRead() const { return m_filesRead; }

    // The product's files first, then php.ini's value, then `absent`.
    QByteArray value(const char* name, const QByteArray& absent = QByteArray()) const;
    qint64 number(const char* name, qint64 absent) const;
    bool flag(const char* name, bool absent) const;

    // The page cache's settings, resolved as a worker resolves them.
    QByteArray savePath() const;  // under vesk.temp_dir when relative
    QByteArray publishDir() const; // the same; empty when nothing is published
    QByteArray rulesFile() const; // under vesk.conf_dir when relative
    qint64 dirDepth() const { return number("vesk_pagecache.dir_depth", 2); }
    qint64 httpdUid() const { return number("vesk.httpd_uid", -1); }
    qint64 httpdGid() const { return number("vesk.httpd_gid", httpdUid()); }
    qint64 nodeId() const { return number("vesk.node_id", 0); }
    QByteArray clusterQueue() const { return value("vesk.cluster_queue"); }

private:
    bool readFile(const QString& path, QHash<QByteArray, QByteArray>& into, bool required);
    // VeskGlobalDirectives.ini under vesk.conf_dir, then the directive scan
    // directory, or the directive ini file, as a worker's start-up reads them.
    bool loadGlobalFiles();
    // `path` against the base directory directive `base`; empty when that
    // isn't configured.
    QByteArray resolve(const QByteArray& path, const char* base) const;

    QHash<QByteArray, QByteArray> m_php;
    QHash<QByteArray, QByteArray> m_global;
    QStringList m_filesRead;
    QString m_lastError;
};
