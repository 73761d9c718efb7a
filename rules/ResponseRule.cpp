#include "ResponseRule.h"

#include "VDebug.h"

int ResponseHeaderCheck::operationOf(const QString& matchType)
{
    static const char* const words[] = {"equals", "not_equals", "regex_match",
                                        "regex_not_match", "exists", "not_exists"};
    for (int op = Equals; op <= NotExists; ++op) {
        if (matchType == QLatin1String(words[op]))
            return op;
    }
    return Unknown;
}

QSharedPointer<ResponseHeaderCheck> ResponseHeaderCheck::create(const QString& name, const QString& matchType,
                                                                const QString& value)
{
    QSharedPointer<ResponseHeaderCheck> check(new ResponseHeaderCheck);
    check->name = name.trimmed().toUtf8();
    check->matchType = matchType;
    check->op = operationOf(matchType);
    check->value = value.trimmed();
    check->regex = QRegExp(value, Qt::CaseSensitive);
    return check;
}

void ResponseRule::setResponseCodes(const QString& codes)
{
    responseCodes = codes;
    codePatterns.clear();
    lastStatus = -1;
    for (QString piece : codes.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        piece = piece.trimmed();
        piece.replace(QLatin1String("x"), QLatin1String("."), Qt::CaseInsensitive);
        codePatterns.append(QRegExp(piece, Qt::CaseSensitive));
    }
}

bool ResponseRule::statusFits(int status) const
{
    if (status == lastStatus)
        return lastFits;
    const QString code = QString::number(status);
    bool fits = false;
    // By reference: a copy of a QRegExp looks its engine up again.
    for (const QRegExp& pattern : codePatterns) {
        if (pattern.exactMatch(code)) {
            fits = true;
            break;
        }
    }
    lastStatus = status;
    lastFits = fits;
    return fits;
}

bool ResponseRule::headersPass(const QLinkedList<QByteArray>& headers, int logStream) const
{
    for (const QSharedPointer<ResponseHeaderCheck>& check : headerChecks) {
        if (check->op == ResponseHeaderCheck::Exists || check->op == ResponseHeaderCheck::NotExists) {
            // The start of the whole line is compared, so "X-Foo" also finds "X-Foo-Bar".
            bool found = false;
            for (const QByteArray& line : headers) {
                if (line.startsWith(check->name)) {
                    found = true;
                    break;
                }
            }
            if (found) {
                VLOG(logStream, 4) << "Header check:" << check->name << "exists in response headers";
            } else {
                VLOG(logStream, 4) << "Header check:" << check->name << "does not exist in response headers";
            }
            if (found == (check->op == ResponseHeaderCheck::Exists))
                return false;
            continue;
        }
        if (check->op == ResponseHeaderCheck::Unknown)
            continue;
        for (const QByteArray& line : headers) {
            const int colon = line.indexOf(':');
            const QByteArray name = (colon < 0 ? line : line.left(colon)).trimmed();
            if (name != check->name)
                continue;
            const QByteArray rawValue = colon < 0 ? line : line.mid(colon + 1);
            const QString value = QString::fromLatin1(rawValue.trimmed().constData());
            bool holds = false;
            switch (check->op) {
            case ResponseHeaderCheck::Equals:
                holds = value == check->value;
                break;
            case ResponseHeaderCheck::NotEquals:
                holds = value != check->value;
                break;
            case ResponseHeaderCheck::RegexMatch:
                holds = QRegExp(check->regex).exactMatch(value);
                break;
            case ResponseHeaderCheck::RegexNotMatch:
                holds = !QRegExp(check->regex).exactMatch(value);
                break;
            }
            if (holds) {
                VLOG(logStream, 4) << "Header check:" << check->name << "condition matches for value"
                                   << rawValue;
                return false;
            }
        }
    }
    VLOG(logStream, 4) << "Header checks: OK for cache!";
    return true;
}
