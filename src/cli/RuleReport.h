#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

class CacheRule;
class VCondition;
class VRuleMatcher;

// Rules and conditions as an operator reads them.
QString describeCondition(const VCondition& condition);
// Several lines: the rule's URL, lifetime and switches, its condition blocks
// and its split, each line beginning with `indent`.
QString describeRule(const CacheRule& rule, const QString& indent);

// The rule's condition blocks tested on the values the evaluators read now,
// one line per condition with its verdict; `holds` says whether any block
// (or the absence of blocks) lets the page be served and stored.
QStringList testConditions(const CacheRule& rule, bool* holds);

// Why a URL gets the rule it gets, or none: the answer of the matcher that
// the workers use, with the reason in words.
struct Coverage
{
    const CacheRule* rule = nullptr; // null: not covered
    QString reason;
};
Coverage coverageOf(VRuleMatcher& matcher, const QByteArray& url);

// "http://host/path" as a worker builds it for matching: scheme, host (and
// port), path with slashes folded, no query. Empty for a text that isn't an
// http or https URL.
QByteArray matchingUrl(const QString& text);
