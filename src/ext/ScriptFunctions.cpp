#include "ScriptFunctions.h"

#include "GlobalDirectives.h"
#include "ModuleState.h"
#include "PageTags.h"
#include "RequestPath.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "PageCachePurgeRules.h"
#include "TKDTaskInserter.h"
#include "VCacheRemoval.h"
#include "VException.h"
#include "VHTMLCache.h"

#include <cstdlib>
#include <vector>

namespace {

typedef std::vector<VeskValue> Arguments;

void warn(const char* message)
{
    vesk_error(VESK_E_WARNING, "%s", message);
}

// The arguments as `format` reads them, or the warning that names the function.
bool argumentsOf(VeskCall* call, const char* format, Arguments& args, const char* function)
{
    if (vesk_parse_parameters(call, format, &args))
        return true;
    vesk_error(VESK_E_WARNING, "Wrong parameters for function %s\n", function);
    return false;
}

// A module that refused to start does nothing but say so.
bool moduleOn(const char* function)
{
    if (moduleState.enabled)
        return true;
    vesk_error(VESK_E_WARNING, "Vesk Page Cache is disabled. %s() is disabled.\n", function);
    return false;
}

bool noArguments(VeskCall* call)
{
    if (vesk_num_args(call) == 0)
        return true;
    vesk_wrong_param_count(call);
    return false;
}

QByteArray bytes(const VeskValue& value)
{
    return QByteArray(value.text.data(), int(value.text.size()));
}

// The optional last argument: hand the removal on to the other nodes.
bool clusterFlag(const Arguments& args, size_t position)
{
    return args.size() <= position || args[position].type == VeskValue::True;
}

// Only a node of a cluster queues; the local removal has been done and
// stands whatever happens to the task.
void queueTask(bool cluster, const VCacheRemoval& removal)
{
    if (!cluster || nodeId() == 0)
        return;
    try {
        TKDTaskInserter::addTask(removal.taskType(), true, moduleState.serverInfo, removal.payload(),
                                 moduleState.logStream);
    } catch (const VException& e) {
        VLOG(moduleState.logStream, 0) << removal.queueFailure() << e.what();
    }
}

// Removes here, then asks the other nodes for the same.
bool removeAndQueue(const VCacheRemoval& removal, bool cluster)
{
    if (!removal.carryOut(*VHTMLCache::instance()))
        return false;
    queueTask(cluster, removal);
    return true;
}

bool hasKey(const VeskValue& array, const char* key)
{
    for (const VeskArrayElement& element : array.elements) {
        if (element.hasStringKey && element.key == key)
            return true;
    }
    return false;
}

bool isHeaderDescription(const VeskValue& value)
{
    return value.type == VeskValue::Array && hasKey(value, "name") && hasKey(value, "op")
           && hasKey(value, "value");
}

// A fault in a description gives an empty header, which is kept all the same.
PurgeResponseHeader parseResponseHeader(const VeskValue& description)
{
    const VDebug::StreamId log = moduleState.logStream;
    PurgeResponseHeader header;
    for (const VeskArrayElement& element : description.elements) {
        QString* field = nullptr;
        if (element.hasStringKey) {
            if (element.key == "name")
                field = &header.name;
            else if (element.key == "op")
                field = &header.op;
            else if (element.key == "value")
                field = &header.value;
        }
        if (!field) {
            VLOG(log, 0) << "Invalid element key in page_cache_purge";
            return PurgeResponseHeader();
        }
        if (element.value.type != VeskValue::String) {
            VLOG(log, 0) << QByteArray("Invalid element value for '" + QByteArray::fromStdString(element.key)
                                       + "' in page_cache_purge");
            return PurgeResponseHeader();
        }
        *field = QString::fromUtf8(bytes(element.value));
    }
    return header;
}

void addResponseHeaders(const VeskValue& value, PurgeRule& rule)
{
    if (isHeaderDescription(value)) {
        rule.responseHeaders << parseResponseHeader(value);
        return;
    }
    for (const VeskArrayElement& element : value.elements) {
        if (isHeaderDescription(element.value))
            rule.responseHeaders << parseResponseHeader(element.value);
    }
}

// One element of page_cache_purge's array into `rule`; false, logged, for
// a key or a value the function doesn't take.
bool readPurgeElement(const VeskArrayElement& element, PurgeRule& rule)
{
    const VDebug::StreamId log = moduleState.logStream;
    if (!element.hasStringKey) {
        VLOG(log, 0) << "Invalid element key in page_cache_purge";
        return false;
    }
    const std::string& key = element.key;
    const VeskValue& value = element.value;
    if (key == "application") {
        if (value.type != VeskValue::String) {
            VLOG(log, 0) << "Invalid element value for 'application' in page_cache_purge";
            return false;
        }
        rule.applicationName = QString::fromUtf8(bytes(value));
    } else if (key == "created_ago") {
        if (value.type != VeskValue::Long || value.number < 0) {
            VLOG(log, 0) << "Invalid element value for 'created_ago' in page_cache_purge";
            return false;
        }
        rule.creationTime = QDateTime::currentDateTimeUtc().addSecs(-value.number);
    } else if (key == "url") {
        if (value.type != VeskValue::String) {
            VLOG(log, 0) << "Invalid element value for 'url' in page_cache_purge";
            return false;
        }
        rule.url = QUrl(QString::fromUtf8(bytes(value)), QUrl::TolerantMode);
    } else if (key == "response_header" || key == "response_headers") {
        if (value.type != VeskValue::Array) {
            VLOG(log, 0) << "Invalid element value for '" << key.c_str() << "' in page_cache_purge";
            return false;
        }
        addResponseHeaders(value, rule);
    } else {
        VLOG(log, 0) << "Invalid element key '" << key.c_str() << "' in page_cache_purge";
        return false;
    }
    return true;
}

// The rule refuses pages in this worker only; on a farm's queue each
// node's agent, this node's too, removes the pages it covers from its
// store, so that every worker of every node sees the purge.
void queuePurge(const PurgeRule& rule)
{
    if (TKDTaskInserter::clusterQueue().isEmpty())
        return;
    const VCacheRemoval removal = VCacheRemoval::purge(rule.url.toString(), rule.creationTime, rule.applicationName);
    try {
        TKDTaskInserter::addTask(removal.taskType(), false, moduleState.serverInfo, removal.payload(),
                                 moduleState.logStream);
    } catch (const VException& e) {
        VLOG(moduleState.logStream, 0) << removal.queueFailure() << e.what();
    }
}

} // namespace

bool pageCacheDisableCaching(VeskCall* call)
{
    if (!noArguments(call))
        return false;
    if (!moduleOn("page_cache_disable_caching"))
        return false;
    disableCaching();
    return true;
}

bool pageCacheDisableCompression(VeskCall* call)
{
    if (!noArguments(call))
        return false;
    if (!moduleOn("page_cache_disable_compression"))
        return false;
    VLOG(moduleState.logStream, 5) << "Disabling compression for current script";
    // Counts for the store at request end and for a hit later in the request.
    requestState.compressionAllowed = false;
    return true;
}

bool pageCacheRemoveCachedContents(VeskCall* call)
{
    Arguments args;
    if (!argumentsOf(call, "s|b", args, "page_cache_remove_cached_contents"))
        return false;
    if (!moduleOn("page_cache_remove_cached_contents"))
        return false;
    return removeAndQueue(VCacheRemoval::byPattern(bytes(args[0])), clusterFlag(args, 1));
}

bool pageCacheRemoveCachedContentsByUri(VeskCall* call)
{
    Arguments args;
    if (!argumentsOf(call, "ss|b", args, "page_cache_remove_cached_contents_by_uri"))
        return false;
    if (!moduleOn("page_cache_remove_cached_contents_by_uri"))
        return false;
    return removeAndQueue(VCacheRemoval::byUri(bytes(args[0]), bytes(args[1])), clusterFlag(args, 2));
}

// Works on a refused module too: the rules may still name what is stored.
bool pageCacheRemoveCachedContentsByRule(VeskCall* call)
{
    Arguments args;
    if (!argumentsOf(call, "s|b", args, "page_cache_remove_cached_contents_by_rule"))
        return false;
    return removeAndQueue(VCacheRemoval::byRule(bytes(args[0])), clusterFlag(args, 1));
}

bool pageCacheRemoveCachedContentsByRulesIds(VeskCall* call)
{
    Arguments args;
    if (!argumentsOf(call, "a|b", args, "page_cache_remove_cached_contents_by_rules_ids"))
        return false;
    // The ids up to the first bad element; those before it are removed all
    // the same, and no task is queued for them.
    QList<qint64> ids;
    bool allGood = true;
    for (const VeskArrayElement& element : args[0].elements) {
        qint64 id = 0;
        if (element.value.type == VeskValue::Long) {
            id = element.value.number;
        } else if (element.value.type == VeskValue::String) {
            id = std::strtoll(element.value.text.c_str(), nullptr, 10);
        } else {
            warn("Unkonwn parameter format in page_cache_remove_cached_contents_by_rules_ids\n");
            allGood = false;
            break;
        }
        if (id == 0) {
            allGood = false;
            break;
        }
        ids << id;
    }
    const VCacheRemoval removal = VCacheRemoval::byRuleIds(ids);
    if (!allGood) {
        removal.carryOut(*VHTMLCache::instance());
        return false;
    }
    return removeAndQueue(removal, clusterFlag(args, 1));
}

bool pageCacheRemoveAllCachedContents(VeskCall* call)
{
    if (vesk_num_args(call) > 1) {
        vesk_wrong_param_count(call);
        return false;
    }
    Arguments args;
    if (!vesk_parse_parameters(call, "|b", &args)) {
        VLOG(moduleState.logStream, 1) << "Wrong parameters passed to page_cache_remove_all_cached_contents() function";
        return false;
    }
    if (!moduleOn("page_cache_remove_all_cached_contents"))
        return false;
    return removeAndQueue(VCacheRemoval::all(), clusterFlag(args, 0));
}

bool pageCachePurge(VeskCall* call)
{
    if (!moduleState.purgeRules)
        return false;
    Arguments args;
    if (!argumentsOf(call, "a", args, "page_cache_purge"))
        return false;
    PurgeRule rule;
    // Pages stored from now on are the ones the purge makes room for.
    rule.ruleCreationTime = QDateTime::currentDateTimeUtc();
    for (const VeskArrayElement& element : args[0].elements) {
        if (!readPurgeElement(element, rule))
            return false;
    }
    moduleState.purgeRules->addRule(rule);
    queuePurge(rule);
    // The web server can't ask the purge rules: published files all go,
    // and pages the rule spares are published again as they are stored.
    VHTMLCache::unpublishAll();
    return true;
}

namespace {

// The words of a string, or of each string of an array; false for any
// other value.
bool tagWords(const VeskValue& value, QStringList& tags)
{
    if (value.type == VeskValue::String) {
        tags << QString::fromUtf8(bytes(value));
        return true;
    }
    if (value.type != VeskValue::Array)
        return false;
    for (const VeskArrayElement& element : value.elements) {
        if (element.value.type != VeskValue::String)
            return false;
        tags << QString::fromUtf8(bytes(element.value));
    }
    return true;
}

} // namespace

// True when the tags went to a page being built; false outside a captured
// miss, where there is no page to tag.
bool pageCacheAddTags(VeskCall* call)
{
    Arguments args;
    QStringList tags;
    if (!argumentsOf(call, "z", args, "page_cache_add_tags"))
        return false;
    if (!tagWords(args[0], tags)) {
        warn("page_cache_add_tags() takes a string or an array of strings\n");
        return false;
    }
    if (!moduleState.enabled || !requestState.ruleActive || !requestState.buffering)
        return false;
    addPageTags(tags);
    return requestState.tagsRefusal.isNull();
}

// Works on the command line too, where the cache is off: the pages are the
// workers'. The cluster flag is off unless given.
bool pageCacheRemoveByTags(VeskCall* call)
{
    Arguments args;
    QStringList tags;
    if (!argumentsOf(call, "a|b", args, "page_cache_remove_by_tags"))
        return false;
    if (!tagWords(args[0], tags)) {
        warn("page_cache_remove_by_tags() takes an array of strings\n");
        return false;
    }
    removePagesByTags(tags, args.size() > 1 && args[1].type == VeskValue::True);
    return true;
}

bool runScriptFunction(ScriptFunction function, VeskCall* call)
{
    try {
        return function(call);
    } catch (const VException& e) {
        VLOG(moduleState.logStream, 0) << e.what();
    } catch (...) {
    }
    return false;
}
