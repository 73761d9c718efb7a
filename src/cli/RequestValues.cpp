#include "RequestValues.h"

#include <QUrl>
#include <QUrlQuery>

RequestValues::RequestValues(const QString& url, const QStringList& cookies, const QStringList& server)
{
    const QUrl parsed(url, QUrl::TolerantMode);
    for (const auto& item : QUrlQuery(parsed).queryItems(QUrl::FullyDecoded))
        m_get.insert(item.first.toUtf8(), item.second.toUtf8());
    const bool https = parsed.scheme() == QLatin1String("https");
    const int port = parsed.port(https ? 443 : 80);
    QByteArray host = parsed.host(QUrl::FullyEncoded).toUtf8();
    // A client names no default port in its Host header.
    if (parsed.port() != -1 && port != (https ? 443 : 80))
        host += ':' + QByteArray::number(port);
    // The request line's target as the client sent it: the path and query
    // of the URL text, untouched.
    const QByteArray text = url.toUtf8();
    const int hostStart = text.indexOf("://") + 3;
    int targetStart = hostStart;
    while (targetStart < text.size() && text.at(targetStart) != '/' && text.at(targetStart) != '?')
        ++targetStart;
    QByteArray target = text.mid(targetStart).split('#').first();
    if (target.isEmpty() || target.startsWith('?'))
        target.prepend('/');
    m_server = {{"HTTP_HOST", host},
                {"REQUEST_URI", target},
                {"REQUEST_METHOD", "GET"},
                {"REQUEST_SCHEME", parsed.scheme().toUtf8()},
                {"SERVER_PORT", QByteArray::number(port)},
                {"QUERY_STRING", parsed.query(QUrl::FullyEncoded).toUtf8()}};
    if (https)
        m_server.insert("HTTPS", "on");
    for (const QString& pair : cookies)
        addPair(pair, m_cookie);
    for (const QString& pair : server)
        addPair(pair, m_server);
}

bool RequestValues::addPair(const QString& pair, QHash<QByteArray, QByteArray>& into)
{
    const int equals = pair.indexOf(QLatin1Char('='));
    if (equals <= 0)
        return false;
    into.insert(pair.left(equals).toUtf8(), pair.mid(equals + 1).toUtf8());
    return true;
}

const QHash<QByteArray, QByteArray>* RequestValues::table(const QByteArray& globalName) const
{
    if (globalName == "_GET")
        return &m_get;
    if (globalName == "_COOKIE")
        return &m_cookie;
    if (globalName == "_SERVER")
        return &m_server;
    if (globalName == "_POST")
        return &m_post;
    return nullptr; // no session before the script starts one
}

QByteArray RequestValues::elementValue(const QByteArray& globalName, const QList<QByteArray>& keys)
{
    const QHash<QByteArray, QByteArray>* values = table(globalName);
    return values && keys.size() == 1 ? values->value(keys.first()) : QByteArray();
}

QByteArray RequestValues::wholeValue(const QByteArray&)
{
    return QByteArray();
}

bool RequestValues::globalExists(const QByteArray& globalName)
{
    return table(globalName) != nullptr;
}

bool RequestValues::elementExists(const QByteArray& globalName, const QList<QByteArray>& keys)
{
    const QHash<QByteArray, QByteArray>* values = table(globalName);
    return values && keys.size() == 1 && values->contains(keys.first());
}
