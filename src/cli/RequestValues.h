#pragma once

#include "VPHPGlobalsEvaluator.h"

#include <QHash>
#include <QStringList>

// The superglobals of a GET request for a URL, as the conditions and the
// split of a rule would read them in a worker: _GET from the query, _SERVER
// from the URL, _COOKIE as given, no _POST and no session. Values given as
// "NAME=VALUE" add to them or replace them. Elements are read one level
// deep; a whole superglobal reads as empty.
class RequestValues : public VPHPValueSource
{
public:
    RequestValues(const QString& url, const QStringList& cookies, const QStringList& server);

    QByteArray elementValue(const QByteArray& globalName, const QList<QByteArray>& keys) override;
    QByteArray wholeValue(const QByteArray& globalName) override;
    bool globalExists(const QByteArray& globalName) override;
    bool elementExists(const QByteArray& globalName, const QList<QByteArray>& keys) override;

    // "NAME=VALUE" into the table; false for text without "=".
    static bool addPair(const QString& pair, QHash<QByteArray, QByteArray>& into);

private:
    const QHash<QByteArray, QByteArray>* table(const QByteArray& globalName) const;

    QHash<QByteArray, QByteArray> m_get;
    QHash<QByteArray, QByteArray> m_cookie;
    QHash<QByteArray, QByteArray> m_server;
    QHash<QByteArray, QByteArray> m_post;
};
