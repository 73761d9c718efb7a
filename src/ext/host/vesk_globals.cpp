// The engine half of the rules' superglobal evaluators: look-up, key walk,
// text and serialisation of PHP values.

#include "php.h"
// This header of the engine declares its functions without C linkage of its own.
extern "C" {
#include "ext/standard/php_var.h"
}
#include "zend_smart_str.h"

#include "vesk_host.h"

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
// in `scratch`, which the caller keeps until it is done with the result.
zval* walk(zval* position, const VeskKey* keys, size_t count, std::vector<zval>& scratch)
{
    scratch.resize(count);
    for (size_t i = 0; i < count && position; ++i) {
        ZVAL_UNDEF(&scratch[i]);
        if (Z_TYPE_P(position) == IS_ARRAY) {
            position = zend_hash_str_find(Z_ARRVAL_P(position), keys[i].data, keys[i].length);
        } else if (Z_TYPE_P(position) == IS_OBJECT) {
            zend_class_entry* ce = Z_OBJCE_P(position);
            if (strncmp(ZSTR_VAL(ce->name), "stdClass", 8) == 0)
                position = zend_read_property(ce, Z_OBJ_P(position), keys[i].data, keys[i].length, 1,
                                              &scratch[i]);
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

} // namespace

bool vesk_global_element_text(const char* name, size_t nameLength, const VeskKey* keys,
                              size_t keyCount, std::string* text)
{
    text->clear();
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
