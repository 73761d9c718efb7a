#include "RequestUrl.h"

#include "HostProbes.h"
#include "CacheRule.h"
#include "host/vesk_host.h"

#include <QString>

#include <cstdlib>
#include <cstring>

RequestUrl RequestUrl::read()
{
    RequestUrl url;
    url.m_read = true;
    if (!vesk_sapi_has_getenv())
        return url;
    const char* host = vesk_sapi_getenv("HTTP_HOST");
    const char* uri = vesk_sapi_getenv("REQUEST_URI");
    url.m_uriLength = uri ? int(strlen(uri)) : 0;
    if (!host)
        return url;
    const char* scheme = isHttpsOn(vesk_sapi_getenv("HTTPS")) ? "https://" : "http://";
    const char* port = strchr(host, ':') ? nullptr : vesk_sapi_getenv("SERVER_PORT");
    const int hostLength = int(strlen(host));
    const int portLength = port ? int(strlen(port)) : 0;
    QByteArray& whole = url.m_whole;
    whole.reserve(int(strlen(scheme)) + hostLength + (port ? 1 + portLength : 0) + url.m_uriLength);
    whole.append(scheme).append(host, hostLength);
    url.m_hostEnd = whole.size();
    if (port)
        whole.append(':').append(port, portLength);
    url.m_uriStart = whole.size();
    if (uri)
        whole.append(uri, url.m_uriLength);
    url.m_emptyHost = hostLength == 0;
    return url;
}

QByteArray RequestUrl::ruleUrl(bool withPort) const
{
    if (m_emptyHost)
        return QByteArray();
    const char* uri = m_whole.constData() + m_uriStart;
    const int uriLength = m_whole.size() - m_uriStart;
    const char* query = static_cast<const char*>(memchr(uri, '?', size_t(uriLength)));
    int length = query && query > uri ? int(query - uri) : uriLength;
    // Bytes beyond ASCII go through the text form, which turns what isn't
    // UTF-8 into replacement characters.
    QByteArray recoded;
    for (int i = 0; i < length; ++i) {
        if (quint8(uri[i]) >= 0x80) {
            recoded = QString::fromUtf8(uri, length).toUtf8();
            uri = recoded.constData();
            length = recoded.size();
            break;
        }
    }
    // Each run of slashes folded into one: what the pattern "/+" would do,
    // on every request without a regular expression.
    const int prefix = withPort ? m_uriStart : m_hostEnd;
    QByteArray url(prefix + length, Qt::Uninitialized);
    memcpy(url.data(), m_whole.constData(), size_t(prefix));
    char* out = url.data() + prefix;
    for (int i = 0; i < length; ++i) {
        if (uri[i] != '/' || i == 0 || uri[i - 1] != '/')
            *out++ = uri[i];
    }
    url.resize(int(out - url.constData()));
    return url;
}

QByteArray RequestUrl::site(bool* portConflict) const
{
    *portConflict = false;
    if (m_emptyHost)
        return QByteArray();
    // A worker answers the same few hosts: the last one's site is kept,
    // known by the scheme and host as sent and the server's port.
    static QByteArray lastHost;
    static QByteArray lastPort;
    static QByteArray lastSite;
    static bool lastConflict = false;
    const char* port = vesk_sapi_getenv("SERVER_PORT");
    const int portLength = port ? int(strlen(port)) : 0;
    if (!lastSite.isNull() && lastHost.size() == m_hostEnd && lastPort.size() == portLength
        && memcmp(lastHost.constData(), m_whole.constData(), size_t(m_hostEnd)) == 0
        && (portLength == 0 || memcmp(lastPort.constData(), port, size_t(portLength)) == 0)) {
        *portConflict = lastConflict;
        return lastSite;
    }
    const int hostStart = m_whole.indexOf("://") + 3;
    lastHost = m_whole.left(m_hostEnd);
    lastPort = QByteArray(port, portLength);
    lastSite = requestSite(m_whole.mid(hostStart, m_hostEnd - hostStart), lastPort, m_whole.startsWith("https:"),
                           &lastConflict);
    *portConflict = lastConflict;
    return lastSite;
}

bool RequestUrl::onPort(const char* ports) const
{
    const char* url = m_whole.constData();
    // The first scheme mark anywhere in the text, as a query may carry one.
    const char* rest = strstr(url, "https://");
    if (rest) {
        rest += strlen("https://");
    } else if ((rest = strstr(url, "http://"))) {
        rest += strlen("http://");
    } else {
        return false;
    }
    const char* colon = strchr(rest, ':');
    if (!colon)
        return false;
    // strtol stops at the "/" that ends the port by itself.
    const long port = strtol(colon + 1, nullptr, 10);
    if (port == -1 || !ports)
        return false;
    for (const char* piece = ports; piece;) {
        if (strtol(piece, nullptr, 10) == port)
            return true;
        piece = strchr(piece, ',');
        if (piece)
            ++piece;
    }
    return false;
}
