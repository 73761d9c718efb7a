#pragma once

// The request's URL, read once from the server's variables: scheme, host,
// port, URI and query, kept as the one text "scheme://host[:port]URI" with
// the places where its parts end. Every form the page cache needs is taken
// from it, so that all of them agree on what this request is.

#include <QByteArray>

class RequestUrl
{
public:
    // Reads HTTP_HOST, HTTPS, SERVER_PORT and REQUEST_URI. HTTPS counts when
    // set, not empty and not "off"; the server's port is added only where
    // the host names none.
    static RequestUrl read();

    bool isRead() const { return m_read; }
    // The whole of it, query included, of any length; empty without a host
    // variable. Purge rules and stored pages know a page by this form, and
    // the application lookup reads it.
    const QByteArray& whole() const { return m_whole; }
    // Scheme, host and path with each run of slashes folded, without the
    // query (one that starts the URI stays): the form rules are written
    // against. `withPort` adds the server's port where the host names none.
    // Empty without a host, or with an empty one.
    QByteArray ruleUrl(bool withPort = false) const;
    // The site the request is for: its host and the port the server
    // answered on; `portConflict` when the host names another port.
    QByteArray site(bool* portConflict) const;
    // The length of REQUEST_URI, known with or without a host.
    int uriLength() const { return m_uriLength; }
    // Whether the port form differs from the plain one.
    bool hasAddedPort() const { return m_uriStart != m_hostEnd; }
    // Whether the port, as the whole form names it, is one of the
    // comma-separated `ports`.
    bool onPort(const char* ports) const;

private:
    bool m_read = false;
    bool m_emptyHost = true;
    QByteArray m_whole;
    int m_hostEnd = 0;  // past "scheme://host"
    int m_uriStart = 0; // past the port added, if any
    int m_uriLength = 0;
};
