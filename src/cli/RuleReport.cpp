#include "RuleReport.h"

#include "CacheRule.h"
#include "VRuleMatcher.h"

#include <QStringList>

namespace {

QString globalName(const VPHPGlobal* global)
{
    QString name = QString::fromLatin1(phpGlobalName(global->type()));
    if (const auto* element = dynamic_cast<const VPHPGlobalElement*>(global)) {
        for (const QByteArray& key : element->key().keys)
            name += QLatin1Char('[') + QString::fromUtf8(key) + QLatin1Char(']');
    }
    return name;
}

QString describeBlock(const ConditionsBlock& block)
{
    QStringList parts;
    for (const QSharedPointer<VCondition>& condition : block.conditions)
        parts << describeCondition(*condition);
    return parts.join(QStringLiteral(" and "));
}

} // namespace

QString describeCondition(const VCondition& c)
{
    const QString name = globalName(c.global);
    // Most derived first: the negations derive from what they negate.
    if (dynamic_cast<const VConditionNotExists*>(&c))
        return name + QStringLiteral(" does not exist");
    if (dynamic_cast<const VConditionExists*>(&c))
        return name + QStringLiteral(" exists");
    if (const auto* e = dynamic_cast<const VConditionNotEquals*>(&c))
        return name + QStringLiteral(" != \"%1\"").arg(e->value);
    if (const auto* e = dynamic_cast<const VConditionEquals*>(&c))
        return name + QStringLiteral(" == \"%1\"").arg(e->value);
    if (const auto* r = dynamic_cast<const VConditionInsensitiveRegexpNotMatch*>(&c))
        return name + QStringLiteral(" does not match /%1/i").arg(r->regex.pattern());
    if (const auto* r = dynamic_cast<const VConditionRegexpNotMatch*>(&c))
        return name + QStringLiteral(" does not match /%1/").arg(r->regex.pattern());
    if (const auto* r = dynamic_cast<const VConditionInsensitiveRegexpMatch*>(&c))
        return name + QStringLiteral(" matches /%1/i").arg(r->regex.pattern());
    if (const auto* r = dynamic_cast<const VConditionRegexpMatch*>(&c))
        return name + QStringLiteral(" matches /%1/").arg(r->regex.pattern());
    return name;
}

QString describeRule(const CacheRule& rule, const QString& indent)
{
    const CacheRuleData& d = *rule.d;
    QStringList lines;
    lines << indent + QStringLiteral("url: %1 (%2)")
                          .arg(QString::fromUtf8(rule.url.toString()),
                               rule.regex.pattern().isEmpty() ? QStringLiteral("exact") : QStringLiteral("regex"));
    lines << indent + QStringLiteral("lifetime: %1 s, compress: %2, enabled: %3, priority: %4, app: %5")
                          .arg(d.lifetime)
                          .arg(d.compress ? "yes" : "no", d.enable ? "yes" : "no")
                          .arg(rule.priority)
                          .arg(d.appId);
    if (d.redirectLifetime > 0)
        lines << indent + QStringLiteral("redirects: %1 s, stored only from requests without cookies").arg(d.redirectLifetime);
    if (d.publish)
        lines << indent + QStringLiteral("published: its pages are also written for the web server");
    if (d.conditionBlocks.isEmpty())
        lines << indent + QStringLiteral("conditions: none");
    for (int i = 0; i < d.conditionBlocks.size(); ++i)
        lines << indent + (i == 0 ? QStringLiteral("conditions: ") : QStringLiteral("         or ")) +
                     describeBlock(d.conditionBlocks.at(i));
    QStringList splits;
    for (const QSharedPointer<VCondition>& condition : d.splitBlock.conditions)
        splits << globalName(condition->global);
    lines << indent + QStringLiteral("split by: ") +
                 (splits.isEmpty() ? QStringLiteral("nothing (one page for every URL it covers)")
                                   : splits.join(QStringLiteral(", ")));
    return lines.join(QLatin1Char('\n'));
}

QStringList testConditions(const CacheRule& rule, bool* holds)
{
    QStringList lines;
    const QList<ConditionsBlock>& blocks = rule.d->conditionBlocks;
    for (int i = 0; i < blocks.size(); ++i) {
        for (const QSharedPointer<VCondition>& condition : blocks.at(i).conditions)
            lines << QStringLiteral("block %1: %2: %3")
                         .arg(i + 1)
                         .arg(describeCondition(*condition), condition->match() ? "yes" : "no");
    }
    *holds = rule.conditionsHold();
    return lines;
}

Coverage coverageOf(VRuleMatcher& matcher, const QByteArray& url)
{
    Coverage coverage;
    coverage.rule = matcher.getOrderedMatchingRuleForUrl(url);
    if (coverage.rule) {
        coverage.reason = coverage.rule->regex.pattern().isEmpty()
                              ? QStringLiteral("its host and path equal the rule's")
                              : QStringLiteral("its host and path match the rule's expressions");
        return coverage;
    }
    if (matcher.readBlacklist().contains(url))
        coverage.reason = QStringLiteral("listed under <dont_cache>");
    else
        coverage.reason = QStringLiteral("no enabled rule's host and path match (the path is matched "
                                         "without the query and without its leading slash)");
    return coverage;
}

QByteArray matchingUrl(const QString& text)
{
    const QByteArray url = text.toUtf8();
    const int schemeEnd = url.indexOf("://");
    const QByteArray scheme = url.left(schemeEnd);
    if (schemeEnd < 0 || (scheme != "http" && scheme != "https"))
        return QByteArray();
    const int hostStart = schemeEnd + 3;
    int hostEnd = hostStart;
    while (hostEnd < url.size() && url.at(hostEnd) != '/' && url.at(hostEnd) != '?' && url.at(hostEnd) != '#')
        ++hostEnd;
    if (hostEnd == hostStart)
        return QByteArray();
    // The path as the request line gives it, up to the query, each run of
    // slashes folded into one; a bare host asks for "/".
    int pathEnd = hostEnd;
    while (pathEnd < url.size() && url.at(pathEnd) != '?' && url.at(pathEnd) != '#')
        ++pathEnd;
    QByteArray path = url.mid(hostEnd, pathEnd - hostEnd);
    if (path.isEmpty())
        path = "/";
    while (path.contains("//"))
        path.replace("//", "/");
    return url.left(hostEnd) + path;
}
