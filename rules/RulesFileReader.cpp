#include "RulesFileReader.h"

#include "PageCacheLogStream.h"
#include "VException.h"
#include "VPHPGlobal.h"

namespace {

bool isOff(const QString& word)
{
    return word == QLatin1String("false") || word == QLatin1String("0");
}

// All groups become non-capturing; groups that were already special stay so.
void rewriteGroups(QString& text)
{
    text.replace(QLatin1String("("), QLatin1String("(?:"));
    text.replace(QLatin1String("(?:?"), QLatin1String("(?"));
}

bool isOn(const QString& word)
{
    return word == QLatin1String("true") || word == QLatin1String("1");
}

// The same URL with the scheme's default port named if it names none, and
// without it if it names it: a request reaches the rules in either form.
QByteArray otherPortForm(const QByteArray& url)
{
    const int hostStart = url.indexOf("://");
    if (hostStart < 0)
        return QByteArray();
    const QByteArray port = url.startsWith("https:") ? ":443" : ":80";
    int hostEnd = url.indexOf('/', hostStart + 3);
    if (hostEnd < 0)
        hostEnd = url.size();
    const QByteArray host = url.mid(hostStart + 3, hostEnd - hostStart - 3);
    if (host.endsWith(port))
        return url.left(hostEnd - port.size()) + url.mid(hostEnd);
    if (host.contains(':'))
        return QByteArray();
    return url.left(hostEnd) + port + url.mid(hostEnd);
}

} // namespace

QString RulesFileReader::attribute(QLatin1String name) const
{
    return attributes().value(name).toString();
}

bool RulesFileReader::nextStartWithin(QLatin1String element)
{
    while (!atEnd()) {
        readNext();
        if (isEndElement() && name() == element)
            return false;
        if (isStartElement())
            return true;
    }
    return false;
}

void RulesFileReader::parse()
{
    try {
        while (!atEnd()) {
            readNext();
            if (!isStartElement())
                continue;
            if (name() == QLatin1String("cache"))
                parseCache();
            else if (name() == QLatin1String("dont_cache"))
                parseDontCache();
        }
    } catch (const VException& e) {
        throw VException(QStringLiteral("Error while parsing cache configuration XML: %1")
                             .arg(QString::fromLatin1(e.what())));
    }
    if (hasError())
        throw VException(QStringLiteral("Syntax error while parsing cache configuration XML: %1")
                             .arg(errorString()));
}

void RulesFileReader::parseDontCache()
{
    while (nextStartWithin(QLatin1String("dont_cache"))) {
        if (name() != QLatin1String("url"))
            continue;
        const QByteArray url = attribute(QLatin1String("path")).toLocal8Bit();
        blacklist.insert(url);
        const QByteArray other = otherPortForm(url);
        if (!other.isEmpty())
            blacklist.insert(other);
    }
}

void RulesFileReader::parseCache()
{
    while (nextStartWithin(QLatin1String("cache"))) {
        if (name() == QLatin1String("url"))
            parseUrl();
        else if (name() == QLatin1String("response_rule"))
            parseResponseRule();
    }
}

void RulesFileReader::parseLearning(CacheRuleData& data)
{
    data.learn = !isOff(attribute(QLatin1String("learn")));
    QString bad;
    if (!data.learnIgnored.parse(attribute(QLatin1String("learn_ignore")), &bad))
        throw VException(QStringLiteral("Invalid learn_ignore entry: %1").arg(bad));
    for (const QString& key : attribute(QLatin1String("learn_keys")).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const int dot = key.lastIndexOf(QLatin1Char('.'));
        if (dot <= 0 || dot == key.size() - 1)
            throw VException(QStringLiteral("Invalid learn_keys entry: %1").arg(key));
        // The first rule to name a table's key decides it for all.
        const QByteArray table = key.left(dot).toUtf8().toLower();
        if (!learnKeyTable.contains(table))
            learnKeyTable.insert(table, key.mid(dot + 1).toUtf8().toLower());
    }
    bool known = false;
    for (const LearnIgnoreList& list : learnListTable)
        known = known || list.mark() == data.learnIgnored.mark();
    if (data.learn && !known)
        learnListTable.append(data.learnIgnored);
}

// The rule's settings from the <url> element's attributes; the URL is the caller's.
CacheRule RulesFileReader::ruleFromAttributes()
{
    CacheRule rule;
    rule.d->initialised = true;
    bool ok = false;
    const uint lifetime = attribute(QLatin1String("lifetime")).toUInt(&ok);
    rule.d->lifetime = ok ? lifetime : 0;
    const uint grace = attribute(QLatin1String("grace")).toUInt(&ok);
    rule.d->grace = ok ? grace : 0;
    const uint redirectLifetime = attribute(QLatin1String("redirect_lifetime")).toUInt(&ok);
    rule.d->redirectLifetime = ok ? redirectLifetime : 0;
    const uint id = attribute(QLatin1String("id")).toUInt(&ok);
    // Widened with its sign: ids from 2^31 up read as negative.
    rule.id = ok ? qint64(qint32(id)) : 0;
    rule.d->compress = !isOff(attribute(QLatin1String("compress")));
    rule.d->enable = !isOff(attribute(QLatin1String("enable")));
    rule.d->publish = isOn(attribute(QLatin1String("publish")));
    rule.d->tagsHeader = attribute(QLatin1String("tags_header")).trimmed().toLatin1();
    rule.d->storeCredentials = isOn(attribute(QLatin1String("store_credentials")));
    rule.d->storeAnyCookie = isOn(attribute(QLatin1String("store_any_cookie")));
    for (const QString& cookie : attribute(QLatin1String("ignore_cookies")).split(QLatin1Char(' '), Qt::SkipEmptyParts))
        rule.d->ignoredCookies.append(cookie.toUtf8());
    parseLearning(*rule.d);
    const QString appId = attribute(QLatin1String("app_id"));
    rule.d->appId = appId.isEmpty() ? -1 : appId.toInt();
    const QString priority = attribute(QLatin1String("priority"));
    if (!priority.isEmpty())
        rule.priority = priority.toInt();
    return rule;
}

void RulesFileReader::addPattern(const QByteArray& key, bool insensitive)
{
    QRegExp regex;
    regex.setPattern(QString::fromLatin1(key.constData()));
    if (!regex.isValid())
        throw VException(QStringLiteral("Invalid regular expression: %1").arg(QString::fromLocal8Bit(key)));
    regex.setCaseSensitivity(insensitive ? Qt::CaseInsensitive : Qt::CaseSensitive);
    if (insensitive)
        VLOG(PageCacheLogStream, 4) << "Adding case insensitive regex -" << key;
    else
        VLOG(PageCacheLogStream, 4) << "Adding case sensitive regex -" << key;
    regex.setMinimal(true);
    patternList.append(regex);
    ruleTable[key].regex = regex;
}

// Children address the rule through its key. Under "https?" with "exact"
// no rule stands there, and conditions make a default one of their own.
void RulesFileReader::parseUrlChildren(const QByteArray& key)
{
    while (nextStartWithin(QLatin1String("url"))) {
        if (name() == QLatin1String("conditions_OR_block")) {
            while (nextStartWithin(QLatin1String("conditions_OR_block"))) {
                if (name() != QLatin1String("conditions_AND_block"))
                    continue;
                ruleTable[key].d->conditionBlocks.append(ConditionsBlock());
                while (nextStartWithin(QLatin1String("conditions_AND_block"))) {
                    if (name() == QLatin1String("condition"))
                        parseCondition(key, false);
                }
            }
        } else if (name() == QLatin1String("split_by")) {
            while (nextStartWithin(QLatin1String("split_by"))) {
                if (name() == QLatin1String("split_condition"))
                    parseCondition(key, true);
            }
        } else if (name() == QLatin1String("name")) {
            const QString text = readElementText();
            auto it = ruleTable.find(key);
            if (it != ruleTable.end())
                it->name = text;
        }
    }
}

void RulesFileReader::parseUrl()
{
    const QString schema = attribute(QLatin1String("schema"));
    QString host = attribute(QLatin1String("host"));
    QString path = attribute(QLatin1String("path"));
    rewriteGroups(host);
    // A doubly escaped "<default-server>" is unfolded in the host alone.
    host.replace(QLatin1String("&lt;"), QLatin1String("<"));
    host.replace(QLatin1String("&gt;"), QLatin1String(">"));
    rewriteGroups(path);

    // In UTF-8 whatever the locale: removal by pattern must find the
    // namespace that a script names in UTF-8.
    VUrl url;
    url.setSchema(schema.toUtf8());
    url.setHost(host.toUtf8());
    url.setPath(path.toUtf8());
    const QByteArray key = url.toString();
    if (ruleTable.contains(key))
        throw VException(QStringLiteral("Rule already exists for URL: %1").arg(QString::fromUtf8(key)));

    CacheRule rule = ruleFromAttributes();
    rule.url = url;

    const QString matchType = attribute(QLatin1String("match_type"));
    if (schema == QLatin1String("https?") && matchType == QLatin1String("exact")) {
        // Stands under both schemes instead; the "https?" key itself stays out.
        ruleTable.insert("http" + key.mid(6), rule);
        ruleTable.insert("https" + key.mid(6), rule);
    } else {
        ruleTable.insert(key, rule);
    }

    const bool insensitive = matchType == QLatin1String("regex_match_i");
    if (insensitive || matchType == QLatin1String("regex_match"))
        addPattern(key, insensitive);
    parseUrlChildren(key);
    // Read through constData(): a write would part the copies that share
    // their data (the two of a rule under "https?" with "exact").
    for (const QByteArray& each : {key, "http" + key.mid(6), "https" + key.mid(6)}) {
        auto it = ruleTable.find(each);
        if (it != ruleTable.end() && it->d.constData()->publish)
            checkPublish(*it);
    }
}

void RulesFileReader::checkPublish(CacheRule& rule)
{
    const QString why = publishRefusal(rule);
    if (why.isEmpty())
        return;
    VLOG(PageCacheLogStream, 1) << "Rule" << rule.name << "(" << rule.url.toString()
                                << ") is not published, the web server can't decide its pages:" << why;
    rule.d->publish = false;
}

void RulesFileReader::parseCondition(const QByteArray& key, bool split)
{
    const QSharedPointer<VPHPGlobal> owned(parseGlobal(attribute(QLatin1String("global"))));
    VPHPGlobal* global = owned.data();
    const QString value = attribute(QLatin1String("value"));
    const QString word = split ? QStringLiteral("exists") : attribute(QLatin1String("type"));
    VCondition* condition = ConditionFactory::instance()->create(word, global, value);
    if (!condition)
        throw VException(QStringLiteral("Failed to create condition"));

    CacheRuleData* data = ruleTable[key].d.data();
    data->globals.append(owned);
    const bool session = global->type() == PHP_SESSION;
    ConditionsBlock* block = &data->splitBlock;
    if (!split) {
        if (data->conditionBlocks.isEmpty())
            data->conditionBlocks.append(ConditionsBlock());
        block = &data->conditionBlocks.last();
    }
    if (session)
        block->hasSessionCondition = true;
    noteCookiesRead(*data, *global, split);
    block->conditions.append(QSharedPointer<VCondition>(condition));
    if (session) {
        if (split)
            data->splitNeedsSession = true;
        else
            data->conditionsNeedSession = true;
    }
}

void RulesFileReader::noteCookiesRead(CacheRuleData& data, const VPHPGlobal& global, bool split)
{
    const auto* element = dynamic_cast<const VPHPGlobalElement*>(&global);
    if (global.type() == PHP_COOKIE && element)
        data.readCookies.insert(element->key().keys.first());
    // A split by every cookie keeps each set of them apart; a condition on
    // them all names none that the page may depend on.
    const bool wholeList = (global.type() == PHP_COOKIE && !element)
                           || (global.type() == PHP_SERVER && element
                               && element->key().keys == QList<QByteArray>{"HTTP_COOKIE"});
    if (split && wholeList)
        data.readsAllCookies = true;
}

void RulesFileReader::parseResponseRule()
{
    const int appId = attribute(QLatin1String("app_id")).toInt();
    ResponseRule rule;
    rule.setResponseCodes(attribute(QLatin1String("response_codes")));
    while (nextStartWithin(QLatin1String("response_rule"))) {
        if (name() != QLatin1String("response_headers"))
            continue;
        while (nextStartWithin(QLatin1String("response_headers"))) {
            if (name() != QLatin1String("header"))
                continue;
            rule.headerChecks.append(ResponseHeaderCheck::create(attribute(QLatin1String("name")),
                                                                 attribute(QLatin1String("match_type")),
                                                                 attribute(QLatin1String("value"))));
        }
    }
    responseRuleTable.insert(appId, rule);
}
