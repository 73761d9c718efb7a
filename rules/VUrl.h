#pragma once

#include <QByteArray>

// The URL of a rule, as the rules file gave it: scheme word, host (with an
// optional ":port") and path without its leading slash. Nothing is
// normalised: what the reader put in is what comparisons see.
class VUrl
{
public:
    VUrl() = default;
    virtual ~VUrl();

    void setSchema(const QByteArray& schema) { m_schema = schema; }
    void setHost(const QByteArray& host) { m_host = host; }
    void setPath(const QByteArray& path) { m_path = path; }
    QByteArray schema() const { return m_schema; }
    QByteArray host() const { return m_host; }
    QByteArray path() const { return m_path; }

    // "schema://host/path", made on the first call and kept: the setters
    // don't clear it, so a copy whose host was changed still reports the
    // text of the rule it came from.
    QByteArray toString() const;

private:
    QByteArray m_schema;
    QByteArray m_host;
    QByteArray m_path;
    mutable QByteArray m_text;
};
