#include "HostProbes.h"

#include "GlobalDirectives.h"
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

// Looks for `name` among the pairs of `data`, split at `separator`.
char* findParameter(const char* data, char separator, const char* name, size_t nameLength)
{
    if (!data)
        return nullptr;
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
            char* copy = vesk_estrndup(value, size_t(pairEnd - value));
            vesk_url_decode(copy, size_t(pairEnd - value));
            return copy;
        }
        if (!end)
            break;
        pair = end + 1;
    }
    return nullptr;
}

} // namespace

bool isFpm()
{
    return sapiIs("fpm-fcgi");
}

bool isPhpdbg()
{
    return sapiIs("phpdbg");
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

int isDaemonMode()
{
    return 0;
}

const char* scriptFilename()
{
    return vesk_sapi_getenv("SCRIPT_FILENAME");
}

bool isHttpsOn(const char* https)
{
    return https && *https && strcasecmp(https, "off") != 0;
}

QByteArray currentUrl()
{
    QByteArray url;
    if (!vesk_sapi_has_getenv())
        return url;
    const char* host = vesk_sapi_getenv("HTTP_HOST");
    if (!host)
        return url;
    url = isHttpsOn(vesk_sapi_getenv("HTTPS")) ? "https://" : "http://";
    url += host;
    const char* port = vesk_sapi_getenv("SERVER_PORT");
    if (port && !strchr(host, ':')) {
        url += ':';
        url += port;
    }
    if (const char* uri = vesk_sapi_getenv("REQUEST_URI"))
        url += uri;
    return url;
}

int isInternalRequest()
{
    const char* ports = internalPorts();
    const QByteArray whole = currentUrl();
    const char* url = whole.constData();
    const char* rest = strstr(url, "https://");
    if (rest) {
        rest += strlen("https://");
    } else if ((rest = strstr(url, "http://"))) {
        rest += strlen("http://");
    } else {
        return 0;
    }
    const char* colon = strchr(rest, ':');
    if (!colon)
        return 0;
    // strtol stops at the "/" that ends the port by itself.
    const long port = strtol(colon + 1, nullptr, 10);
    if (port == -1 || !ports)
        return 0;
    const char* piece = ports;
    while (piece) {
        if (strtol(piece, nullptr, 10) == port)
            return 1;
        piece = strchr(piece, ',');
        if (piece)
            ++piece;
    }
    return 0;
}

char* requestParameter(const char* name, size_t length, int readBody)
{
    const char* query = vesk_request_query_string();
    if (!query)
        query = getenv("QUERY_STRING");
    if (char* value = findParameter(query, '&', name, length))
        return value;
    if (char* value = findParameter(vesk_request_cookie_data(), ';', name, length))
        return value;
    if (!readBody)
        return nullptr;
    std::string body;
    if (!vesk_read_request_body(&body))
        return nullptr;
    return findParameter(body.c_str(), '&', name, length);
}

int isDebugSessionRequest()
{
    for (const char* name :
         {"start_debug", "start_debug_session", "XDEBUG_SESSION_START", "XDEBUG_SESSION"}) {
        if (char* value = requestParameter(name, strlen(name), 0)) {
            vesk_efree(value);
            return 1;
        }
    }
    return 0;
}
