// The records the engine loads: the engine extension record with its
// version info, the PHP module record and its directive table. Each entry
// point forwards to the extension's own code and lets no exception through.

#include "php.h"
#include "php_ini.h"
#include "ext/standard/info.h"
#include "zend_extensions.h"

#include "../7.0/htmlcache_ext.h"
#include "../RequestPath.h"
#include "../PageCacheConfig.h"
#include "../ScriptFunctions.h"
#include "vesk_call.h"
#include "vesk_host.h"

#include <cstdint>
#include <exception>

static_assert(VESK_E_ERROR == E_ERROR && VESK_E_WARNING == E_WARNING
                  && VESK_E_CORE_WARNING == E_CORE_WARNING,
              "error types differ from the engine's");
static_assert(VESK_INI_SYSTEM == PHP_INI_SYSTEM && VESK_INI_ALL == PHP_INI_ALL,
              "directive scopes differ from the engine's");
static_assert(VESK_INI_PARSER_ENTRY == ZEND_INI_PARSER_ENTRY, "ini callback type differs");
static_assert(sizeof(zend_long) == sizeof(int64_t) && sizeof(zend_bool) == sizeof(bool),
              "directive fields don't match the engine's handlers");

namespace {

int moduleNumber = 0;

// Nothing may unwind into the engine. What is caught is logged, and a
// start-up it broke off leaves the cache off for the process.
template <typename F>
zend_result guarded(F f, const char* where, bool startup = false)
{
    try {
        f();
    } catch (const std::exception& e) {
        failureEscaped(where, e.what(), startup);
    } catch (...) {
        failureEscaped(where, "unknown exception", startup);
    }
    return SUCCESS;
}

zend_result module_startup(INIT_FUNC_ARGS)
{
    moduleNumber = module_number;
    return guarded(moduleStartup, "Module start-up", true);
}

zend_result module_shutdown(SHUTDOWN_FUNC_ARGS)
{
    return guarded(moduleShutdown, "Module shutdown");
}

zend_result request_startup(INIT_FUNC_ARGS)
{
    return guarded(requestStartup, "Request start");
}

zend_result request_shutdown(SHUTDOWN_FUNC_ARGS)
{
    return guarded(requestShutdown, "Request end");
}

void module_info(ZEND_MODULE_INFO_FUNC_ARGS)
{
    guarded(moduleInfo, "Module information");
}

const zend_ini_entry_def iniEntries[] = {
    STD_PHP_INI_ENTRY("vesk_pagecache.enable", "1", PHP_INI_SYSTEM, OnUpdateBool, enable, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.pulse.enable", "1", PHP_INI_SYSTEM, OnUpdateBool, pulse_enable, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.save_path", "pagecache", PHP_INI_SYSTEM, OnUpdateString, save_path, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.dir_depth", "2", PHP_INI_SYSTEM, OnUpdateLong, dir_depth, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.log_verbosity_level", "2", PHP_INI_SYSTEM, OnUpdateLong, log_verbosity_level, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.dependencies_file", "pagecache_rules.xml", PHP_INI_SYSTEM, OnUpdateString, dependencies_file, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.compression_enable", "1", PHP_INI_SYSTEM, OnUpdateBool, compression_enable, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.clean_frequency", "300", PHP_INI_SYSTEM, OnUpdateLong, clean_frequency, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.log_rotation_size", "10", PHP_INI_ALL, OnUpdateLong, log_rotation_size, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.max_cached_rules", "100", PHP_INI_ALL, OnUpdateLong, max_cached_rules, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.enable_qa_info", "0", PHP_INI_ALL, OnUpdateBool, enable_qa_info, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.ordered_rule_matching", "1", PHP_INI_ALL, OnUpdateBool, ordered_rule_matching, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.enable_cli", "0", PHP_INI_ALL, OnUpdateBool, enable_cli, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.max_store_size", "0", PHP_INI_SYSTEM, OnUpdateLong, max_store_size, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.lock_timeout", "2000", PHP_INI_SYSTEM, OnUpdateLong, lock_timeout, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.publish_dir", "", PHP_INI_SYSTEM, OnUpdateString, publish_dir, PageCacheConfig, pageCacheConfig)
    STD_PHP_INI_ENTRY("vesk_pagecache.learn_cli", "0", PHP_INI_SYSTEM, OnUpdateBool, learn_cli, PageCacheConfig, pageCacheConfig)
    PHP_INI_END()

template <ScriptFunction function>
void scriptFunction(INTERNAL_FUNCTION_PARAMETERS)
{
    VeskCall call{execute_data};
    RETVAL_BOOL(runScriptFunction(function, &call));
}

// Every function checks its own arguments. This engine insists on argument
// information all the same, so each declares any number of any type and
// leaves the checking to the function.
ZEND_BEGIN_ARG_INFO_EX(anyArguments, 0, 0, 0)
    ZEND_ARG_VARIADIC_INFO(0, arguments)
ZEND_END_ARG_INFO()

#define VESK_FE(name, function) ZEND_RAW_FENTRY(name, scriptFunction<function>, anyArguments, 0)
const zend_function_entry scriptFunctions[] = {
    VESK_FE("page_cache_disable_caching", pageCacheDisableCaching)
    VESK_FE("page_cache_disable_compression", pageCacheDisableCompression)
    VESK_FE("page_cache_remove_cached_contents", pageCacheRemoveCachedContents)
    VESK_FE("page_cache_remove_cached_contents_by_uri", pageCacheRemoveCachedContentsByUri)
    VESK_FE("page_cache_remove_cached_contents_by_rule", pageCacheRemoveCachedContentsByRule)
    VESK_FE("page_cache_remove_cached_contents_by_rules_ids", pageCacheRemoveCachedContentsByRulesIds)
    VESK_FE("page_cache_remove_all_cached_contents", pageCacheRemoveAllCachedContents)
    VESK_FE("page_cache_purge", pageCachePurge)
    VESK_FE("page_cache_add_tags", pageCacheAddTags)
    VESK_FE("page_cache_remove_by_tags", pageCacheRemoveByTags)
    PHP_FE_END
};
#undef VESK_FE

zend_module_entry vesk_module_entry = {
    sizeof(zend_module_entry),
    ZEND_MODULE_API_NO,
    ZEND_DEBUG,
    USING_ZTS,
    nullptr, // directives are registered by start-up itself
    nullptr,
    "Vesk Page Cache",
    scriptFunctions,
    module_startup,
    module_shutdown,
    request_startup,
    request_shutdown,
    module_info,
    nullptr,
    STANDARD_MODULE_PROPERTIES,
};

int extension_startup(zend_extension*)
{
    return guarded(extensionStartup, "Extension start-up");
}

// The extension trusts the build id alone, whatever API number it meets.
int accept_any_api(int)
{
    return SUCCESS;
}

// Read by the extension manager only.
struct ExtensionMarker
{
    uint64_t magic;
    const char* name;
    int number;
    void* word;
};
void* markerWord = nullptr;
ExtensionMarker extensionMarker = {0x77454BD5, "Vesk Page Cache", 1, &markerWord};

} // namespace

extern "C" {

ZEND_DLEXPORT zend_extension_version_info extension_version_info = {
    ZEND_EXTENSION_API_NO, ZEND_EXTENSION_BUILD_ID};

ZEND_DLEXPORT zend_extension zend_extension_entry = {
    "Vesk Page Cache",
    "2021.4.6",
    "Vesk Technologies",
    "https://vesk.example/page-cache",
    "Copyright (c) Vesk Technologies",
    extension_startup,
    nullptr, // shutdown
    nullptr, // activate
    nullptr, // deactivate
    nullptr, // message_handler
    nullptr, // op_array_handler
    nullptr, // statement_handler
    nullptr, // fcall_begin_handler
    nullptr, // fcall_end_handler
    nullptr, // op_array_ctor
    nullptr, // op_array_dtor
    accept_any_api,
    nullptr, // build_id_check
    nullptr, // op_array_persist_calc
    nullptr, // op_array_persist
    nullptr, // reserved5
    nullptr, // reserved6
    nullptr, // reserved7
    &extensionMarker,
    nullptr, // handle, set by the loader
    -1,
};

// The product's own name for the record, beside the one the engine looks up.
extern zend_extension vesk_extension_entry
    __attribute__((alias("zend_extension_entry"), visibility("default")));
}

int vesk_startup_module()
{
    return zend_startup_module(&vesk_module_entry) == SUCCESS ? 0 : -1;
}

int vesk_register_ini_entries()
{
    return zend_register_ini_entries(iniEntries, moduleNumber) == SUCCESS ? 0 : -1;
}

void vesk_unregister_ini_entries()
{
    zend_unregister_ini_entries(moduleNumber);
}

void vesk_info_table_start()
{
    php_info_print_table_start();
}

void vesk_info_table_row(const char* name, const char* value)
{
    php_info_print_table_row(2, name, value);
}

void vesk_info_table_end()
{
    php_info_print_table_end();
}
