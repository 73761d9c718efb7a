// The engine operations, over the engine's C API.

#include "php.h"
#include "php_ini.h"
#include "SAPI.h"
extern "C" {
#include "ext/standard/url.h"
}
#include "zend_extensions.h"
#include "zend_ini.h"
#include "zend_ini_scanner.h"

#include "vesk_host.h"

#include <cstdarg>

bool vesk_get_extension(const char* name, VeskExtensionInfo* out)
{
    const zend_extension* extension = zend_get_extension(name);
    if (!extension)
        return false;
    out->name = extension->name;
    out->author = extension->author;
    out->handle = extension->handle;
    out->resourceNumber = extension->resource_number;
    return true;
}

long vesk_ini_long(const char* name, size_t length)
{
    return zend_ini_long(const_cast<char*>(name), length, 0);
}

const char* vesk_get_configuration_directive(const char* name, size_t length)
{
    const zval* value = cfg_get_entry(name, length);
    if (!value || Z_TYPE_P(value) != IS_STRING)
        return nullptr;
    return Z_STRVAL_P(value);
}

void vesk_add_configuration_directive(const char* name, size_t nameLength, const char* value,
                                      size_t valueLength)
{
    HashTable* configuration = php_ini_get_configuration_hash();
    if (!configuration)
        return;
    zval entry;
    ZVAL_NEW_STR(&entry, zend_string_init(value, valueLength, 1));
    zend_hash_str_update(configuration, name, nameLength, &entry);
}

const char* vesk_engine_scan_dir()
{
    // The engine's constant, not the header's macro: the headers are built
    // for one SAPI, and each of Debian's binaries has a directory of its own.
    const zval* value = zend_get_constant_str("PHP_CONFIG_FILE_SCAN_DIR", strlen("PHP_CONFIG_FILE_SCAN_DIR"));
    if (!value || Z_TYPE_P(value) != IS_STRING)
        return nullptr;
    return Z_STRVAL_P(value);
}

namespace {

struct IniParse
{
    VeskIniCallback callback;
    void* arg;
};

void iniEntry(zval* key, zval* value, zval*, int callbackType, void* arg)
{
    const IniParse* parse = static_cast<const IniParse*>(arg);
    if (!key || Z_TYPE_P(key) != IS_STRING)
        return;
    if (value && Z_TYPE_P(value) == IS_STRING) {
        parse->callback(Z_STRVAL_P(key), Z_STRLEN_P(key), Z_STRVAL_P(value), Z_STRLEN_P(value),
                        callbackType, parse->arg);
    } else {
        parse->callback(Z_STRVAL_P(key), Z_STRLEN_P(key), nullptr, 0, callbackType, parse->arg);
    }
}

} // namespace

int vesk_parse_ini_file(FILE* file, const char* path, VeskIniCallback callback, void* arg)
{
    zend_file_handle handle;
    zend_stream_init_fp(&handle, file, path);
    IniParse parse = {callback, arg};
    const int result =
        zend_parse_ini_file(&handle, true, ZEND_INI_SCANNER_NORMAL, iniEntry, &parse);
    zend_destroy_file_handle(&handle);
    return result == SUCCESS ? 0 : -1;
}

VeskIniApply vesk_apply_ini_entry(const char* name, size_t nameLength, const char* value,
                                  size_t valueLength)
{
    zend_ini_entry* entry =
        static_cast<zend_ini_entry*>(zend_hash_str_find_ptr(EG(ini_directives), name, nameLength));
    if (!entry)
        return VeskIniApply::NoEntry;
    zend_string* copy = zend_string_init(value, valueLength, 1);
    if (entry->on_modify
        && entry->on_modify(entry, copy, entry->mh_arg1, entry->mh_arg2, entry->mh_arg3,
                            ZEND_INI_STAGE_STARTUP) != SUCCESS) {
        zend_string_release(copy);
        return VeskIniApply::Refused;
    }
    if (entry->value)
        zend_string_release(entry->value);
    entry->value = copy;
    return VeskIniApply::Applied;
}

void vesk_error(int type, const char* format, ...)
{
    char message[8192];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    zend_error(type, "%s", message);
}

void vesk_log_error(const char* message)
{
    php_log_err(message);
}

const char* vesk_sapi_name()
{
    return sapi_module.name;
}

namespace {
// The built-in web server has no getenv of its own: its request variables
// are only in $_SERVER.
bool serverVariablesOnly()
{
    return !sapi_module.getenv && sapi_module.name && strcmp(sapi_module.name, "cli-server") == 0;
}
} // namespace

bool vesk_sapi_has_getenv()
{
    return sapi_module.getenv != nullptr || serverVariablesOnly();
}

const char* vesk_sapi_getenv(const char* name)
{
    const size_t length = strlen(name);
    if (sapi_module.getenv)
        return sapi_module.getenv(name, length);
    if (!serverVariablesOnly())
        return nullptr;
    zend_is_auto_global_str(const_cast<char*>("_SERVER"), strlen("_SERVER"));
    zval* server = zend_hash_str_find(&EG(symbol_table), "_SERVER", strlen("_SERVER"));
    if (server && Z_TYPE_P(server) == IS_REFERENCE)
        server = Z_REFVAL_P(server);
    if (!server || Z_TYPE_P(server) != IS_ARRAY)
        return nullptr;
    zval* value = zend_hash_str_find(Z_ARRVAL_P(server), name, length);
    return value && Z_TYPE_P(value) == IS_STRING ? Z_STRVAL_P(value) : nullptr;
}

const char* vesk_request_query_string()
{
    return SG(request_info).query_string;
}

const char* vesk_request_cookie_data()
{
    return SG(request_info).cookie_data;
}

bool vesk_read_request_body(std::string* body)
{
    php_stream* stream = SG(request_info).request_body;
    if (!stream)
        return false;
    php_stream_rewind(stream);
    zend_string* contents = php_stream_copy_to_mem(stream, PHP_STREAM_COPY_ALL, 0);
    php_stream_rewind(stream);
    body->clear();
    if (contents) {
        body->assign(ZSTR_VAL(contents), ZSTR_LEN(contents));
        zend_string_release(contents);
    }
    return true;
}

size_t vesk_url_decode(char* text, size_t length)
{
    return php_url_decode(text, length);
}
