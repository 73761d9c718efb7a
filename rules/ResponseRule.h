#pragma once

#include <QByteArray>
#include <QLinkedList>
#include <QList>
#include <QRegExp>
#include <QSharedPointer>
#include <QString>

// One response header that forbids caching the page.
class ResponseHeaderCheck
{
public:
    enum Operation {
        Equals = 0,
        NotEquals = 1,
        RegexMatch = 2,
        RegexNotMatch = 3,
        Exists = 4,
        NotExists = 5,
        Unknown = -1, // never rejects
    };
    static int operationOf(const QString& matchType);
    // One check as a rules file attribute set or a table row gives it.
    static QSharedPointer<ResponseHeaderCheck> create(const QString& name, const QString& matchType,
                                                      const QString& value);

    QByteArray name;
    QString matchType;
    int op = Unknown;
    QString value;
    QRegExp regex;
};

// Which status codes an application's pages may be stored with, and which
// response headers forbid storing them.
class ResponseRule
{
public:
    // Reads "200, 30x, 4XX": each piece a whole-code pattern, "x" any digit.
    void setResponseCodes(const QString& codes);
    bool hasCodePatterns() const { return !codePatterns.isEmpty(); }
    bool statusFits(int status) const;
    // Runs the checks in order over complete header lines; false rejects.
    bool headersPass(const QLinkedList<QByteArray>& headers, int logStream) const;

    qint32 appId = -1;
    QString responseCodes;
    QList<QRegExp> codePatterns;
    QList<QSharedPointer<ResponseHeaderCheck>> headerChecks;
    // No attribute of the rules file sets it: the global header checks apply
    // to every application unless the generator says otherwise.
    bool inheritGlobals = true;
    QString note;

private:
    // The last status asked about and its answer: a worker sees the same
    // status, mostly 200, on hit after hit.
    mutable int lastStatus = -1;
    mutable bool lastFits = false;
};
