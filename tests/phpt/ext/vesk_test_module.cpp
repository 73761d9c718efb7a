// A PHP module for the .phpt tests only: it lets a script ask the rules'
// evaluators about its own request, which the page cache itself never shows.

#include "php.h"
#include "zend_exceptions.h"

#include "RulesProbe.h"
#include "StatisticsRecords.h"

#include <stdexcept>

namespace {

template <typename F>
void guarded(F f)
{
    try {
        f();
    } catch (const std::exception& e) {
        zend_throw_exception(zend_ce_exception, e.what(), 0);
    }
}

} // namespace

PHP_FUNCTION(vesk_test_global_value)
{
    char* name;
    size_t length;
    ZEND_PARSE_PARAMETERS_START(1, 1)
        Z_PARAM_STRING(name, length)
    ZEND_PARSE_PARAMETERS_END();
    guarded([&] {
        const std::string value = probeValue(std::string(name, length));
        RETVAL_STRINGL(value.data(), value.size());
    });
}

PHP_FUNCTION(vesk_test_global_exists)
{
    char* name;
    size_t length;
    ZEND_PARSE_PARAMETERS_START(1, 1)
        Z_PARAM_STRING(name, length)
    ZEND_PARSE_PARAMETERS_END();
    guarded([&] { RETVAL_BOOL(probeExists(std::string(name, length))); });
}

// Reports one statistics record the way request end does.
PHP_FUNCTION(vesk_test_report_record)
{
    zend_long type, appId;
    ZEND_PARSE_PARAMETERS_START(2, 2)
        Z_PARAM_LONG(type)
        Z_PARAM_LONG(appId)
    ZEND_PARSE_PARAMETERS_END();
    PageCacheStatRecord record;
    record.recordType = int(type);
    record.appId = appId;
    guarded([&] { reportStatisticsRecord(record); });
}

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_record, 0, 2, IS_VOID, 0)
    ZEND_ARG_TYPE_INFO(0, type, IS_LONG, 0)
    ZEND_ARG_TYPE_INFO(0, app_id, IS_LONG, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_name, 0, 1, IS_MIXED, 0)
    ZEND_ARG_TYPE_INFO(0, name, IS_STRING, 0)
ZEND_END_ARG_INFO()

static const zend_function_entry functions[] = {
    PHP_FE(vesk_test_global_value, arginfo_name)
    PHP_FE(vesk_test_global_exists, arginfo_name)
    PHP_FE(vesk_test_report_record, arginfo_record)
    PHP_FE_END
};

static PHP_MINIT_FUNCTION(vesk_pagecache_test)
{
    rulesProbeStartup();
    return SUCCESS;
}

static zend_module_entry vesk_pagecache_test_module_entry = {
    STANDARD_MODULE_HEADER,
    "vesk_pagecache_test",
    functions,
    PHP_MINIT(vesk_pagecache_test),
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    "1",
    STANDARD_MODULE_PROPERTIES,
};

extern "C" ZEND_DLEXPORT zend_module_entry* get_module()
{
    return &vesk_pagecache_test_module_entry;
}
