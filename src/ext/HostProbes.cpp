#include "HostProbes.h"

#include "host/vesk_host.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/socket.h>

namespace {

bool sapiIs(const char* name)
{
    const char* sapi = vesk_sapi_name();
    return sapi && strcmp(sapi, name) == 0;
}

// Looks for `name` among the pairs of `data`, split at `separator`: its
// decoded value, or null.
QByteArray findParameter(const char* data, char separator, const char* name, size_t nameLength)
{
    if (!data)
        return QByteArray();
    const char* pair = data;
    while (*pair) {
        const char* end = strchr(pair, separator);
        const char* pairEnd = end ? end : pair + strlen(pair);
        const char* key = pair;
        while (key < pairEnd && (*key == ' ' || *key == '\t' || *key == '\r' || *key == '\n'))
            ++key;
        const char* equals = static_cast<const char*>(memchr(key, '=', size_t(pairEnd - key)));
        const char* keyEnd = equals ? equals : pairEnd;
        if (size_t(keyEnd - key) == nameLength && memcmp(key, name, nameLength) == 0) {
            const char* value = equals ? equals + 1 : pairEnd;
            QByteArray copy(value, int(pairEnd - value));
            copy.truncate(int(vesk_url_decode(copy.data(), size_t(copy.size()))));
            return copy;
        }
        if (!end)
            break;
        pair = end + 1;
    }
    return QByteArray();
}

} // namespace

bool isFpm()
{
    return sapiIs("fpm-fcgi");
}

bool isPlainCgi()
{
    if (!sapiIs("cgi-fcgi"))
        return false;
    struct sockaddr_storage address;
    socklen_t length = sizeof address;
    return getpeername(0, reinterpret_cast<struct sockaddr*>(&address), &length) != 0
           && errno == ENOTCONN;
}

bool isFastCgiHost()
{
    return isFpm() || isPlainCgi();
}

int webSapiCheck()
{
    const char* sapi = vesk_sapi_name();
    if (!sapi)
        return -1;
    if (strcmp(sapi, "cgi-fcgi") == 0)
        return isFastCgiHost() ? 0 : -1;
    for (const char* web : {"apache", "apache2filter", "apache2handler", "fpm-fcgi", "cli-server"}) {
        if (strcmp(sapi, web) == 0)
            return 0;
    }
    return -1;
}

const char* scriptFilename()
{
    return vesk_sapi_getenv("SCRIPT_FILENAME");
}

bool isHttpsOn(const char* https)
{
    return https && *https && strcasecmp(https, "off") != 0;
}

QByteArray requestParameter(const char* name, size_t length, bool readBody)
{
    const char* query = vesk_request_query_string();
    if (!query)
        query = getenv("QUERY_STRING");
    QByteArray value = findParameter(query, '&', name, length);
    if (value.isNull())
        value = findParameter(vesk_request_cookie_data(), ';', name, length);
    if (!value.isNull() || !readBody)
        return value;
    std::string body;
    if (!vesk_read_request_body(&body))
        return QByteArray();
    return findParameter(body.c_str(), '&', name, length);
}

bool requestCarries(const char* name, bool readBody)
{
    return !requestParameter(name, strlen(name), readBody).isNull();
}
