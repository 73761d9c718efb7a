// The engine half of the rules' superglobal evaluators: look-up, key walk,
// text and serialisation of PHP values.

#include "php.h"
// This header of the engine declares its functions without C linkage of its own.
extern "C" {
#include "ext/standard/php_var.h"
}
#include "SAPI.h"
#include "zend_smart_str.h"

#include "vesk_host.h"

#include <cstdlib>
#include <strings.h>
#include <vector>

namespace {

zval* fetchGlobal(const char* name, size_t length)
{
    if (name)
        zend_is_auto_global_str(const_cast<char*>(name), length);
    zval* value = zend_hash_str_find(&EG(symbol_table), name, length);
    if (value && Z_TYPE_P(value) == IS_REFERENCE)
        value = Z_REFVAL_P(value);
    return value;
}

// Walks from `position` along the keys. Values read from properties may live
// in `scratch`, which the caller keeps until it is done with the result; a
// walk through arrays alone (a cookie, a server variable) needs none.
zval* walk(zval* position, const VeskKey* keys, size_t count, std::vector<zval>& scratch)
{
    for (size_t i = 0; i < count && position; ++i) {
        if (Z_TYPE_P(position) == IS_ARRAY) {
            position = zend_hash_str_find(Z_ARRVAL_P(position), keys[i].data, keys[i].length);
        } else if (Z_TYPE_P(position) == IS_OBJECT) {
            zend_class_entry* ce = Z_OBJCE_P(position);
            if (strncmp(ZSTR_VAL(ce->name), "stdClass", 8) == 0) {
                // Room for every key at once: `position` may point into scratch,
                // which must not move.
                if (scratch.empty())
                    scratch.reserve(count);
                scratch.emplace_back();
                ZVAL_UNDEF(&scratch.back());
                position = zend_read_property(ce, Z_OBJ_P(position), keys[i].data, keys[i].length, 1,
                                              &scratch.back());
            }
            // An object of another class keeps its place: the keys are used up on it.
        } else {
            position = nullptr;
        }
    }
    return position;
}

void release(std::vector<zval>& scratch)
{
    for (zval& value : scratch)
        zval_ptr_dtor(&value);
}

void serialize(zval* value, std::string* text)
{
    php_serialize_data_t data;
    smart_str buffer = {nullptr, 0};
    PHP_VAR_SERIALIZE_INIT(data);
    php_var_serialize(&buffer, value, &data);
    PHP_VAR_SERIALIZE_DESTROY(data);
    if (buffer.s)
        text->assign(ZSTR_VAL(buffer.s), ZSTR_LEN(buffer.s));
    smart_str_free(&buffer);
}

void textOf(zval* value, std::string* text)
{
    switch (Z_TYPE_P(value)) {
    case IS_FALSE:
        *text = "false";
        break;
    case IS_TRUE:
        *text = "true";
        break;
    case IS_LONG:
        *text = std::to_string(Z_LVAL_P(value));
        break;
    case IS_DOUBLE: {
        // Formatted as the engine prints doubles, with its precision directive.
        smart_str buffer = {nullptr, 0};
        smart_str_append_double(&buffer, Z_DVAL_P(value), int(EG(precision)), false);
        text->assign(ZSTR_VAL(buffer.s), ZSTR_LEN(buffer.s));
        smart_str_free(&buffer);
        break;
    }
    case IS_STRING:
        text->assign(Z_STRVAL_P(value), Z_STRLEN_P(value));
        break;
    default:
        serialize(value, text);
        break;
    }
}

// $_SERVER is made on its first use from the whole FastCGI table and the
// process environment, which costs a hit more than all the rest of its
// work. Until something has made it, one plain variable of it can only get
// the value the table would give it: FastCGI's own, else the environment's
// (the worker's getenv() reads FastCGI's alone). That holds where nothing
// changes values on their way in: a FastCGI server API, "S" in
// variables_order, no input filter at work, and a name that PHP neither
// sets itself nor rewrites. True when the answer is given here, with the
// value or null for a variable that isn't there.
bool serverVariableBeforeTable(const char* name, size_t nameLength, const VeskKey* keys, size_t keyCount,
                               const char** value)
{
    if (keyCount != 1 || nameLength != 7 || memcmp(name, "_SERVER", 7) != 0 || !sapi_module.getenv
        || !sapi_module.name
        || (strcmp(sapi_module.name, "fpm-fcgi") != 0 && strcmp(sapi_module.name, "cgi-fcgi") != 0))
        return false;
    const zend_auto_global* global =
        static_cast<const zend_auto_global*>(zend_hash_str_find_ptr(CG(auto_globals), name, nameLength));
    if (!global || !global->armed || !PG(variables_order)
        || (!strchr(PG(variables_order), 'S') && !strchr(PG(variables_order), 's')))
        return false;
    if (sapi_module.input_filter != php_default_input_filter) {
        // The filter extension's own filter passes values on as they came
        // only with its raw default.
        bool exists = false;
        const char* filter = zend_ini_string_ex(const_cast<char*>("filter.default"), strlen("filter.default"), 0,
                                                &exists);
        if (!zend_hash_str_exists(&module_registry, "filter", strlen("filter")) || !filter
            || strcasecmp(filter, "unsafe_raw") != 0)
            return false;
    }
    // Letters, digits and "_", not starting with a digit: nothing for the
    // engine to rewrite, and no number it would turn into an integer key.
    const VeskKey& key = keys[0];
    if (key.length == 0 || key.length > 128 || (key.data[0] >= '0' && key.data[0] <= '9'))
        return false;
    char variable[129];
    for (size_t i = 0; i < key.length; ++i) {
        const char c = key.data[i];
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_'))
            return false;
        variable[i] = c;
    }
    variable[key.length] = '\0';
    for (const char* own : {"PHP_SELF", "PHP_AUTH_USER", "PHP_AUTH_PW", "PHP_AUTH_DIGEST", "REQUEST_TIME",
                            "REQUEST_TIME_FLOAT", "argv", "argc", "HTTP_PROXY", "GLOBALS"}) {
        if (strcmp(variable, own) == 0)
            return false;
    }
    const char* found = sapi_module.getenv(variable, key.length);
    *value = found ? found : getenv(variable);
    return true;
}

} // namespace

bool vesk_global_element_text(const char* name, size_t nameLength, const VeskKey* keys,
                              size_t keyCount, std::string* text)
{
    text->clear();
    const char* direct = nullptr;
    if (serverVariableBeforeTable(name, nameLength, keys, keyCount, &direct)) {
        if (direct)
            text->assign(direct);
        return direct != nullptr;
    }
    std::vector<zval> scratch;
    zval* value = walk(fetchGlobal(name, nameLength), keys, keyCount, scratch);
    if (value)
        textOf(value, text);
    release(scratch);
    return value != nullptr;
}

bool vesk_global_exists(const char* name, size_t nameLength)
{
    fetchGlobal(name, nameLength);
    return zend_hash_str_exists(&EG(symbol_table), name, nameLength);
}

bool vesk_global_element_exists(const char* name, size_t nameLength, const VeskKey* keys,
                                size_t keyCount)
{
    const char* direct = nullptr;
    if (serverVariableBeforeTable(name, nameLength, keys, keyCount, &direct))
        return direct != nullptr;
    if (!vesk_global_exists(name, nameLength))
        return false;
    std::vector<zval> scratch;
    const bool found = walk(fetchGlobal(name, nameLength), keys, keyCount, scratch) != nullptr;
    release(scratch);
    return found;
}

bool vesk_global_serialized(const char* name, size_t nameLength, std::string* text)
{
    text->clear();
    zval* value = fetchGlobal(name, nameLength);
    if (!value)
        return false;
    serialize(value, text);
    return true;
}

void vesk_cookie_names(std::vector<std::string>* names)
{
    names->clear();
    zval* cookies = fetchGlobal("_COOKIE", strlen("_COOKIE"));
    if (!cookies || Z_TYPE_P(cookies) != IS_ARRAY)
        return;
    zend_ulong index;
    zend_string* key;
    ZEND_HASH_FOREACH_KEY(Z_ARRVAL_P(cookies), index, key)
    {
        names->push_back(key ? std::string(ZSTR_VAL(key), ZSTR_LEN(key)) : std::to_string(index));
    }
    ZEND_HASH_FOREACH_END();
}
