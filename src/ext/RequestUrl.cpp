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
    const int length = query && query > uri ? int(query - uri) : uriLength;
    QByteArray path = QByteArray::fromRawData(uri, length);
    // Bytes beyond ASCII go through the text form, which turns what isn't
    // UTF-8 into replacement characters.
    for (const char c : path) {
        if (quint8(c) >= 0x80) {
            path = QString::fromUtf8(path).toUtf8();
            break;
        }
    }
    // Each run of slashes folded into one: what the pattern "/+" would do,
    // on every request without a regular expression.
    const int prefix = withPort ? m_uriStart : m_hostEnd;
    QByteArray url;
    url.resize(prefix + path.size());
    memcpy(url.data(), m_whole.constData(), size_t(prefix));
    char* out = url.data() + prefix;
    const char* in = path.constData();
    for (int i = 0; i < path.size(); ++i) {
        if (in[i] != '/' || i == 0 || in[i - 1] != '/')
            *out++ = in[i];
    }
    url.resize(int(out - url.constData()));
    return url;
}

QByteArray RequestUrl::site(bool* portConflict) const
{
    *portConflict = false;
    if (m_emptyHost)
        return QByteArray();
    const int hostStart = m_whole.indexOf("://") + 3;
    const char* port = vesk_sapi_getenv("SERVER_PORT");
    return requestSite(m_whole.mid(hostStart, m_hostEnd - hostStart), QByteArray(port), m_whole.startsWith("https:"),
                       portConflict);
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
