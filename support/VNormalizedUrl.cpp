#include "VNormalizedUrl.h"

#include <QUrl>

QString normalizeUrl(const QString& url)
{
    const QUrl parsed(url, QUrl::TolerantMode);
    const QString scheme = parsed.scheme();
    if ((scheme == QLatin1String("http") && parsed.port() == 80)
        || (scheme == QLatin1String("https") && parsed.port() == 443))
        return parsed.toString(QUrl::RemovePort);
    return parsed.toString();
}
