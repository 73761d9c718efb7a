#include "CacheRule.h"

#include "PageCacheLogStream.h"

#include <typeinfo>

bool ConditionsBlock::holds() const
{
    for (const QSharedPointer<VCondition>& condition : conditions) {
        if (!condition->match())
            return false;
    }
    return true;
}

namespace {

bool readsServerVariable(const VPHPGlobal* global, const char* name)
{
    const auto* element = dynamic_cast<const VPHPGlobalElement*>(global);
    return element && element->type() == PHP_SERVER && element->key().keys == QList<QByteArray>{name};
}

// Joins the split values; `withNul` receives the name of the first value
// that holds a NUL byte. A value goes in as it is when nothing can mistake
// where it ends: it has no NUL byte, and the first place where the next
// name occurs behind its start is right after it. Any other value goes in
// behind a NUL byte, which no value put in as it is holds, with its length.
QByteArray joinSplitValues(const ConditionsBlock& block, QByteArray* withNul, const QByteArray& site)
{
    QByteArray key;
    const int count = block.conditions.size();
    if (count > 0)
        key += block.conditions.first()->global->name();
    for (int i = 0; i < count; ++i) {
        const VPHPGlobal* global = block.conditions.at(i)->global;
        const QByteArray value = site.isEmpty() || !readsServerVariable(global, "HTTP_HOST") ? global->value() : site;
        const QByteArray next = i + 1 < count ? block.conditions.at(i + 1)->global->name() : QByteArray();
        const bool hasNul = value.contains('\0');
        if (hasNul && withNul && withNul->isNull())
            *withNul = block.conditions.at(i)->global->name();
        const int start = key.size();
        key += value;
        key += next;
        if (hasNul || (!next.isEmpty() && key.indexOf(next, start) != start + value.size())) {
            key.truncate(start);
            key += '\0';
            key += QByteArray::number(value.size());
            key += ':';
            key += value;
            key += next;
        }
    }
    return key;
}

} // namespace

QByteArray splitKey(const ConditionsBlock& block)
{
    return joinSplitValues(block, nullptr, QByteArray());
}

bool faithfulSplitKey(const ConditionsBlock& block, const QByteArray& url, QByteArray& key, const QByteArray& site)
{
    if (url.contains('\0')) {
        VLOG(PageCacheLogStream, 3) << "Not using the cache: the URL holds a NUL byte";
        key.clear();
        return false;
    }
    QByteArray withNul;
    key = joinSplitValues(block, &withNul, site);
    if (withNul.isNull())
        return true;
    VLOG(PageCacheLogStream, 3) << "Not using the cache: a split value of" << withNul << "holds a NUL byte";
    key.clear();
    return false;
}

QByteArray requestSite(const QByteArray& httpHost, const QByteArray& serverPort, bool https, bool* portConflict)
{
    // An IPv6 address in brackets holds colons of its own.
    const int bracket = httpHost.startsWith('[') ? httpHost.indexOf(']') : -1;
    const int colon = httpHost.indexOf(':', qMax(bracket, 0));
    const QByteArray host = (colon < 0 ? httpHost : httpHost.left(colon)).toLower();
    QByteArray named = colon < 0 ? QByteArray() : httpHost.mid(colon + 1);
    if (named == (https ? "443" : "80"))
        named.clear();
    *portConflict = !named.isEmpty() && !serverPort.isEmpty() && named != serverPort;
    const QByteArray port = serverPort.isEmpty() ? named : serverPort;
    return port.isEmpty() ? host : host + ':' + port;
}

CacheRule::CacheRule() : d(new CacheRuleData), regex(QString())
{
}

bool CacheRule::conditionsHold() const
{
    if (d->conditionBlocks.isEmpty())
        return true;
    for (const ConditionsBlock& block : d->conditionBlocks) {
        if (block.holds())
            return true;
    }
    return false;
}

bool CacheRule::conditionsHoldWithoutSession() const
{
    if (d->conditionBlocks.isEmpty())
        return true;
    for (const ConditionsBlock& block : d->conditionBlocks) {
        if (!block.hasSessionCondition && block.holds())
            return true;
    }
    return false;
}

QByteArray CacheRule::unaccountedCookie(const QList<QByteArray>& names, const QByteArray& sessionName) const
{
    if (d->storeAnyCookie || d->readsAllCookies)
        return QByteArray();
    const bool readsSession = d->conditionsNeedSession || d->splitNeedsSession;
    for (const QByteArray& name : names) {
        if (d->readCookies.contains(name) || (readsSession && name == sessionName))
            continue;
        bool ignored = false;
        for (const QByteArray& pattern : d->ignoredCookies) {
            if (pattern.endsWith('*'))
                ignored = name.startsWith(pattern.left(pattern.size() - 1));
            else if (pattern.startsWith('*'))
                ignored = name.endsWith(pattern.mid(1));
            else
                ignored = name == pattern;
            if (ignored)
                break;
        }
        if (!ignored)
            return name;
    }
    return QByteArray();
}

CacheRule CacheRule::dontCacheRule()
{
    CacheRule rule;
    rule.d->dontCache = true;
    rule.d->initialised = true;
    return rule;
}

namespace {

bool plainText(const QByteArray& text, const char* extra)
{
    if (text.isEmpty())
        return false;
    for (const char c : text) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || strchr(extra, c)))
            return false;
    }
    return true;
}

// The one subscript of a "_COOKIE[name]"-shaped value, or null.
QByteArray singleKey(const VPHPGlobal* global)
{
    const auto* element = dynamic_cast<const VPHPGlobalElement*>(global);
    if (!element || element->key().keys.size() != 1)
        return QByteArray();
    return element->key().keys.first();
}

// A query parameter is only read on requests that have no query string at
// all (the web server sends the others to PHP), where every such test has
// one fixed answer: the one it had when the page was stored. A cookie is
// tested by the web server on the raw header, so its name and a compared
// value must read the same there as in PHP, which decodes both.
QString conditionRefusal(const VCondition& condition)
{
    const std::type_info& kind = typeid(condition);
    const bool equals = kind == typeid(VConditionEquals);
    if (!equals && kind != typeid(VConditionExists) && kind != typeid(VConditionNotExists))
        return QStringLiteral("a condition other than exists, not_exists or equals");
    const int type = condition.global->type();
    if (type != PHP_COOKIE && type != PHP_GET)
        return QStringLiteral("a condition on %1").arg(QString::fromLatin1(condition.global->name()));
    const QByteArray name = singleKey(condition.global);
    if (name.isNull())
        return QStringLiteral("a condition on a whole superglobal or a nested element");
    if (type == PHP_GET)
        return QString();
    if (!plainText(name, "_-"))
        return QStringLiteral("a cookie name other than letters, digits, '_' and '-'");
    if (equals && !plainText(static_cast<const VConditionEquals&>(condition).value.toUtf8(), "_.-"))
        return QStringLiteral("a cookie value other than letters, digits, '_', '.' and '-'");
    return QString();
}

} // namespace

QString publishRefusal(const CacheRule& rule)
{
    for (const ConditionsBlock& block : rule.d->conditionBlocks) {
        for (const QSharedPointer<VCondition>& condition : block.conditions) {
            const QString why = conditionRefusal(*condition);
            if (!why.isEmpty())
                return why;
        }
    }
    for (const QSharedPointer<VCondition>& split : rule.d->splitBlock.conditions) {
        const QByteArray key = singleKey(split->global);
        if (split->global->type() != PHP_SERVER
            || (key != "REQUEST_URI" && key != "HTTP_HOST" && key != "HTTPS"))
            return QStringLiteral("a split by something else than the scheme, the host or the URI");
    }
    return QString();
}
