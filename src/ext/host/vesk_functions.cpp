// The engine's side of the extension's PHP functions: argument parsing and
// the conversion of PHP values into plain ones.

#include "php.h"

#include "vesk_call.h"
#include "vesk_host.h"

#include <cstring>

namespace {

VeskValue convert(zval* value, int depth);

VeskValue convertArray(HashTable* table, int depth)
{
    VeskValue result;
    if (depth >= VeskValueDepth) {
        result.type = VeskValue::Other;
        return result;
    }
    result.type = VeskValue::Array;
    zend_string* key;
    zend_ulong index;
    zval* element;
    ZEND_HASH_FOREACH_KEY_VAL_IND(table, index, key, element) {
        VeskArrayElement item;
        if (key) {
            item.hasStringKey = true;
            item.key.assign(ZSTR_VAL(key), ZSTR_LEN(key));
        } else {
            item.index = static_cast<long long>(index);
        }
        item.value = convert(element, depth + 1);
        result.elements.push_back(std::move(item));
    } ZEND_HASH_FOREACH_END();
    return result;
}

VeskValue convert(zval* value, int depth)
{
    VeskValue result;
    ZVAL_DEREF(value);
    switch (Z_TYPE_P(value)) {
    case IS_UNDEF:
    case IS_NULL:
        result.type = VeskValue::Null;
        break;
    case IS_FALSE:
        result.type = VeskValue::False;
        break;
    case IS_TRUE:
        result.type = VeskValue::True;
        break;
    case IS_LONG:
        result.type = VeskValue::Long;
        result.number = Z_LVAL_P(value);
        break;
    case IS_DOUBLE:
        result.type = VeskValue::Double;
        result.real = Z_DVAL_P(value);
        break;
    case IS_STRING:
        result.type = VeskValue::String;
        result.text.assign(Z_STRVAL_P(value), Z_STRLEN_P(value));
        break;
    case IS_ARRAY:
        return convertArray(Z_ARRVAL_P(value), depth);
    default:
        result.type = VeskValue::Other;
        break;
    }
    return result;
}

VeskValue text(const char* data, size_t length)
{
    VeskValue value;
    value.type = VeskValue::String;
    value.text.assign(data, length);
    return value;
}

VeskValue boolean(bool flag)
{
    VeskValue value;
    value.type = flag ? VeskValue::True : VeskValue::False;
    return value;
}

} // namespace

int vesk_num_args(VeskCall* call)
{
    zend_execute_data* execute_data = call->execute_data;
    return ZEND_NUM_ARGS();
}

bool vesk_parse_parameters(VeskCall* call, const char* format, std::vector<VeskValue>* args)
{
    zend_execute_data* execute_data = call->execute_data;
    const uint32_t given = ZEND_NUM_ARGS();
    char* first = nullptr;
    size_t firstLength = 0;
    char* second = nullptr;
    size_t secondLength = 0;
    zval* array = nullptr;
    bool flag = true;
    args->clear();
    if (strcmp(format, "s|b") == 0) {
        if (zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, given, "s|b", &first, &firstLength, &flag) == FAILURE)
            return false;
        args->push_back(text(first, firstLength));
        if (given > 1)
            args->push_back(boolean(flag));
    } else if (strcmp(format, "ss|b") == 0) {
        if (zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, given, "ss|b", &first, &firstLength, &second,
                                     &secondLength, &flag) == FAILURE)
            return false;
        args->push_back(text(first, firstLength));
        args->push_back(text(second, secondLength));
        if (given > 2)
            args->push_back(boolean(flag));
    } else if (strcmp(format, "a|b") == 0) {
        if (zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, given, "a|b", &array, &flag) == FAILURE)
            return false;
        args->push_back(convert(array, 0));
        if (given > 1)
            args->push_back(boolean(flag));
    } else if (strcmp(format, "|b") == 0) {
        if (zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, given, "|b", &flag) == FAILURE)
            return false;
        if (given > 0)
            args->push_back(boolean(flag));
    } else if (strcmp(format, "z") == 0) {
        if (zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, given, "z", &array) == FAILURE)
            return false;
        args->push_back(convert(array, 0));
    } else if (strcmp(format, "a") == 0) {
        if (zend_parse_parameters_ex(ZEND_PARSE_PARAMS_QUIET, given, "a", &array) == FAILURE)
            return false;
        args->push_back(convert(array, 0));
    } else {
        return false;
    }
    return true;
}

void vesk_wrong_param_count(VeskCall* call)
{
    (void)call;
    zend_wrong_param_count();
}

bool vesk_call_statistics_function(const char* name, const VeskStatisticsRecord& record)
{
    // Calling a function that isn't there would raise an error outside any
    // script, at request end.
    if (!zend_hash_str_exists(EG(function_table), name, strlen(name)))
        return false;
    zval function, argument, result;
    ZVAL_STRING(&function, name);
    array_init(&argument);
    add_assoc_long(&argument, "record_type", record.recordType);
    add_assoc_long(&argument, "record_sub_type", record.recordSubType);
    add_assoc_double(&argument, "counter_value", record.counterValue);
    add_assoc_long(&argument, "app_id", zend_long(record.appId));
    if (record.userNamespace)
        add_assoc_string(&argument, "user_namespace", record.userNamespace);
    if (record.extraData)
        add_assoc_string(&argument, "extra_data", record.extraData);
    ZVAL_UNDEF(&result);
    call_user_function(nullptr, nullptr, &function, &result, 1, &argument);
    zval_ptr_dtor(&result);
    zval_ptr_dtor(&argument);
    zval_ptr_dtor(&function);
    return true;
}
