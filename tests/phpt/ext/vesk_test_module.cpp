// A PHP module for the .phpt tests only: it lets a script ask the rules'
// evaluators and conditions about its own request, which the page cache
// itself never shows.

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

PHP_FUNCTION(vesk_test_condition)
{
    char *name, *type, *value;
    size_t nameLength, typeLength, valueLength;
    ZEND_PARSE_PARAMETERS_START(3, 3)
        Z_PARAM_STRING(name, nameLength)
        Z_PARAM_STRING(type, typeLength)
        Z_PARAM_STRING(value, valueLength)
    ZEND_PARSE_PARAMETERS_END();
    guarded([&] {
        RETVAL_BOOL(probeCondition(std::string(name, nameLength), std::string(type, typeLength),
                                   std::string(value, valueLength)));
    });
}

PHP_FUNCTION(vesk_test_split_key)
{
    HashTable* names;
    ZEND_PARSE_PARAMETERS_START(1, 1)
        Z_PARAM_ARRAY_HT(names)
    ZEND_PARSE_PARAMETERS_END();
    std::vector<std::string> globals;
    zval* entry;
    ZEND_HASH_FOREACH_VAL(names, entry) {
        if (Z_TYPE_P(entry) == IS_STRING)
            globals.emplace_back(Z_STRVAL_P(entry), Z_STRLEN_P(entry));
    } ZEND_HASH_FOREACH_END();
    guarded([&] {
        const std::string key = probeSplitKey(globals);
        RETVAL_STRINGL(key.data(), key.size());
    });
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

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_condition, 0, 3, _IS_BOOL, 0)
    ZEND_ARG_TYPE_INFO(0, name, IS_STRING, 0)
    ZEND_ARG_TYPE_INFO(0, type, IS_STRING, 0)
    ZEND_ARG_TYPE_INFO(0, value, IS_STRING, 0)
ZEND_END_ARG_INFO()

ZEND_BEGIN_ARG_WITH_RETURN_TYPE_INFO_EX(arginfo_split, 0, 1, IS_STRING, 0)
    ZEND_ARG_TYPE_INFO(0, names, IS_ARRAY, 0)
ZEND_END_ARG_INFO()

static const zend_function_entry functions[] = {
    PHP_FE(vesk_test_global_value, arginfo_name)
    PHP_FE(vesk_test_global_exists, arginfo_name)
    PHP_FE(vesk_test_condition, arginfo_condition)
    PHP_FE(vesk_test_split_key, arginfo_split)
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
