#include "StatsTable.h"

#include "VPageCacheStatsMessage.h"
#include "VSocket.h"

#include <QDataStream>

namespace {

// A label value with the three characters the format escapes.
QByteArray labelValue(const QByteArray& text)
{
    QByteArray escaped = text;
    escaped.replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
    return escaped;
}

} // namespace

QByteArray printableText(const QByteArray& text)
{
    const bool utf8 = QString::fromUtf8(text).toUtf8() == text;
    QByteArray out;
    for (int i = 0; i < text.size(); ++i) {
        const uchar c = uchar(text[i]);
        // U+0080 to U+009F, the C1 controls, are 0xC2 0x80 to 0xC2 0x9F.
        const bool c1 = utf8 && c == 0xc2 && i + 1 < text.size() && uchar(text[i + 1]) < 0xa0;
        if (c < 0x20 || c == 0x7f || c == '\\' || (c >= 0x80 && !utf8) || c1) {
            out += QByteArray("\\x") + QByteArray::number(c, 16).rightJustified(2, '0');
            if (c1)
                out += QByteArray("\\x") + QByteArray::number(uchar(text[++i]), 16);
        } else {
            out += char(c);
        }
    }
    return out;
}

double StatsTable::Figures::hitRatio() const
{
    const qint64 answered = hits + misses;
    return answered ? double(hits) / double(answered) : 0.0;
}

void StatsTable::add(const VPageCacheStatsMessage& message)
{
    Figures& figures = m_rules[qMakePair(message.ruleId, message.appId)];
    figures.name = message.ruleName;
    switch (message.counterType) {
    case VPageCacheStatsMessage::Possible:
        figures.possible += message.counterValue;
        break;
    case VPageCacheStatsMessage::Hit:
        figures.hits += message.counterValue;
        break;
    case VPageCacheStatsMessage::Miss:
        figures.misses += message.counterValue;
        break;
    case VPageCacheStatsMessage::TimeSaved:
        figures.timeSavedMs += message.counterValue;
        break;
    case VPageCacheStatsMessage::Stale:
        figures.staleHits += message.counterValue;
        break;
    case VPageCacheStatsMessage::Wait:
        figures.waits += 1;
        figures.waitedMs += message.counterValue;
        break;
    case VPageCacheStatsMessage::TagRemoval:
        figures.tagRemovals += 1;
        figures.pagesRemovedByTag += message.counterValue;
        break;
    }
}

bool StatsTable::addFrame(const QByteArray& payload)
{
    QDataStream stream(payload);
    stream.setVersion(VSocketBase::QDataStreamVersion);
    stream.setByteOrder(QDataStream::BigEndian);
    qint32 kind = 0;
    stream >> kind;
    if (kind != VPageCacheStatsMessage::Kind)
        return false;
    VPageCacheStatsMessage message;
    message.readFrom(stream);
    if (stream.status() != QDataStream::Ok)
        return false;
    add(message);
    return true;
}

QByteArray StatsTable::text() const
{
    QByteArray out = QByteArray("rule      app     name                                possible       hits     "
                                "misses    ratio   saved (ms)      stale      waits\n");
    for (auto it = m_rules.cbegin(); it != m_rules.cend(); ++it) {
        const Figures& f = it.value();
        out += QString::asprintf("%-9lld %-7d %-30.30s %11lld %10lld %10lld %7.1f%% %12lld %10lld %10lld\n",
                                 static_cast<long long>(it.key().first), it.key().second, printableText(f.name).constData(),
                                 static_cast<long long>(f.possible), static_cast<long long>(f.hits),
                                 static_cast<long long>(f.misses), 100.0 * f.hitRatio(),
                                 static_cast<long long>(f.timeSavedMs), static_cast<long long>(f.staleHits),
                                 static_cast<long long>(f.waits))
                   .toUtf8();
    }
    return out;
}

QByteArray StatsTable::prometheus() const
{
    struct Metric
    {
        const char* name;
        const char* type;
        const char* help;
    };
    static const Metric metrics[] = {
        {"vesk_pagecache_requests_total", "counter", "Requests a rule covered."},
        {"vesk_pagecache_hits_total", "counter", "Pages served from the store."},
        {"vesk_pagecache_misses_total", "counter", "Pages built by the script."},
        {"vesk_pagecache_hit_ratio", "gauge", "Hits among hits and misses."},
        {"vesk_pagecache_time_saved_seconds_total", "counter", "Build time the hits saved."},
        {"vesk_pagecache_stale_hits_total", "counter", "Hits served past their lifetime, in grace."},
        {"vesk_pagecache_lock_waits_total", "counter", "Requests that waited for another worker's build."},
        {"vesk_pagecache_lock_wait_seconds_total", "counter", "Time those requests waited."},
        {"vesk_pagecache_tag_removals_total", "counter", "Removals by tag."},
        {"vesk_pagecache_pages_removed_by_tag_total", "counter", "Pages those removals ended."},
    };
    QByteArray out;
    for (size_t m = 0; m < sizeof metrics / sizeof metrics[0]; ++m) {
        out += QByteArray("# HELP ") + metrics[m].name + ' ' + metrics[m].help + '\n';
        out += QByteArray("# TYPE ") + metrics[m].name + ' ' + metrics[m].type + '\n';
        for (auto it = m_rules.cbegin(); it != m_rules.cend(); ++it) {
            const Figures& f = it.value();
            const double values[] = {double(f.possible), double(f.hits), double(f.misses), f.hitRatio(),
                                     double(f.timeSavedMs) / 1000.0, double(f.staleHits), double(f.waits),
                                     double(f.waitedMs) / 1000.0, double(f.tagRemovals),
                                     double(f.pagesRemovedByTag)};
            out += QByteArray(metrics[m].name) + "{rule_id=\"" + QByteArray::number(it.key().first)
                   + "\",app_id=\"" + QByteArray::number(it.key().second) + "\",rule=\"" + labelValue(f.name)
                   + "\"} " + QByteArray::number(values[m], 'g', 15) + '\n';
        }
    }
    return out;
}
