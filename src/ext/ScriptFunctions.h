#pragma once
// The PHP functions the extension gives scripts: two steer the running
// request, five remove stored pages (and hand the removal on to the other
// nodes of a cluster), one adds a purge rule. Each answers the PHP boolean.

struct VeskCall;

typedef bool (*ScriptFunction)(VeskCall* call);

bool pageCacheDisableCaching(VeskCall* call);
bool pageCacheDisableCompression(VeskCall* call);
bool pageCacheRemoveCachedContents(VeskCall* call);
bool pageCacheRemoveCachedContentsByUri(VeskCall* call);
bool pageCacheRemoveCachedContentsByRule(VeskCall* call);
bool pageCacheRemoveCachedContentsByRulesIds(VeskCall* call);
bool pageCacheRemoveAllCachedContents(VeskCall* call);
bool pageCachePurge(VeskCall* call);
// Tags on the page being built, and the removal of the pages of tags.
bool pageCacheAddTags(VeskCall* call);
bool pageCacheRemoveByTags(VeskCall* call);

// Runs one of them for the engine: nothing is let through, and a failure
// that escapes the function is logged and answers false.
bool runScriptFunction(ScriptFunction function, VeskCall* call);
